// Narrow paths go to the system as they are, which reads them in the local code page, while the executable's
// folder is published in UTF-8.

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "GuardScene.h"
#include "TolmBase/FileUtil.h"
#include "net/ConfigXmlReader.h"
#include "net/WholeFile.h"
#include "os/Utf8Path.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using os::Utf8Path;
using ::testing::ElementsAre;

class GuardLocalPath : public GuardTest {
 protected:
  /// Makes a folder below the test's own with a configuration file in it.
  void MakeFolder(const std::string& utf8_name) const {
    const std::filesystem::path folder = directory_.path() / Utf8Path(utf8_name);
    std::filesystem::create_directory(folder);
    std::ofstream(folder / "LpcFrame.xml", std::ios::binary)
        << "<Config><ServerPort>1</ServerPort></Config>\n";
  }
};

TEST_F(GuardLocalPath, BackslashesSeparate) {
  MakeFolder("sub");
  std::string content;
  EXPECT_TRUE(ReadFileText(content, directory_.path().string() + "\\sub\\LpcFrame.xml"));
  EXPECT_TRUE(ReadFileText(content, directory_.path().string() + "\\sub/LpcFrame.xml"));
  Tolm::Base::FileUtil::InitCurExeDirUtf8(directory_.path().string() + "\\sub");
  CLocalXmlReader reader;
  EXPECT_TRUE(reader.ReadLocalXml(0));
  EXPECT_EQ(reader.Config().port, 1);
}

TEST_F(GuardLocalPath, APathIsReadInTheLocalCodePage) {
  if (::GetACP() != 1252) GTEST_SKIP() << "for code page 1252, and this is " << ::GetACP();
  MakeFolder("\xC3\xA4");
  std::string content;
  EXPECT_TRUE(ReadFileText(content, directory_.path().string() + "\\\xE4\\LpcFrame.xml"));
}

TEST_F(GuardLocalPath, AFolderThatIsAnotherOneInTheLocalCodePageIsLoggedAndFails) {
  if (::GetACP() == CP_UTF8) GTEST_SKIP() << "the local code page is UTF-8";
  const std::string name = "\xC3\xA4\xE6\xBC\xA2";
  MakeFolder(name);
  Tolm::Base::FileUtil::InitCurExeDirUtf8(Folder() + name + "/");
  const std::string path = Folder() + name + "/LpcFrame.xml";
  CLocalXmlReader reader;
  EXPECT_FALSE(reader.ReadLocalXml(0));
  EXPECT_FALSE(reader.SetConfigXml({1, ""}, 0));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Info("CLocalXmlReader::ReadLocalXml", "ReadFile path[" + path + "]"),
                          Error("CLocalXmlReader::ReadLocalXml", "ReadFile failed path[" + path + "]"),
                          Error("CLocalXmlReader::SetConfigXml", "ReadFile  failed path[" + path + "]")));
}

}  // namespace
}  // namespace tolm::test
