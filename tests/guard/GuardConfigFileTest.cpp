#include <filesystem>
#include <string>

#include "GuardScene.h"
#include "TolmProto/XmlProto.h"
#include "net/ConfigXmlReader.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kRead[] = "CLocalXmlReader::ReadLocalXml";
constexpr char kWrite[] = "CLocalXmlReader::SetConfigXml";

class GuardConfigFile : public GuardTest {
 protected:
  struct Found {
    bool read = false;
    LocalXmlConfig config;
  };
  static Found Read(std::int32_t frame_type = 0) {
    CLocalXmlReader reader;
    Found found;
    found.read = reader.ReadLocalXml(frame_type);
    found.config = reader.Config();
    return found;
  }
  void ExpectDefaults() {
    const Found found = Read();
    EXPECT_TRUE(found.read);
    EXPECT_EQ(found.config.port, -1);
    EXPECT_EQ(found.config.protocol_type, "");
  }
  static bool Write(std::int32_t port, const std::string& protocol_type, std::int32_t frame_type = 0) {
    CLocalXmlReader reader;
    return reader.SetConfigXml({port, protocol_type}, frame_type);
  }
};

// Reading.

TEST_F(GuardConfigFile, BeforeReadingThereIsPortZeroAndNoProtocol) {
  const CLocalXmlReader reader;
  EXPECT_EQ(reader.Config().port, 0);
  EXPECT_EQ(reader.Config().protocol_type, "");
}

TEST_F(GuardConfigFile, TheFrameTypeSaysWhichPortIsRead) {
  WriteConfig("<ServerPort>1</ServerPort><ClientPort>2</ClientPort><ProtocolType>ws</ProtocolType>");
  EXPECT_EQ(Read(1).config.port, 2);
  for (const std::int32_t type : {0, 2, -1, 11}) EXPECT_EQ(Read(type).config.port, 1) << type;
  EXPECT_EQ(Read(1).config.protocol_type, "ws");
  EXPECT_EQ(Read(0).config.protocol_type, "ws");
}

TEST_F(GuardConfigFile, ReadingLogsThePathOnly) {
  WriteConfig("<ServerPort>1</ServerPort>");
  EXPECT_TRUE(Read().read);
  EXPECT_THAT(log_.Lines(), ElementsAre(Info(kRead, "ReadFile path[" + ConfigPath() + "]")));
}

TEST_F(GuardConfigFile, AMissingOrEmptyFileIsLoggedAndFails) {
  EXPECT_FALSE(Read().read);
  EXPECT_THAT(log_.Lines(), ElementsAre(Info(kRead, "ReadFile path[" + ConfigPath() + "]"),
                                        Error(kRead, "ReadFile failed path[" + ConfigPath() + "]")));
  WriteFile("LpcFrame.xml", "");
  EXPECT_FALSE(Read().read);
  EXPECT_EQ(Read().config.port, 0);
}

TEST_F(GuardConfigFile, AFolderInTheFilesPlaceFails) {
  std::filesystem::create_directory(ConfigPath());
  EXPECT_FALSE(Read().read);
  EXPECT_FALSE(Write(1, ""));
}

TEST_F(GuardConfigFile, MissingElementsHaveDefaults) {
  WriteConfig("");
  ExpectDefaults();
  WriteConfig("<ClientPort>2</ClientPort>");
  ExpectDefaults();
  WriteFile("LpcFrame.xml", "<Other><ServerPort>1</ServerPort></Other>\n");
  ExpectDefaults();
}

TEST_F(GuardConfigFile, WhatIsNotXmlReadsAsDefaults) {
  for (const char* content : {"hello\n", "<Config><ServerPort>1</ServerPort>\n", "<Config></Wrong>\n", "{}\n",
                              "<Config><ServerPort>1</ServerPort></Config", "\n\n\n", "\xFF\xFE\n"}) {
    WriteFile("LpcFrame.xml", content);
    ExpectDefaults();
  }
}

TEST_F(GuardConfigFile, ALastLineWithoutLineFeedIsLostAndWithItTheDocument) {
  WriteFile("LpcFrame.xml", "<Config>\n<ServerPort>1</ServerPort>\n</Config>");
  ExpectDefaults();
  WriteFile("LpcFrame.xml", "<Config><ServerPort>1</ServerPort></Config>");
  EXPECT_EQ(Read().config.port, 1);
}

TEST_F(GuardConfigFile, PortsAreReadAsTheyStandAndWhatIsNoNumberAsMinusOne) {
  const auto port = [this](const std::string& text) {
    WriteConfig("<ServerPort>" + text + "</ServerPort>");
    return Read().config.port;
  };
  EXPECT_EQ(port("-1"), -1);
  EXPECT_EQ(port("0"), 0);
  EXPECT_EQ(port("70000"), 70000);
  EXPECT_EQ(port("abc"), -1);
  EXPECT_EQ(port(""), -1);
  EXPECT_EQ(port("8123x"), -1);
  EXPECT_EQ(port("99999999999"), -1);
}

