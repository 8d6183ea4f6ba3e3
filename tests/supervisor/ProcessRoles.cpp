#include "ProcessRoles.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "os/ChildProcess.h"

namespace tolm::test {
namespace {

using Arguments = std::vector<std::string>;

std::string ThisProgram() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

void Say(const std::string& line) {
  std::cout << line << std::endl;
}

void SayWithId(const std::string& who) {
  Say(who + " " + std::to_string(::getpid()));
}

[[noreturn]] void WaitForever() {
  for (;;) ::pause();
}

int Print(const Arguments& arguments) {
  const int lines = std::stoi(arguments.at(0));
  for (int i = 0; i < lines; ++i) {
    const std::string line = "line " + std::to_string(i) + "\n";
    const int where = i % 2 == 0 ? STDOUT_FILENO : STDERR_FILENO;
    for (std::string_view rest = line; !rest.empty();) {
      const ssize_t count = ::write(where, rest.data(), rest.size());
      if (count <= 0) return 1;
      rest.remove_prefix(static_cast<std::size_t>(count));
    }
  }
  return 0;
}

int ExitWith(const Arguments& arguments) {
  return std::stoi(arguments.at(0));
}

int ReadInput(const Arguments&) {
  char byte = 0;
  Say(::read(STDIN_FILENO, &byte, 1) == 0 ? "nothing to read" : "something to read");
  return 0;
}

int Wait(const Arguments& arguments) {
  SayWithId(arguments.empty() ? "ready" : arguments.front());
  WaitForever();
}

int IgnoreRequests(const Arguments&) {
  std::signal(SIGTERM, SIG_IGN);
  SayWithId("ready");
  WaitForever();
}

int EndWhenAsked(const Arguments&) {
  std::signal(SIGTERM, [](int) { ::_exit(7); });
  SayWithId("ready");
  WaitForever();
}

int ListDescriptors(const Arguments&) {
  std::string open;
  DIR* const folder = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(folder)) {
    const std::string name = entry->d_name;
    if (name[0] != '.' && name != std::to_string(::dirfd(folder))) open += " " + name;
  }
  ::closedir(folder);
  Say("open:" + open);
  return 0;
}

int ShowSurroundings(const Arguments& arguments) {
  Say("folder " + std::filesystem::current_path().string());
  for (const std::string& argument : arguments) Say("argument " + argument);
  for (const char* name : {"TEST_ADDED", "TEST_KEPT"}) {
    const char* value = std::getenv(name);
    Say(std::string(name) + " " + (value == nullptr ? "(none)" : value));
  }
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("SigBlk") || line.starts_with("SigIgn")) Say(line);
  }
  Say(::getpgrp() == ::getpid() ? "leads its group" : "is in a group");
  return 0;
}

// Starts a process in a session of its own, whose parent has ended, and waits until it has closed the
// descriptor that it is given, or has replaced itself by another program.
void StartDaemon(const std::function<void(int ready)>& be) {
  int ready[2];
  if (::pipe2(ready, O_CLOEXEC) != 0) ::_exit(1);
  if (::fork() == 0) {
    ::setsid();
    if (::fork() == 0) be(ready[1]);
    ::_exit(0);
  }
  ::close(ready[1]);
  char byte = 0;
  while (::read(ready[0], &byte, 1) > 0) {
  }
  ::close(ready[0]);
}

void BeDaemon(int ready) {
  SayWithId("daemon");
  if (std::freopen("/dev/null", "w", stdout) == nullptr ||
      std::freopen("/dev/null", "w", stderr) == nullptr) {
    ::_exit(1);
  }
  ::close(ready);
  WaitForever();
}

// Not to be recognised as a descendant by anything, and with the output still in its hands.
void Escape(int) {
  const std::string program = ThisProgram();
  char* const nothing[] = {nullptr};
  ::execle(program.c_str(), program.c_str(), "--role", "wait", "escaped", nullptr, nothing);
  ::_exit(1);
}

