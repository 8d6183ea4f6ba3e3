// tolm_host: a host for people who write plugins. It does what is typed, and prints what the frame tells it.

#include <TolmLPCFrame.h>
#include <TolmLPCFrameDiagnostics.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Commands.h"
#include "Console.h"
#include "os/ExecutablePath.h"
#include "os/Utf8Path.h"

namespace {

struct Options {
  std::string endpoint = "host";
  std::vector<std::string> plugins;
  std::vector<std::string> unverified;
  int frame_type = 0;
  int log_level = TolmLPCFrame::kLogError;
};

/// The names of the folders that have a manifest.
std::vector<std::string> PluginsBelow(const std::filesystem::path& folder) {
  std::vector<std::string> ids;
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator(folder, none)) {
    if (exists(entry.path() / "plugin.json", none)) ids.push_back(entry.path().filename().string());
  }
  return ids;
}

TolmLPCFrame::PlatformInfo Platform(const Options& options, const std::filesystem::path& program) {
  TolmLPCFrame::PlatformInfo info;
  info.frame_full_path = program.string();
  info.frame_type = options.frame_type;
  const bool listed = !options.plugins.empty() || !options.unverified.empty();
  for (const auto& id : listed ? options.plugins : PluginsBelow(program.parent_path() / "plugins")) {
    info.plugin_map[id].plugin_id = id;
  }
  for (const std::string& id : options.unverified) {
    info.plugin_map[id].plugin_id = id;
    info.plugin_map[id].not_verified = true;
  }
  return info;
}

int Run(const Options& options, const std::filesystem::path& program) {
  host::Console& console = host::Console::Open();
  TolmLPCFrame::SetLogStderrLevel(options.log_level);
  TolmLPCFrame::RegisterLpcMsgCallback(&host::Commands::Callback, &console);
  const auto info = Platform(options, program);
  if (TolmLPCFrame::TolmLPCFrameInit(options.endpoint, info) != TolmLPCFrame::kFrameOk) {
    console.Print("the frame does not start");
    return 1;
  }
  console.Print("the frame listens as \"" + options.endpoint + "\" for " +
                std::to_string(info.plugin_map.size()) + " plugins");
  int result = 0;
  {
    host::Commands commands(console);
    while (commands.Run(console.NextLine())) {
    }
    // Ends the calls that still wait.
    result = TolmLPCFrame::TolmLPCFrameUnInit();
  }
  console.Print("the frame has stopped");
  return result == TolmLPCFrame::kFrameOk ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app(
      "A host for people who write plugins: starts the frame, does what is typed, and prints what it is "
      "told.");
  app.footer(std::string("What may be typed:\n") + host::Commands::kHelp);
  app.set_version_flag("--version", TOLM_VERSION);
  app.add_option("--endpoint", options.endpoint, "The name that plugins connect to")->capture_default_str();
  app.add_option("--plugin", options.plugins,
                 "An id to list; may be given several times. Without it: the folders in plugins/ beside this "
                 "program that have a plugin.json");
  app.add_option("--unverified", options.unverified, "An id to list that the guard is not to start");
  app.add_option("--frame-type", options.frame_type, "1: start the agent and with it the guard, too")
      ->capture_default_str();
  app.add_option("--log", options.log_level, "Show the frame's log on stderr, from this level on")
      ->transform(CLI::CheckedTransformer(std::map<std::string, int>{{"trace", TolmLPCFrame::kLogTrace},
                                                                     {"info", TolmLPCFrame::kLogInformation},
                                                                     {"warning", TolmLPCFrame::kLogWarning},
                                                                     {"error", TolmLPCFrame::kLogError}}))
      ->option_text("trace|info|warning|error");
  CLI11_PARSE(app, argc, argv);
  try {
    return Run(options, os::Utf8Path(os::ExecutablePath()));
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tolm_host: %s\n", failure.what());
    return 1;
  }
}
