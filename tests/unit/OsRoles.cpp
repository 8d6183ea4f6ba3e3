#include "OsRoles.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "LoopbackSocket.h"
#include "os/HiddenProcess.h"
#include "os/NamedEvent.h"
#include "os/UnbufferedFile.h"

namespace tolm::test {
namespace {

constexpr int kLong = 30'000;

/// Plays another role, with what that one says in a file that is there when it is complete.
int Into(const Arguments& arguments) {
  const std::string& file = arguments.at(0);
  const std::string unfinished = file + ".new";
  if (std::freopen(unfinished.c_str(), "wb", stdout) == nullptr) return 1;
  const int status = RunAsRole({arguments.begin() + 1, arguments.end()}, OsRoles());
  std::fclose(stdout);
  std::filesystem::rename(unfinished, file);
  return status;
}

/// Shows with a file that it runs.
int Mark(const Arguments& arguments) {
  std::ofstream(arguments.at(0)).close();
  WaitForever();
}

int RunRemoval(const Arguments& arguments) {
  os::RunRemovalCommand(arguments.at(0));
  return 0;
}

int StartHidden(const Arguments& arguments) {
  const os::StartedProcess process = os::StartHidden(arguments.at(0));
  Say("started " + std::to_string(process.process_id));
  return process.started ? 0 : 1;
}

int HoldEvent(const Arguments& arguments) {
  int error = 0;
  const auto event = os::NamedEvent::Create(arguments.at(0), error);
  if (!event) return 1;
  event->Set();
  Say("ready");
  WaitForever();
}

// Each time that the first event is set, sets the second, as often as it is told.
int AnswerEvents(const Arguments& arguments) {
  const auto there = os::NamedEvent::Open(arguments.at(0));
  const auto back = os::NamedEvent::Open(arguments.at(1));
  if (!there || !back) return 1;
  Say("ready");
  for (int i = std::stoi(arguments.at(2)); i > 0; --i) {
    if (!there->Wait(kLong)) return 2;
    back->Set();
  }
  return 0;
}

int HoldFile(const Arguments& arguments) {
  const auto file = os::UnbufferedFile::Open(arguments.at(0));
  Say(file ? "ready" : "not opened");
  if (!file) return 1;
  WaitForever();
}

int HoldSocket(const Arguments&) {
  const LoopbackSocket listening = LoopbackSocket::Listening();
  Say("port " + std::to_string(listening.port()));
  WaitForever();
}

}  // namespace

const std::map<std::string, Role>& OsRoles() {
  static const std::map<std::string, Role> kRoles{
      {"into", Into},
      {"mark", Mark},
      {"run-removal", RunRemoval},
      {"start-hidden", StartHidden},
      {"hold-event", HoldEvent},
      {"answer-events", AnswerEvents},
      {"hold-file", HoldFile},
      {"hold-socket", HoldSocket},
  };
  return kRoles;
}

}  // namespace tolm::test
