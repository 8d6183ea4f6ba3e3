#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "os/HiddenProcess.h"
#include "support/System.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace os {

/// Programs that live on their own: copies of this one, in a folder of each test's own.
class HiddenProcessTest : public testing::Test {
 protected:
  ~HiddenProcessTest() override {
    for (const long id : started_) tolm::test::KillProcess(id);
    for (const long id : started_) EXPECT_TRUE(Ends(id));
  }

  std::filesystem::path Program(const std::string& name) {
    const std::filesystem::path path = tolm::test::ProgramFile(folder_ / name);
    std::filesystem::create_directories(path.parent_path());
    std::filesystem::copy_file(tolm::test::ThisProgram(), path);
    return path;
  }

  long Start(const std::string& command_line) {
    const StartedProcess process = StartHidden(command_line);
    EXPECT_TRUE(process.started) << command_line << ": " << process.error;
    EXPECT_EQ(process.error, 0);
    if (process.started) started_.push_back(process.process_id);
    return process.process_id;
  }
  /// Starts a program that does nothing, and waits until it runs: what is killed while it begins may leave
  /// a part of the system waiting for it.
  long StartSleeper(const std::filesystem::path& program) {
    const std::filesystem::path mark = MarkOf(started_.size());
    const long id = Start(Sleeping(program, mark));
    EXPECT_TRUE(tolm::test::WaitFor([&] { return std::filesystem::exists(mark); }));
    return id;
  }
  std::filesystem::path MarkOf(std::size_t number) const {
    return folder_ / ("runs " + std::to_string(number));
  }
  static std::string Sleeping(const std::filesystem::path& program, const std::filesystem::path& mark) {
    return "\"" + program.string() + "\" --role mark \"" + mark.string() + "\"";
  }
  /// What a program says that is started with WithOutput(), when it is complete.
  std::string WithOutput(const std::filesystem::path& program) const {
    return "\"" + program.string() + "\" --role into \"" + output_.string() + "\"";
  }
  std::string WaitOutput() const {
    EXPECT_TRUE(tolm::test::WaitFor([this] { return std::filesystem::exists(output_); }));
    std::ifstream file(output_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static bool Lives(long id) { return tolm::test::IsAlive(id); }
  static bool Ends(long id) {
    return tolm::test::WaitFor([id] { return !Lives(id); });
  }

  static std::string Replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
      text.replace(at, from.size(), to);
    }
    return text;
  }
  /// The path as a removal command names it, with backslashes, doubled.
  static std::string Doubled(const std::filesystem::path& path) {
    return Replaced(path.generic_string(), "/", "\\\\");
  }
  static std::string Removal(const std::string& path) {
    return "wmic process where ExecutablePath=\"" + path + "\" delete";
  }

  const tolm::test::TempDirectory directory_;
  const std::filesystem::path folder_ = std::filesystem::canonical(directory_.path());
  const std::filesystem::path output_ = folder_ / "output";

 private:
  std::vector<long> started_;
};

}  // namespace os
