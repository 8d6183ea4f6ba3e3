// In the place of the guard: it writes down what happens to it in the folder that TEST_GUARD_FOLDER names,
// and behaves as the file "mode" there says. With "--wait" it is just a process.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

namespace {

std::string g_journal;
std::string g_asked;

// One write each, so that lines of several processes do not mix; usable in a signal handler.
void WriteDown(const std::string& line) {
  const int file = ::open(g_journal.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0 || ::write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size())) ::_exit(1);
  ::close(file);
}

[[noreturn]] void WaitForever() {
  for (;;) ::pause();
}

void StartDaemon() {
  if (::fork() == 0) {
    ::setsid();
    if (::fork() == 0) {
      WriteDown("daemon " + std::to_string(::getpid()) + "\n");
      WaitForever();
    }
    ::_exit(0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "--wait") WaitForever();
  const char* const folder = std::getenv("TEST_GUARD_FOLDER");
  if (folder == nullptr) return 2;
  g_journal = std::string(folder) + "/journal";
  g_asked = "asked " + std::to_string(::getpid()) + "\n";
  std::string mode;
  std::ifstream(std::string(folder) + "/mode") >> mode;

  std::signal(
      SIGTERM, mode == "ignore-requests" ? SIG_IGN : [](int) {
        WriteDown(g_asked);
        ::_exit(0);
      });
  if (mode == "leave-daemon") StartDaemon();
  std::string line = "arguments";
  for (int i = 1; i < argc; ++i) line += std::string(" ") + argv[i];
  WriteDown(line + "\n");
  std::cout << "the stand-in\nspeaks" << std::flush;
  WriteDown("guard " + std::to_string(::getpid()) + "\n");
  if (mode == "end-at-once") return 0;
  WaitForever();
}