int HaveFamily(const Arguments&) {
  if (::fork() == 0) {
    SayWithId("child");
    WaitForever();
  }
  if (::fork() == 0) {
    ::setsid();
    if (::fork() == 0) {
      SayWithId("grandchild");
      WaitForever();
    }
    SayWithId("leader");
    WaitForever();
  }
  StartDaemon(BeDaemon);
  SayWithId("ready");
  WaitForever();
}

// Each generation lives for a moment only: whoever looks for it finds the one before.
int Breed(const Arguments&) {
  if (::fork() != 0) {
    SayWithId("ready");
    WaitForever();
  }
  constexpr int kGenerations = 100000;
  for (int i = 0; i < kGenerations; ++i) {
    if (::fork() != 0) ::_exit(0);
  }
  SayWithId("old age");
  return 0;
}

int LeaveDaemon(const Arguments&) {
  StartDaemon(BeDaemon);
  return 0;
}

int LeaveEscaped(const Arguments&) {
  StartDaemon(Escape);
  return 0;
}

int HoldLock(const Arguments& arguments) {
  std::string why;
  const auto lock = os::ProcessLock::TryTake(arguments.at(0), why);
  SayWithId(lock ? "ready" : "not held: " + why);
  if (!lock) return 1;
  WaitForever();
}

int HaveChildThatEndsWithParent(const Arguments&) {
  if (::fork() == 0) {
    os::EndWithParent();
    SayWithId("ready");
    WaitForever();
  }
  WaitForever();
}

os::ProcessRequest RoleRequest(Arguments arguments) {
  os::ProcessRequest request{.program = ThisProgram(), .arguments = std::move(arguments)};
  request.arguments.insert(request.arguments.begin(), "--role");
  request.on_output = [](std::string_view output) { std::cout << output << std::flush; };
  return request;
}

// Starts another role and passes on what that one says.
int Supervise(const Arguments& arguments) {
  os::ProcessRequest request = RoleRequest(arguments);
  request.on_end = [](const os::ProcessEnd& end) { Say("ended: " + Describe(end)); };
  std::string why;
  const auto child = os::ChildProcess::Start(std::move(request), why);
  SayWithId(child ? "supervisor" : why);
  WaitForever();
}

int SuperviseAndAdopt(const Arguments& arguments) {
  os::AdoptOrphans();
  return Supervise(arguments);
}

// Removes what nobody stands for when it is told to, and tells when that is done.
int KillStrays(const Arguments& arguments) {
  os::AdoptOrphans();
  std::string why;
  const auto living = os::ChildProcess::Start(RoleRequest({"family"}), why);
  os::ProcessRequest request = RoleRequest(arguments);
  std::atomic<bool> ended{false};
  request.on_end = [&ended](const os::ProcessEnd&) {
    ended = true;
    ended.notify_all();
  };
  const auto passing = os::ChildProcess::Start(std::move(request), why);
  if (!living || !passing) return 1;
  ended.wait(false);

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  SayWithId("supervisor");
  int signal = 0;
  ::sigwait(&signals, &signal);
  os::KillStrayDescendants();
  Say("strays are killed");
  WaitForever();
}

}  // namespace

int RunAsRole(int argc, char** argv) {
  static const std::map<std::string, int (*)(const Arguments&)> kRoles{
      {"print", Print},
      {"exit", ExitWith},
      {"read-input", ReadInput},
      {"wait", Wait},
      {"ignore-requests", IgnoreRequests},
      {"end-when-asked", EndWhenAsked},
      {"list-descriptors", ListDescriptors},
      {"show-surroundings", ShowSurroundings},
      {"family", HaveFamily},
      {"breed", Breed},
      {"leave-daemon", LeaveDaemon},
      {"leave-escaped", LeaveEscaped},
      {"hold-lock", HoldLock},
      {"child-ends-with-parent", HaveChildThatEndsWithParent},
      {"supervise", Supervise},
      {"supervise-and-adopt", SuperviseAndAdopt},
      {"kill-strays", KillStrays},
  };
  if (argc < 1) return 2;
  const auto role = kRoles.find(argv[0]);
  if (role == kRoles.end()) return 2;
  return role->second(Arguments(argv + 1, argv + argc));
}

}  // namespace tolm::test
