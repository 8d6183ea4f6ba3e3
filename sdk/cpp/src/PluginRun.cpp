// A plugin as a program: its options, its signals, and what it says when it is started by hand.

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <string>

#include "PluginCore.h"
#include "os/StopSignal.h"

namespace TolmPlugin {
namespace {

constexpr int kExitUsage = 2;
constexpr int kExitFailed = 1;

void SayWhatThisIs(const std::string& program, const std::string& id, const std::string& description) {
  std::fprintf(stderr,
               "This is the plugin \"%s\"%s%s.\n"
               "It runs beside a host application and is usually started by it. By hand:\n"
               "  %s --endpoint NAME [--id ID]\n"
               "where NAME is the endpoint that the host opened.\n",
               id.c_str(), description.empty() ? "" : ": ", description.c_str(), program.c_str());
}

}  // namespace

int Plugin::Run(int argc, const char* const* argv) {
  const std::string program = argc > 0 ? argv[0] : "plugin";
  std::string endpoint;
  CLI::App options(core_->description.empty() ? core_->id : core_->description);
  options.add_option("--endpoint", endpoint, "The endpoint that the host opened");
  options.add_option("--id", core_->id, "The id to connect as")->capture_default_str();
  try {
    options.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return options.exit(error) == 0 ? 0 : kExitUsage;
  }
  if (endpoint.empty()) {
    SayWhatThisIs(program, core_->id, core_->description);
    return kExitUsage;
  }

  os::OnStopSignal([core = core_] { core->RequestEnd(); });
  // Said once: whoever started this by hand should know why nothing happens.
  const auto said = std::make_shared<std::atomic<bool>>(false);
  core_->on_connect_failed = [said, endpoint, id = core_->id](int, const std::string& reason) {
    if (said->exchange(true)) return;
    std::fprintf(stderr, "plugin \"%s\": waiting for a frame at \"%s\" (%s)\n", id.c_str(), endpoint.c_str(),
                 reason.c_str());
  };
  if (!core_->Start(endpoint)) {
    std::fprintf(stderr, "plugin \"%s\": cannot connect to \"%s\": %s\n", core_->id.c_str(), endpoint.c_str(),
                 lpc::ErrorText(LastError()));
    return kExitFailed;
  }
  core_->WaitEnd();
  core_->Stop();
  return 0;
}

}  // namespace TolmPlugin
