// Runs one hot path so often that what it executes can be counted: scripts/instructions.py does that.

#include <gnu/libc-version.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "Path.h"
#include "TolmBase/Log.h"

namespace {

std::vector<instructions::Path> AllPaths() {
  std::vector<instructions::Path> all;
  for (const auto& part : {instructions::WirePaths(), instructions::RecordPaths(), instructions::TextPaths(),
                           instructions::FramePaths()}) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

/// On what the counts depend beside our own code.
void PrintBuild() {
  std::printf("%s, libstdc++ %d, glibc %s\n", TOLM_COMPILER, __GLIBCXX__, gnu_get_libc_version());
}

int Run(const std::string& name) {
  // What an application's logs cost is another question.
  Tolm::Base::SetLogStderrLevel(Tolm::Base::kLogLevelOff);
  for (const instructions::Path& path : AllPaths()) {
    if (path.name != name) continue;
    std::printf("%zu\n", path.run());
    return EXIT_SUCCESS;
  }
  std::fprintf(stderr, "frame_instructions: no such path: %s\n", name.c_str());
  return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Runs one hot path with a fixed input, and prints how often; callgrind counts meanwhile.");
  std::string name;
  bool list = false;
  bool build = false;
  auto* const choice = app.add_option_group("what");
  choice->add_option("--path", name, "run this one");
  choice->add_flag("--list", list, "print the names of all paths");
  choice->add_flag("--build", build, "print what it was built with");
  choice->require_option(1);
  CLI11_PARSE(app, argc, argv);

  int result = EXIT_SUCCESS;
  try {
    if (list) {
      for (const instructions::Path& path : AllPaths()) std::puts(path.name);
    } else if (build) {
      PrintBuild();
    } else {
      result = Run(name);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "frame_instructions: %s: %s\n", name.c_str(), error.what());
    result = EXIT_FAILURE;
  }
  // A frame's orderly end takes seconds, and nothing is left to be done.
  std::fflush(stdout);
  std::_Exit(result);
}
