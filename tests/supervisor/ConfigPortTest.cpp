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

TEST_F(Config, WhatStandsBehindTheLastLineFeedIsNotReadAsTheFrameReadsIt) {
  Write("<Config>\n<ClientPort>7003</ClientPort>\n</Config>\ngarbage");
  EXPECT_EQ(Port(), 7003);
  Write("<Config>\n<ClientPort>7003</ClientPort></Config>");
  EXPECT_EQ(Port(), 65535);
  Write("<Config><ClientPort>7003</ClientPort></Config>");
  EXPECT_EQ(Port(), 7003);
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
  for (const std::string& text : {std::string(), std::string(1048577, '\n')}) {
    Write(text);
    EXPECT_EQ(Port(), 0) << text.size();
    EXPECT_THAT(why_, HasSubstr(" is missing, empty, too long"));
  }
  for (const char* const zero : {"0", "-0", "65536"}) {
    Write("<Config><ClientPort>" + std::string(zero) + "</ClientPort></Config>");
    EXPECT_EQ(Port(), 0) << zero;
    EXPECT_THAT(why_, HasSubstr("/Config/ClientPort says that there is no port")) << zero;
  }
}

TEST_F(Config, WhatNamesNoUsableNumberIsTheFramesPortAllTheSame) {
  struct Case {
    std::string text;
    std::uint16_t port;
  };
  const Case cases[] = {
      {std::string(512, '\n'), 65535},
      {"<Config><ClientPort>7002</ClientPort>", 65535},
      {"port 7002", 65535},
      {"<Config><ServerPort>7001</ServerPort></Config>", 65535},
      {"<Other><ClientPort>7001</ClientPort></Other>", 65535},
      {"<Config><ClientPort/></Config>", 65535},
      {"<Config><ClientPort>-1</ClientPort></Config>", 65535},
      {"<Config><ClientPort>70x</ClientPort></Config>", 65535},
      {"<Config><ClientPort>70000</ClientPort></Config>", 4464},
  };
  for (const Case& one : cases) {
    Write(one.text);
    EXPECT_EQ(Port(), one.port) << one.text;
    EXPECT_EQ(why_, "") << one.text;
  }
}

}  // namespace
}  // namespace guard
