// The plugin of these tests. Its folder's name is its id; what it does besides echoing is in its arguments:
//
//   --stubborn        ends neither when the frame nor when the system asks it to
//   --crash-at-once   crashes before it does anything
//   --family          starts a process of its own, which leaves the process group
//   --member          is that process

#include <TolmPlugin/Plugin.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "os/HiddenProcess.h"
#include "support/System.h"

namespace {

using TolmPlugin::Message;
using TolmPlugin::Request;

void StartFamily() {
  os::StartHidden(os::JoinCommandLine({tolm::test::ThisProgram().string(), "--member"}));
}

}  // namespace

int main(int argc, char** argv) {
  const std::string id = std::filesystem::current_path().filename().string();
  bool stubborn = false;
  std::vector<const char*> options{argv[0], "--id", id.c_str()};
  for (int i = 1; i < argc; ++i) {
    const std::string_view option = argv[i];
    if (option == "--stubborn") {
      stubborn = true;
    } else if (option == "--crash-at-once") {
      std::cerr << "crashing on purpose" << std::endl;
      std::signal(SIGABRT, SIG_DFL);
      std::abort();
    } else if (option == "--family") {
      StartFamily();
    } else if (option == "--member") {
      tolm::test::WaitForever();
    } else {
      options.push_back(argv[i]);
    }
  }

  TolmPlugin::Plugin plugin(id, "a plugin of the tests");
  plugin.Serve("/" + id + "/echo",
               [](const Request& request) { return Message{.body = request.message.body}; });
  plugin.Serve("/" + id + "/pid",
               [](const Request&) { return Message{.body = std::to_string(tolm::test::OwnProcessId())}; });
  plugin.Serve("/" + id + "/crash", [](const Request&) -> Message { std::abort(); });
  plugin.Serve("/" + id + "/exit", [](const Request&) -> Message { std::_Exit(0); });
  plugin.Serve("/" + id + "/environment", [](const Request& request) {
    const char* const value = std::getenv(request.message.body.c_str());
    return Message{.body = value != nullptr ? value : "not set"};
  });
  plugin.OnUninit([stubborn] {
    std::cout << "asked to uninitialise" << std::endl;
    if (stubborn) tolm::test::WaitForever();
  });
  plugin.OnReady([&] { std::cout << id << " is ready" << std::endl; });
  if (stubborn) {
    std::signal(SIGTERM, SIG_IGN);
    if (options.size() < 5 || !plugin.Start(options[4])) return 1;
    tolm::test::WaitForever();
  }
  return plugin.Run(static_cast<int>(options.size()), options.data());
}
