// In the place of the guard: it writes down what happens to it in the folder that TEST_GUARD_FOLDER names,
// and behaves as the file "mode" there says. With arguments it is just a process:
//
//   --wait               says that it waits, and ignores requests to end
//   --say TEXT STATUS    says that, and ends with this status

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include "os/HiddenProcess.h"
#include "os/StopSignal.h"
#include "support/System.h"

namespace {

// One write each, so that lines of several processes do not mix.
void WriteDown(const std::string& journal, const std::string& line) {
  std::ofstream file(journal, std::ios::binary | std::ios::app);
  file << line + "\n";
  if (!file.flush()) std::_Exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "--wait") {
    std::signal(SIGTERM, SIG_IGN);
    std::cout << "waits" << std::endl;
    tolm::test::WaitForever();
  }
  if (what == "--say" && argc == 4) {
    std::cout << argv[2] << std::endl;
    return std::atoi(argv[3]);
  }
  const char* const folder = std::getenv("TEST_GUARD_FOLDER");
  if (folder == nullptr) return 2;
  const std::string journal = std::string(folder) + "/journal";
  const std::string id = std::to_string(tolm::test::OwnProcessId());
  std::string mode;
  std::ifstream(std::string(folder) + "/mode") >> mode;

  if (mode == "ignore-requests") {
    std::signal(SIGTERM, SIG_IGN);
  } else {
    os::OnStopSignal([journal, id] {
      WriteDown(journal, "asked " + id);
      std::_Exit(0);
    });
  }
  if (mode == "leave-daemon") {
    const auto daemon = os::StartHidden(os::JoinCommandLine({tolm::test::ThisProgram().string(), "--wait"}));
    WriteDown(journal, "daemon " + std::to_string(daemon.process_id));
  }
  std::string line = "arguments";
  for (int i = 1; i < argc; ++i) line += std::string(" ") + argv[i];
  WriteDown(journal, line);
  std::cout << "the stand-in\nspeaks" << std::flush;
  WriteDown(journal, "guard " + id);
  if (mode == "end-at-once") return 0;
  tolm::test::WaitForever();
}
