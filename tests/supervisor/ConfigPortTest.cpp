#include "ConfigPort.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "support/TempDirectory.h"

namespace guard {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class Config : public testing::Test {
 protected:
  fs::path file() const { return directory_.path() / "LpcFrame.xml"; }
  void Write(const std::string& text, const char* name = "LpcFrame.xml") const {
    std::ofstream(directory_.path() / name, std::ios::binary) << text;
  }
  std::uint16_t Port(Role role = Role::kClient) {
    why_.clear();
    return ReadConfigPort(file(), role, why_);
  }

  const tolm::test::TempDirectory directory_;
  std::string why_;
};

TEST_F(Config, EachRoleHasItsElement) {
  Write("<Config><ServerPort>7001</ServerPort><ClientPort> 7002 </ClientPort></Config>\n");
  EXPECT_EQ(Port(Role::kClient), 7002);
  EXPECT_EQ(Port(Role::kServer), 7001);
}

TEST_F(Config, PaddingWithLineFeedsDoesNotMatter) {
  Write("<?xml version=\"1.0\"?>\n<Config>\n<ClientPort>65535</ClientPort>\n</Config>\n" +
        std::string(900, '\n'));
  EXPECT_EQ(Port(), 65535);
}

TEST_F(Config, TheDataFileStandsInForAMissingOrEmptyOne) {
  Write("<Config><ClientPort>1</ClientPort></Config>", "LpcFrame.data");
  EXPECT_EQ(Port(), 1);
  Write("");
  EXPECT_EQ(Port(), 1);
  Write("<Config><ClientPort>2</ClientPort></Config>");
  EXPECT_EQ(Port(), 2);
}

TEST_F(Config, WhatHasNoPortSaysWhy) {
  EXPECT_EQ(Port(), 0);
  EXPECT_EQ(why_, file().string() + " is missing, empty, too long, or cannot be read");
  struct Case {
    std::string text;
    const char* why;
  };
  const Case cases[] = {
      {"", " is missing, empty"},
      {std::string(1048577, '\n'), " is missing, empty, too long"},
      {std::string(512, '\n'), " is not XML"},
      {"<Config><ClientPort>7002</ClientPort>", " is not XML"},
      {"port 7002", " is not XML"},
      {"<Config><ServerPort>7001</ServerPort></Config>", " has no element /Config/ClientPort"},
      {"<Other><ClientPort>7001</ClientPort></Other>", " has no element /Config/ClientPort"},
      {"<Config><ClientPort/></Config>", "/Config/ClientPort is no port: \"\""},
      {"<Config><ClientPort>0</ClientPort></Config>", "/Config/ClientPort is no port: \"0\""},
      {"<Config><ClientPort>-1</ClientPort></Config>", "/Config/ClientPort is no port: \"-1\""},
      {"<Config><ClientPort>65536</ClientPort></Config>", "/Config/ClientPort is no port: \"65536\""},
      {"<Config><ClientPort>70x</ClientPort></Config>", "/Config/ClientPort is no port: \"70x\""},
  };
  for (const Case& one : cases) {
    Write(one.text);
    EXPECT_EQ(Port(), 0) << one.text;
    EXPECT_THAT(why_, HasSubstr(one.why)) << one.text;
  }
}

}  // namespace
}  // namespace guard
