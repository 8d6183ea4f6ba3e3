#include "Options.h"

#include <CLI/CLI.hpp>
#include <string>

#include "os/UserPlaces.h"
#include "os/Utf8Path.h"

namespace guard {
namespace {

namespace fs = std::filesystem;

constexpr int kExitUsage = 2;
constexpr double kMaxLostGraceSeconds = 86400;

constexpr char kAbout[] =
    "Starts the plugin processes of a host application, restarts those that crash and stops them in order,\n"
    "as the host's frame says. It connects to the frame at the port that stands in the configuration file,\n"
    "and waits for one when there is none. Each plugin has a folder with a manifest, plugin.json.";

constexpr char kFooter[] =
    "Signals: SIGTERM and SIGINT (on Windows Ctrl-C, the console's end and the event "
    "Local\\tolm-stop-<process\n"
    "id>) stop all plugins in order, within 3 seconds, and end the guard.\n"
    "Exit status: 0 ended as asked, --check found no fault; 1 --check found faults, or the guard cannot\n"
    "start; 2 a mistake on the command line; 3 a guard for this configuration file runs already.\n"
    "Environment: XDG_STATE_HOME, HOME; on Windows LOCALAPPDATA: where the logs go when the host's folder\n"
    "cannot be written to.\n"
    "<host folder> is two levels above the folder of this program. See also TolmGuard.exe(1).";

/// Lets `app` have an option whose value is a path.
CLI::Option* AddPath(CLI::App& app, const char* name, fs::path& path, const char* about) {
  return app.add_option_function<std::string>(
      name, [&path](const std::string& text) { path = os::Utf8Path(text); }, about);
}

fs::path Absolute(const fs::path& path) {
  return fs::absolute(path).lexically_normal();
}

/// The folder that a folder lies in, however the former is written.
fs::path Above(const fs::path& folder) {
  const fs::path tidy = Absolute(folder);
  return (tidy.has_filename() ? tidy : tidy.parent_path()).parent_path();
}

}  // namespace

std::optional<int> ReadOptions(const std::vector<std::string>& command_line, Options& options) {
  CLI::App app(kAbout);
  app.footer(kFooter);
  app.set_version_flag("--version", std::string("TolmGuard ") + TOLM_GUARD_VERSION);
  AddPath(app, "--config", options.config,
          "The frame's configuration file. Default: <host folder>/LpcFrame.xml")
      ->type_name("FILE");
  std::string role = "Client";
  app.add_option(
         "--role", role,
         "Client or Server: whether the port stands in the element ClientPort or ServerPort. Default: "
         "Client")
      ->check(CLI::IsMember({"Client", "Server"}).description(""))
      ->type_name("ROLE");
  AddPath(app, "--host", options.host, "The host's program; plugins are in the folder plugins beside it")
      ->type_name("PATH");
  AddPath(app, "--plugins", options.plugins,
          "The folder with a folder for each plugin. Default: the folder plugins beside --host, or else "
          "beside the program that the frame names, or else in <host folder>")
      ->type_name("DIR");
  AddPath(app, "--logs", options.logs,
          "The folder for guard.log and the plugins' output. Default: <host folder>/TolmAgent/log, or "
          "tolm-guard in $XDG_STATE_HOME or ~/.local/state (on Windows in %LOCALAPPDATA%) when that "
          "cannot be written to")
      ->type_name("DIR");
  double lost_grace = static_cast<double>(options.lost_grace.count()) / 1000.0;
  app.add_option("--lost-grace", lost_grace,
                 "How many seconds plugins run on when the connection to the frame is lost. Default: 10")
      ->check(CLI::Range(0.0, kMaxLostGraceSeconds).description(""))
      ->type_name("SECONDS");
  auto* const check =
      AddPath(app, "--check", options.check_folder,
              "Start nothing: check every manifest below DIR (default: the folder of --plugins), name "
              "file, line, column and key of each fault, and end")
          ->expected(0, 1)
          ->type_name("[DIR]");
  try {
    std::vector<const char*> words;
    words.reserve(command_line.size());
    for (const std::string& word : command_line) words.push_back(word.c_str());
    app.parse(static_cast<int>(words.size()), words.data());
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitUsage;
  }
  options.lost_grace = Milliseconds(static_cast<Milliseconds::rep>(lost_grace * 1000.0));
  options.role = role == "Server" ? Role::kServer : Role::kClient;
  options.check = check->count() > 0;
  return std::nullopt;
}

Places FindPlaces(const Options& options, const fs::path& own_folder) {
  const fs::path host_folder = Above(Above(own_folder));
  Places places;
  places.config = options.config.empty() ? host_folder / "LpcFrame.xml" : Absolute(options.config);
  const fs::path main_folder = options.host.empty() ? host_folder : Absolute(options.host).parent_path();
  places.plugins = options.plugins.empty() ? main_folder / "plugins" : Absolute(options.plugins);
  places.plugins_may_move = options.plugins.empty() && options.host.empty();
  if (!options.logs.empty()) {
    places.logs = {Absolute(options.logs)};
  } else {
    places.logs = {host_folder / "TolmAgent" / "log"};
    // For a user who may not write beside the program.
    if (const fs::path state = os::Utf8Path(os::UserStateFolder()); !state.empty()) {
      places.logs.push_back(state / "tolm-guard");
    }
  }
  return places;
}

}  // namespace guard