TEST_F(GuardConfigFile, TenMebibytesOfBlanksAreReadAsDefaults) {
  WriteFile("LpcFrame.xml", std::string(10 * 1024 * 1024, ' '));
  ExpectDefaults();
  WriteFile("LpcFrame.xml",
            "<Config>" + std::string(10 * 1024 * 1024, ' ') + "<ServerPort>7</ServerPort></Config>\n");
  EXPECT_EQ(Read().config.port, 7);
}

TEST_F(GuardConfigFile, APaddedFileIsReadLikeAnyOther) {
  WriteConfig("<ServerPort>1</ServerPort>" + std::string(2000, '\n'));
  EXPECT_EQ(Read().config.port, 1);
  WriteFile("LpcFrame.xml", "<Config><ServerPort>2</ServerPort></Config>" + std::string(2000, '\n'));
  EXPECT_EQ(Read().config.port, 2);
}

// Writing.

TEST_F(GuardConfigFile, WhatIsWrittenCanBeRead) {
  for (const std::int32_t type : {0, 1}) {
    WriteConfig("");
    EXPECT_TRUE(Write(8123, "w<s>&\"", type));
    EXPECT_EQ(Read(type).config.port, 8123);
    EXPECT_EQ(Read(type).config.protocol_type, "w<s>&\"");
    EXPECT_EQ(Read(1 - type).config.port, -1);
  }
}

TEST_F(GuardConfigFile, WritingDropsTheOtherPortAndEverythingElse) {
  WriteConfig("<ServerPort>1</ServerPort><ClientPort>2</ClientPort><Own>3</Own>");
  EXPECT_TRUE(Write(9, "ws", 1));
  EXPECT_THAT(ReadFile("LpcFrame.xml"), Not(HasSubstr("ServerPort")));
  EXPECT_THAT(ReadFile("LpcFrame.xml"), Not(HasSubstr("Own")));
  proto::CXmlProto xml;
  ASSERT_TRUE(xml.set_str(ReadFile("LpcFrame.xml")));
  EXPECT_EQ(xml.get_int_v("/Config/ClientPort", 0), 9);
  EXPECT_EQ(xml.get_v("/Config/ProtocolType", ""), "ws");
}

TEST_F(GuardConfigFile, AnEmptyProtocolIsWrittenAsAnElement) {
  WriteConfig("");
  EXPECT_TRUE(Write(9, ""));
  EXPECT_THAT(ReadFile("LpcFrame.xml"), HasSubstr("ProtocolType"));
}

TEST_F(GuardConfigFile, WritingTakesTheGivenRecordAndLogsNothing) {
  WriteConfig("<ServerPort>1</ServerPort>");
  CLocalXmlReader reader;
  reader.ReadLocalXml(0);
  log_.Clear();
  EXPECT_TRUE(reader.SetConfigXml({5, "x"}, 0));
  EXPECT_EQ(reader.Config().port, 1);
  EXPECT_EQ(Read().config.port, 5);
  EXPECT_THAT(LinesOf(kWrite), IsEmpty());
}

TEST_F(GuardConfigFile, AFileThatIsMissingOrEmptyIsNotWritten) {
  EXPECT_FALSE(Write(9, ""));
  EXPECT_FALSE(FileExists("LpcFrame.xml"));
  // Two blanks behind "ReadFile".
  EXPECT_THAT(log_.Lines(), ElementsAre(Error(kWrite, "ReadFile  failed path[" + ConfigPath() + "]")));
  WriteFile("LpcFrame.xml", "");
  EXPECT_FALSE(Write(9, ""));
  EXPECT_EQ(ReadFile("LpcFrame.xml"), "");
  EXPECT_THAT(Journal::Of("file."), IsEmpty());
}

TEST_F(GuardConfigFile, AFileThatCannotBeOpenedForWritingIsLoggedAndFails) {
  WriteConfig("");
  system_.file_open = false;
  EXPECT_FALSE(Write(9, ""));
  EXPECT_THAT(log_.Lines(), ElementsAre(Error(kWrite, "WriteFile failed path[" + ConfigPath() + "]")));
}

TEST_F(GuardConfigFile, TheCompanionIsReadAndTheFileItselfWritten) {
  WriteFile("LpcFrame.data", "<Config><ServerPort>3</ServerPort></Config>\n");
  EXPECT_EQ(Read().config.port, 3);
  EXPECT_TRUE(Write(9, ""));
  EXPECT_EQ(Read().config.port, 9);
  EXPECT_EQ(ReadFile("LpcFrame.data"), "<Config><ServerPort>3</ServerPort></Config>\n");
  EXPECT_TRUE(FileExists("LpcFrame.xml"));
}

TEST_F(GuardConfigFile, ALongFileKeepsItsLength) {
  WriteConfig(std::string(3000, ' '));
  EXPECT_TRUE(Write(9, ""));
  EXPECT_EQ(ReadFile("LpcFrame.xml").size(), 3072u);
  EXPECT_EQ(Read().config.port, 9);
}

}  // namespace
}  // namespace tolm::test
