#include <cstdint>
#include <filesystem>
#include <string>

#include "GuardScene.h"
#include "net/WholeFile.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class GuardWholeFile : public GuardTest {
 protected:
  std::string Path(const std::string& name) const { return Folder() + name; }

  /// What reading this file gives; "fails" when it does, with the content untouched.
  static std::string Read(const std::string& path, const std::string& alt_path = {}) {
    std::string content = "untouched";
    if (ReadFileText(content, path, alt_path)) return content;
    EXPECT_EQ(content, "untouched");
    return "fails";
  }
};

// Reading.

TEST_F(GuardWholeFile, ReadingEndsBehindTheLastLineFeed) {
  WriteFile("a", "one\ntwo\n");
  WriteFile("b", "one\ntwo");
  WriteFile("c", "one");
  WriteFile("d", "\n");
  WriteFile("e", "one\r\ntwo\r");
  EXPECT_EQ(Read(Path("a")), "one\ntwo\n");
  EXPECT_EQ(Read(Path("b")), "one\n");
  EXPECT_EQ(Read(Path("c")), "one");
  EXPECT_EQ(Read(Path("d")), "\n");
  EXPECT_EQ(Read(Path("e")), "one\r\n");
}

TEST_F(GuardWholeFile, BytesOfAnyKindAreRead) {
  const std::string bytes("a\0b\xFF\n", 5);
  WriteFile("a", bytes);
  EXPECT_EQ(Read(Path("a")), bytes);
}

TEST_F(GuardWholeFile, ALargeFileIsReadWhole) {
  WriteFile("a", std::string(10 * 1024 * 1024, ' '));
  EXPECT_EQ(Read(Path("a")).size(), 10u * 1024 * 1024);
}

TEST_F(GuardWholeFile, AMissingOrEmptyFileIsReplacedByItsCompanion) {
  WriteFile("a.data", "companion\n");
  EXPECT_EQ(Read(Path("a.xml")), "companion\n");
  WriteFile("a.xml", "");
  EXPECT_EQ(Read(Path("a.xml")), "companion\n");
  WriteFile("a.xml", "own\n");
  EXPECT_EQ(Read(Path("a.xml")), "own\n");
}

TEST_F(GuardWholeFile, TheCompanionHasTheNameBeforeTheLastDot) {
  WriteFile("a.b.data", "two dots\n");
  WriteFile("plain.data", "no dot\n");
  WriteFile(".data", "hidden\n");
  EXPECT_EQ(Read(Path("a.b.c")), "two dots\n");
  EXPECT_EQ(Read(Path("plain")), "no dot\n");
  EXPECT_EQ(Read(Path(".xml")), "hidden\n");
}

TEST_F(GuardWholeFile, ADotInAFoldersNameIsNotTheNamesDot) {
  std::filesystem::create_directory(Path("folder.d"));
  WriteFile("folder.d/a.data", "right\n");
  EXPECT_EQ(Read(Path("folder.d/a")), "right\n");
}

TEST_F(GuardWholeFile, ABackslashSeparatesTheFolderAsWell) {
  // The companion is then beside the file in the sense of a path with slashes.
  std::filesystem::create_directory(Path("sub"));
  WriteFile("sub/a.data", "found\n");
  EXPECT_EQ(Read(Path("sub\\a.xml")), "found\n");
}

TEST_F(GuardWholeFile, WithoutAnyFileReadingFails) {
  EXPECT_EQ(Read(Path("a.xml")), "fails");
  WriteFile("a.xml", "");
  WriteFile("a.data", "");
  EXPECT_EQ(Read(Path("a.xml")), "fails");
  EXPECT_EQ(Read("no-separator-in-this.xml"), "fails");
  EXPECT_EQ(Read(""), "fails");
}

TEST_F(GuardWholeFile, AGivenAlternativeIsReadInsteadOfTheCompanion) {
  WriteFile("a.data", "companion\n");
  WriteFile("other", "alternative\n");
  EXPECT_EQ(Read(Path("a.xml"), Path("other")), "alternative\n");
  EXPECT_EQ(Read(Path("a.xml"), Path("missing")), "fails");
  WriteFile("a.xml", "own\n");
  EXPECT_EQ(Read(Path("a.xml"), Path("other")), "own\n");
  EXPECT_EQ(Read("missing-without-folder", Path("other")), "alternative\n");
}

TEST_F(GuardWholeFile, AFolderIsNoFile) {
  std::filesystem::create_directory(Path("a.xml"));
  EXPECT_EQ(Read(Path("a.xml")), "fails");
  WriteFile("a.data", "companion\n");
  EXPECT_EQ(Read(Path("a.xml")), "companion\n");
}

TEST_F(GuardWholeFile, ADeviceWithoutASizeFails) {
  EXPECT_EQ(Read("/dev/null"), "fails");
}

// Writing.

TEST_F(GuardWholeFile, WritingFillsTheBlockWithLineFeeds) {
  EXPECT_TRUE(WriteFileText(Path("a"), "one\n"));
  EXPECT_EQ(ReadFile("a"), "one\n" + std::string(508, '\n'));
  EXPECT_THAT(Journal::Of("file."), ElementsAre("file.Open " + Path("a"), "file.Size", "file.Write 512 512"));
}

