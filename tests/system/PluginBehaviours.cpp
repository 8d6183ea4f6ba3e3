#include "PluginBehaviours.h"

#include <TolmPlugin/Plugin.h>

#include <condition_variable>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "support/System.h"

namespace tolm::test {
namespace {

using TolmPlugin::Message;
using TolmPlugin::Plugin;
using TolmPlugin::Request;

void Say(const std::string& text) {
  std::cout << text + '\n' << std::flush;
}

[[noreturn]] void BlockForever() {
  std::mutex mutex;
  std::unique_lock lock(mutex);
  std::condition_variable never;
  for (;;) never.wait(lock);
}

std::string HeaderOf(const Request& request, const std::string& name) {
  const auto found = request.message.headers.find(name);
  return found == request.message.headers.end() ? std::string() : found->second;
}

Message Echo(const Request& request) {
  Message answer = request.message;
  answer.url.clear();
  answer.headers["X-Query"] = request.query;
  answer.headers["X-Process"] = std::to_string(OwnProcessId());
  return answer;
}

void ServeAll(Plugin& plugin, const std::string& id) {
  const std::string root = "/" + id + "/";
  plugin.Serve(root + "echo", Echo, 7000);
  plugin.Serve(root + "SID=" + kSecret, Echo);
  plugin.Serve(root + "relay", [&plugin](const Request& request) {
    Message answer;
    const std::string time_out = HeaderOf(request, "X-Time-Out");
    const std::string url = HeaderOf(request, "X-Url");
    const bool answered = plugin.Call(
        answer, {.url = url.empty() ? request.message.body : url, .method = "GET", .body = "relayed"},
        time_out.empty() ? TolmPlugin::kDefaultTimeOutMs : std::stoi(time_out));
    return Message{.body = answered ? "got " + answer.body : "error " + std::to_string(Plugin::LastError())};
  });
  plugin.Serve(root + "later", [&plugin](const Request& request) {
    const std::uint64_t sent = plugin.CallLater({.url = request.message.body, .body = "relayed"});
    return Message{.body = sent != 0 ? "sent" : "error " + std::to_string(Plugin::LastError())};
  });
  plugin.OnAnswer([](std::uint64_t, const Message& answer) { Say("later " + answer.body); });
  plugin.Serve(root + "block", [](const Request&) -> Message {
    Say("blocked");
    BlockForever();
  });
  // Handlers may take the request over, whatever becomes of it.
  plugin.Serve(root + "take", [](Request&& request) {
    Message taken = std::move(request.message);
    return Message{.body = std::move(taken.body)};
  });
  plugin.Serve(root + "take-and-throw", [](Request&& request) -> Message {
    const Message taken = std::move(request.message);
    throw std::runtime_error("with all of it");
  });
  plugin.Serve(root + "throw", [](const Request&) -> Message { throw std::runtime_error("on purpose"); });
  plugin.Serve(root + "hear", [](const Request& request) {
    Say("heard " + request.message.body + (request.wants_answer ? ", to be answered" : ""));
    return Message{};
  });
  plugin.Serve(root + "push", [&plugin](const Request& request) {
    plugin.Push(HeaderOf(request, "X-Tag"), {.body = request.message.body});
    return Message{};
  });
  plugin.Serve(root + "tell", [&plugin](const Request& request) {
    plugin.Notify({.url = "/host/tell", .body = request.message.body});
    return Message{};
  });
}

/// Until the process ends.
void Flood(Plugin& plugin) {
  const std::string body(1000, 'f');
  for (;;) {
    plugin.Notify({.url = "/host/flood", .body = body});
    plugin.Push("flood", {.body = body});
  }
}

int Last(Plugin& plugin, const std::string& endpoint) {
  if (!plugin.Start(endpoint)) return 1;
  BlockForever();
}

}  // namespace

int RunAsPlugin(int count, const char* const* arguments) {
  const std::string behaviour = count > 0 ? arguments[0] : "";
  std::string id = "plugin";
  std::string endpoint;
  for (int i = 1; i + 1 < count; ++i) {
    if (std::string_view(arguments[i]) == "--id") id = arguments[i + 1];
    if (std::string_view(arguments[i]) == "--endpoint") endpoint = arguments[i + 1];
  }
  Plugin plugin(id, "a plugin of the tests");
  ServeAll(plugin, id);
  plugin.OnLost([](const std::string&) { Say("lost"); });
  plugin.OnUninit([behaviour] {
    Say("uninit");
    if (behaviour == "stubborn") BlockForever();
  });
  plugin.OnReady([&plugin, behaviour] {
    Say("ready");
    if (behaviour == "flooding") std::thread([&plugin] { Flood(plugin); }).detach();
  });
  if (behaviour == "lasting") return Last(plugin, endpoint);
  return plugin.Run(count, arguments);
}

}  // namespace tolm::test
