#include "Peer.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <stdexcept>

#include "Process.h"
#include "RawPeer.h"
#include "RouteRows.h"
#include "Row.h"
#include "Settings.h"

namespace bench {
namespace {

struct Options {
  Settings settings;
  std::string role;
  std::string id;
  std::string endpoint;
  std::string behind;
};

/// Says the rows; the first character says how it went.
void RunMeasureRole(const Peer& peer, const Options& options) {
  Channel channel(ParentDescriptor());
  RaisePriority();
  std::ostringstream text;
  try {
    text << '+';
    std::size_t count = 0;
    for (const RouteKind& route : peer.routes) {
      for (const Row& row : MeasureRoute(peer.name, route, options.id, options.settings)) {
        text << row;
        ++count;
      }
    }
    if (count == 0) throw std::runtime_error("nothing here is named " + options.id);
  } catch (const std::exception& error) {
    text.str(std::string(1, '-') + error.what());
  }
  channel.Say(text.str());
}

void RunRole(const Peer& peer, const Options& options) {
  if (options.role == "measure") return RunMeasureRole(peer, options);
  if (options.role == "raw") {
    RunRawRole();
    return;
  }
  for (const Peer::Role& role : peer.roles) {
    if (role.name == options.role) return role.run(options.endpoint, options.behind);
  }
  throw std::runtime_error("frame_bench starts this program");
}

}  // namespace

int RunPeer(const Peer& peer, int argc, char** argv) try {
  Options options;
  CLI::App app("A peer's part of frame_bench, which starts this program.");
  app.add_flag("--quick", options.settings.quick);
  app.add_option("--role", options.role);
  app.add_option("--id", options.id);
  app.add_option("--endpoint", options.endpoint);
  app.add_option("--behind", options.behind);
  CLI11_PARSE(app, argc, argv);
  RunRole(peer, options);
  // Without destructors: the threads of a server still run, and its end is not what is measured.
  std::_Exit(0);
} catch (const std::exception& error) {
  std::fprintf(stderr, "bench_%s: %s\n", peer.name, error.what());
  return 1;
}

}  // namespace bench
