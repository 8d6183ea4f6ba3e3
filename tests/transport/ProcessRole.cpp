#include "ProcessRole.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string_view>

#include "FrameEnd.h"
#include "TolmLPCServer/LpcClient.h"
#include "TolmLPCServer/LpcServer.h"

extern char** environ;

namespace tolm::test {
namespace {

constexpr char kReady = 'r';

// A child has its pipe to the test as standard output, and ends when nobody reads there any more.
int PlayUntilNobodyWatches() {
  if (::write(STDOUT_FILENO, &kReady, 1) != 1) return 1;
  pollfd watcher{STDOUT_FILENO, 0, 0};
  while (::poll(&watcher, 1, -1) < 0 || (watcher.revents & POLLERR) == 0) {
  }
  return 0;
}

int HoldEndpoint(const char* name) {
  lpcserver::Init();
  if (!lpcserver::StartListen(name)) return 2;
  return PlayUntilNobodyWatches();
}

int BeSilentPlugin(const char* id) {
  lpcclient::Settings settings;
  settings.id = id;
  settings.endpoint = kEndpoint;
  settings.on_message = [](tag_LPCCallBackData&&, const lpcclient::InboundInfo&) {};
  lpcclient::CLpcClient client(settings);
  if (!client.Start() || !client.WaitConnected(kLong)) return 2;
  return PlayUntilNobodyWatches();
}

}  // namespace

ProcessRole::ProcessRole(const std::string& role, const std::string& argument) {
  int pipe[2];
  if (::pipe2(pipe, O_CLOEXEC) != 0) return;
  std::string program = "/proc/self/exe";
  char* const arguments[] = {program.data(), const_cast<char*>(role.c_str()),
                             const_cast<char*>(argument.c_str()), nullptr};
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  if (::posix_spawn(&process_, program.c_str(), &actions, nullptr, arguments, environ) != 0) process_ = -1;
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(pipe[1]);
  char said = 0;
  ready_ = process_ > 0 && ::read(pipe[0], &said, 1) == 1 && said == kReady;
  watch_ = pipe[0];
}

ProcessRole::~ProcessRole() {
  Kill();
  if (watch_ >= 0) ::close(watch_);
}

void ProcessRole::Kill() {
  if (process_ <= 0) return;
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
  process_ = -1;
}

}  // namespace tolm::test

int main(int argc, char** argv) {
  if (argc == 3 && argv[1] == std::string_view(tolm::test::ProcessRole::kHoldEndpoint)) {
    return tolm::test::HoldEndpoint(argv[2]);
  }
  if (argc == 3 && argv[1] == std::string_view(tolm::test::ProcessRole::kSilentPlugin)) {
    return tolm::test::BeSilentPlugin(argv[2]);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
