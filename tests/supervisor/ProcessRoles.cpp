#include "ProcessRoles.h"

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>

#include "SystemRoles.h"
#include "os/ChildProcess.h"
#include "os/StopSignal.h"
#include "support/System.h"

namespace tolm::test {
namespace {

int Print(const Arguments& arguments) {
  const int lines = std::stoi(arguments.at(0));
  for (int i = 0; i < lines; ++i) {
    const std::string line = "line " + std::to_string(i) + "\n";
    std::FILE* const where = i % 2 == 0 ? stdout : stderr;
    if (std::fwrite(line.data(), 1, line.size(), where) != line.size() || std::fflush(where) != 0) return 1;
  }
  return 0;
}

int ExitWith(const Arguments& arguments) {
  return std::stoi(arguments.at(0));
}

int SayAndExitWith(const Arguments& arguments) {
  Say(arguments.at(0));
  return std::stoi(arguments.at(0));
}

int ReadInput(const Arguments&) {
  Say(std::getchar() == EOF ? "nothing to read" : "something to read");
  return 0;
}

int Wait(const Arguments& arguments) {
  SayWithId(arguments.empty() ? "ready" : arguments.front());
  WaitForever();
}

int IgnoreRequests(const Arguments&) {
  os::OnStopSignal([] {});
  SayWithId("ready");
  WaitForever();
}

int EndWhenAsked(const Arguments&) {
  os::OnStopSignal([] { std::_Exit(7); });
  SayWithId("ready");
  WaitForever();
}

int ShowSurroundings(const Arguments& arguments) {
  Say("folder " + std::filesystem::current_path().string());
  for (const std::string& argument : arguments) Say("argument " + argument);
  for (const char* name : {"TEST_ADDED", "TEST_KEPT"}) Say(std::string(name) + " " + Variable(name));
  return 0;
}

int HoldLock(const Arguments& arguments) {
  std::string why;
  const auto lock = os::ProcessLock::TryTake(arguments.at(0), why);
  SayWithId(lock ? "ready" : "not held: " + why);
  if (!lock) return 1;
  WaitForever();
}

os::ProcessRequest RoleRequest(Arguments arguments) {
  os::ProcessRequest request{.program = ThisProgram().string(), .arguments = std::move(arguments)};
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

}  // namespace

void Say(const std::string& line) {
  std::cout << line + "\n" << std::flush;
}

void SayWithId(const std::string& who) {
  Say(who + " " + std::to_string(OwnProcessId()));
}

int RunAsRole(const Arguments& role, const std::map<std::string, Role>& more) {
  static const std::map<std::string, Role> kRoles{
      {"print", Print},
      {"exit", ExitWith},
      {"say-and-exit", SayAndExitWith},
      {"read-input", ReadInput},
      {"wait", Wait},
      {"ignore-requests", IgnoreRequests},
      {"end-when-asked", EndWhenAsked},
      {"show-surroundings", ShowSurroundings},
      {"hold-lock", HoldLock},
      {"supervise", Supervise},
      {"supervise-and-adopt", SuperviseAndAdopt},
  };
  if (role.empty()) return 2;
  for (const auto* roles : {&kRoles, &SystemRoles(), &more}) {
    const auto found = roles->find(role.front());
    if (found != roles->end()) return found->second({role.begin() + 1, role.end()});
  }
  return 2;
}

}  // namespace tolm::test
