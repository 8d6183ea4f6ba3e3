#include "supervisor/SystemRoles.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>

#include "os/ChildProcess.h"
#include "support/System.h"

namespace tolm::test {
namespace {

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

int ShowSignals(const Arguments&) {
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
  const std::string program = ThisProgram().string();
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

int HaveChildThatEndsWithParent(const Arguments&) {
  if (::fork() == 0) {
    os::EndWithParent();
    SayWithId("ready");
    WaitForever();
  }
  WaitForever();
}

os::ProcessRequest RoleRequest(Arguments arguments) {
  os::ProcessRequest request{.program = ThisProgram().string(), .arguments = std::move(arguments)};
  request.arguments.insert(request.arguments.begin(), "--role");
  request.on_output = [](std::string_view output) { std::cout << output << std::flush; };
  return request;
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

Arguments ProgramArguments(int argc, char** argv) {
  return {argv + 1, argv + argc};
}

const std::map<std::string, Role>& SystemRoles() {
  static const std::map<std::string, Role> kRoles{
      {"list-descriptors", ListDescriptors},
      {"show-signals", ShowSignals},
      {"family", HaveFamily},
      {"breed", Breed},
      {"leave-daemon", LeaveDaemon},
      {"leave-escaped", LeaveEscaped},
      {"child-ends-with-parent", HaveChildThatEndsWithParent},
      {"kill-strays", KillStrays},
  };
  return kRoles;
}

std::string Variable(const std::string& name) {
  const char* const value = std::getenv(name.c_str());
  return value == nullptr ? "(none)" : value;
}

std::string KilledText() {
  return "killed by signal 9";
}

}  // namespace tolm::test
