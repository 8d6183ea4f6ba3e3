// The plugin of these runs. Its folder's name is its id; see PluginScripts.h for what else lies there.
//
//   death_plugin --tally FILE --load THREADS --plugins a,b,c --endpoint NAME

#include <TolmPlugin/Plugin.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PluginLoad.h"
#include "PluginScripts.h"
#include "Tally.h"
#include "support/System.h"

namespace trust::death {
namespace {

using TolmPlugin::Message;
using TolmPlugin::Request;

constexpr int kNapsOfASlowAnswer = 30;
constexpr std::size_t kBigReply = 10u << 20;

struct Options {
  std::string tally;
  int load = 0;
  std::vector<std::string> plugins;
  std::string endpoint;
};

Options ReadOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const std::string value = argv[i + 1];
    if (name == "--tally") options.tally = value;
    if (name == "--load") options.load = std::stoi(value);
    if (name == "--endpoint") options.endpoint = value;
    if (name == "--plugins") {
      std::istringstream list(value);
      for (std::string id; std::getline(list, id, ',');) options.plugins.push_back(id);
    }
  }
  return options;
}

int Run(const Options& options) {
  const std::string id = std::filesystem::current_path().filename().string();
  const std::optional<std::string> script = TakeScript();
  if (script == "hold-start") {
    SayReached();
    WaitForGo();
  }
  if (script == "half-hello" || script == "hello") SendHello(id, script == "hello");
  if (script == "registered") RegisterOnly(id, options.endpoint);

  TolmPlugin::Plugin plugin(id, "a plugin that may die");
  const auto echo = [](Request&& request) { return Message{.body = std::move(request.message.body)}; };
  plugin.Serve("/" + id + "/echo", echo);
  plugin.Serve("/" + id + "/note", echo);
  plugin.Serve("/" + id + "/slow", [](Request&& request) {
    for (int i = 0; i < kNapsOfASlowAnswer; ++i) tolm::test::Nap();
    return Message{.body = std::move(request.message.body)};
  });
  plugin.Serve("/" + id + "/exit", [](Request&&) -> Message { std::_Exit(0); });
  plugin.Serve("/" + id + "/big", [&script](Request&&) {
    if (script == "big-reply") {
      SayReached();
      WaitForGo();
      SayWhenInTheMiddle();
    }
    return Message{.body = std::string(kBigReply, 'r')};
  });

  const char* const words[] = {"plugin", "--endpoint", options.endpoint.c_str()};
  if (options.load > 0) {
    const auto own = std::find(options.plugins.begin(), options.plugins.end(), id) - options.plugins.begin();
    PluginLoad load(plugin, OpenTally(options.tally), options.plugins, static_cast<std::size_t>(own));
    std::once_flag once;
    plugin.OnReady([&] { std::call_once(once, [&] { load.Start(options.load); }); });
    return plugin.Run(3, words);
  }
  std::thread held;
  if (script == "hold-callback") {
    plugin.OnReady([&] {
      held = std::thread([&] {
        SayReached();
        Message answer;
        plugin.Call(answer, {.url = "/host/hold", .body = (std::filesystem::current_path() / "go").string()});
      });
    });
  }
  const int status = plugin.Run(3, words);
  if (held.joinable()) held.join();
  return status;
}

}  // namespace
}  // namespace trust::death

int main(int argc, char** argv) {
  return trust::death::Run(trust::death::ReadOptions(argc, argv));
}