TEST_F(GuardWholeFile, WritingEndsBehindTheLastLineFeedAndAContentWithoutOneIsWrittenWhole) {
  EXPECT_TRUE(WriteFileText(Path("a"), "one\ntwo"));
  EXPECT_EQ(ReadFile("a"), "one\n" + std::string(508, '\n'));
  EXPECT_TRUE(WriteFileText(Path("b"), "one"));
  EXPECT_EQ(ReadFile("b"), "one" + std::string(509, '\n'));
}

TEST_F(GuardWholeFile, BlockBoundaries) {
  for (const std::size_t size : {1u, 511u, 512u, 513u, 1024u, 1025u, 4096u}) {
    const std::string name = std::to_string(size);
    EXPECT_TRUE(WriteFileText(Path(name), std::string(size - 1, 'x') + "\n"));
    EXPECT_EQ(ReadFile(name).size(), (size + 511) / 512 * 512) << size;
    EXPECT_EQ(ReadFile(name).substr(0, size), std::string(size - 1, 'x') + "\n");
  }
}

TEST_F(GuardWholeFile, AShorterContentKeepsTheFilesLengthAndOverwritesTheRest) {
  WriteFile("a", std::string(1500, 'x'));
  EXPECT_TRUE(WriteFileText(Path("a"), "one\n"));
  EXPECT_EQ(ReadFile("a"), "one\n" + std::string(1532, '\n'));
}

TEST_F(GuardWholeFile, NothingToWriteIntoAnEmptyFileFailsForEveryBlock) {
  WriteFile("a", "");
  EXPECT_FALSE(WriteFileText(Path("a"), ""));
  EXPECT_THAT(Journal::Of("file.Write"), IsEmpty());
  EXPECT_EQ(Journal::Count("file.Open " + Path("a")), 2u);
}

TEST_F(GuardWholeFile, NothingToWriteBlanksAFileThatHasContent) {
  WriteFile("a", "x");
  EXPECT_TRUE(WriteFileText(Path("a"), ""));
  EXPECT_EQ(ReadFile("a"), std::string(512, '\n'));
}

TEST_F(GuardWholeFile, AfterAFailureTheLargerBlockIsTried) {
  system_.file_open = [](const std::string& path) { return Journal::Count("file.Open " + path) > 1; };
  EXPECT_TRUE(WriteFileText(Path("a"), "one\n"));
  EXPECT_THAT(Journal::Of("file."), ElementsAre("file.Open " + Path("a"), "file.Open " + Path("a"),
                                                "file.Size", "file.Write 4096 4096"));
  EXPECT_EQ(ReadFile("a"), "one\n" + std::string(4092, '\n'));
}

TEST_F(GuardWholeFile, ASizeThatIsNotToldIsAFailure) {
  system_.file_size = false;
  EXPECT_FALSE(WriteFileText(Path("a"), "one\n"));
  EXPECT_THAT(Journal::Of("file.Write"), IsEmpty());
  EXPECT_EQ(Journal::Count("file.Size"), 2u);
}

TEST_F(GuardWholeFile, WhatTheDiskMakesOfTheBytesIsNotLookedAt) {
  system_.file_write = false;
  EXPECT_TRUE(WriteFileText(Path("a"), "one\n"));
  EXPECT_THAT(Journal::Of("file.Write"), ElementsAre("file.Write 512 512"));
}

TEST_F(GuardWholeFile, AFileThatCannotBeOpenedFails) {
  EXPECT_FALSE(WriteFileText(Path("missing folder/a"), "one\n"));
  EXPECT_FALSE(WriteFileTextAligned(Path("missing folder/a"), "one\n", 512));
}

TEST_F(GuardWholeFile, OfAFilesSizeTheLowThirtyTwoBitsCount) {
  system_.file_size = [](std::uint64_t& size) {
    size = 0x1'0000'0400;
    return true;
  };
  EXPECT_TRUE(WriteFileText(Path("a"), "one\n"));
  EXPECT_THAT(Journal::Of("file.Write"), ElementsAre("file.Write 512 1024"));
}

TEST_F(GuardWholeFile, OneBlockSizeCanBeAskedFor) {
  EXPECT_TRUE(WriteFileTextAligned(Path("a"), "one\n", 4096));
  EXPECT_EQ(ReadFile("a").size(), 4096u);
  EXPECT_TRUE(WriteFileTextAligned(Path("b"), std::string(4097, '\n'), 4096));
  EXPECT_EQ(ReadFile("b").size(), 8192u);
}

TEST_F(GuardWholeFile, SizesAreRoundedUpToWholeBlocks) {
  EXPECT_EQ(RoundUpToBlock(0, 512), 0u);
  EXPECT_EQ(RoundUpToBlock(1, 512), 512u);
  EXPECT_EQ(RoundUpToBlock(511, 512), 512u);
  EXPECT_EQ(RoundUpToBlock(512, 512), 512u);
  EXPECT_EQ(RoundUpToBlock(513, 512), 1024u);
  EXPECT_EQ(RoundUpToBlock(4095, 4096), 4096u);
  EXPECT_EQ(RoundUpToBlock(4096, 4096), 4096u);
  EXPECT_EQ(RoundUpToBlock(4097, 4096), 8192u);
  EXPECT_EQ(RoundUpToBlock(7, 1), 7u);
}

}  // namespace
}  // namespace tolm::test
