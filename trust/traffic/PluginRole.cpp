#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Channel.h"
#include "Process.h"
#include "Samples.h"
#include "TolmLPCServer/LpcError.h"
#include "TolmPlugin/Plugin.h"
#include "traffic/PluginProcess.h"
#include "traffic/ProcessState.h"
#include "traffic/Time.h"

namespace trust {
namespace {

using TolmPlugin::Message;
using TolmPlugin::Plugin;
using TolmPlugin::Request;

constexpr char kRegisterUrl[] = "/QOMI/Vantrel/Integration/V1/Register";
// Whoever was refused because a queue is full comes again after this.
constexpr auto kWhenFull = std::chrono::microseconds(200);
constexpr auto kUntilItStaysFull = std::chrono::milliseconds(500);

struct Orders {
  Plugin plugin;
  std::atomic<std::uint64_t> counted{0};
  std::atomic<bool> filled{false};
  explicit Orders(const std::string& id) : plugin(id) {}
};

void ServeAll(Orders& self) {
  const std::string base = '/' + self.plugin.id() + '/';
  self.plugin
      .Serve(base + "echo",
             [](Request&& request) {
               Message answer;
               answer.parts = std::move(request.message.parts);
               answer.body = std::move(request.message.body);
               return answer;
             })
      .Serve(
          base + "size",
          [](const Request& request) { return Message{.body = std::to_string(request.message.body.size())}; })
      .Serve(base + "make",
             [](const Request& request) {
               return Message{.body = std::string(std::stoull(request.message.body), 'm')};
             })
      .Serve(base + "slow",
             [](const Request& request) {
               Spend(std::chrono::milliseconds(std::stoi(request.message.body)));
               return Message{.body = request.message.body};
             })
      .Serve(base + "count", [&self](const Request&) {
        ++self.counted;
        return Message{};
      });
}

// "COUNT SIZE URL": so many notifications are taken; how many were, how many more were refused because the
// queue was full, how many for another reason, and the last such.
std::string Flood(Plugin& plugin, std::istream& words) {
  std::uint64_t count = 0;
  std::size_t size = 0;
  Message message;
  words >> count >> size >> message.url;
  message.body.assign(size, 'f');
  std::uint64_t taken = 0;
  std::uint64_t full = 0;
  std::uint64_t others = 0;
  int code = lpc::kOk;
  while (taken < count && others < 1000) {
    if (plugin.Notify(message)) {
      ++taken;
      continue;
    }
    const int why = Plugin::LastError();
    ++(why == lpc::kQueueFull ? full : others);
    if (why != lpc::kQueueFull) code = why;
    Spend(kWhenFull);
  }
  std::ostringstream text;
  text << taken << ' ' << full << ' ' << others << ' ' << code;
  return text.str();
}

// Sends notifications as soon as there is a connection, until one is refused.
void FillQueue(Plugin& plugin) {
  const Message message{.url = "/host/count", .body = std::string(1u << 20, 'q')};
  // The host takes what it may keep, too: the queue is full when it stays so.
  do {
    while (plugin.Notify(message) || Plugin::LastError() != lpc::kQueueFull) {
      if (Plugin::LastError() != lpc::kOk) Spend(kWhenFull);
    }
    Spend(kUntilItStaysFull);
  } while (plugin.Notify(message));
}

// "URL SIZE COUNT TIME-OUT": how many were answered, how many not, the last code, p99 and most in
// microseconds.
std::string Call(Plugin& plugin, std::istream& words) {
  Message request;
  std::size_t size = 0;
  std::uint64_t count = 0;
  int time_out = 0;
  words >> request.url >> size >> count >> time_out;
  request.body.assign(size, 'c');
  std::vector<double> samples;
  std::uint64_t failed = 0;
  int code = lpc::kOk;
  for (std::uint64_t i = 0; i < count; ++i) {
    Message answer;
    bool answered = false;
    samples.push_back(bench::Microseconds([&] { answered = plugin.Call(answer, request, time_out); }));
    if (answered) continue;
    ++failed;
    code = Plugin::LastError();
  }
  std::ostringstream text;
  text << count - failed << ' ' << failed << ' ' << code << ' ' << bench::Rounds::Quantile(samples, 0.99)
       << ' ' << *std::max_element(samples.begin(), samples.end());
  return text.str();
}

// "SIZE TIME-OUT": a request whose one part is so large. 1 when it is answered, else 0, and the code.
std::string CallWithPart(Plugin& plugin, std::istream& words) {
  std::size_t size = 0;
  int time_out = 0;
  words >> size >> time_out;
  Message request;
  request.url = "/host/echo";
  request.parts.resize(1);
  request.parts[0].body_data.assign(size, 'p');
  Message answer;
  const bool answered = plugin.Call(answer, request, time_out);
  const bool whole = answered && answer.parts.size() == 1 && answer.parts[0].body_data.size() == size;
  return (whole ? "1 " : "0 ") + std::to_string(answered ? 0 : Plugin::LastError());
}

// "FIRST COUNT": registers urls of these numbers (as a part of a word: a number by itself is a pattern). 1,
// or 0 and the code.
std::string Register(Plugin& plugin, std::istream& words) {
  std::uint64_t first = 0;
  std::uint64_t count = 0;
  words >> first >> count;
  Message message;
  message.url = kRegisterUrl;
  message.body = R"({"RegisterInfo":{"SupportUrlList":[)";
  for (std::uint64_t i = first; i < first + count; ++i) {
    message.body += (i == first ? R"({"Url":"/)" : R"(,{"Url":"/)") + plugin.id() + "/more" +
                    std::to_string(i) + R"(","Timeout":5000})";
  }
  message.body += "]}}";
  return plugin.Notify(message) ? "1 0" : "0 " + std::to_string(Plugin::LastError());
}

std::string Obey(Orders& self, const std::string& order) {
  std::istringstream words(order);
  std::string what;
  words >> what;
  if (what == "process") return std::to_string(::getpid());
  if (what == "heap") return std::to_string(AllocatedKiB());
  if (what == "counted") return std::to_string(self.counted.load());
  if (what == "flood") return Flood(self.plugin, words);
  if (what == "call") return Call(self.plugin, words);
  if (what == "part") return CallWithPart(self.plugin, words);
  if (what == "register") return Register(self.plugin, words);
  if (what == "push") return self.plugin.Push("tag", Message{.body = "pushed"}) ? "1" : "0";
  if (what == "later") {
    Message request;
    words >> request.url;
    return std::to_string(self.plugin.CallLater(request));
  }
  if (what == "fill_before_it_registers") {
    self.plugin.OnInit([&self] {
      FillQueue(self.plugin);
      self.filled = true;
    });
    return "1";
  }
  if (what == "await_filled") return Await(60, [&self] { return self.filled.load(); }) ? "1" : "0";
  if (what == "start") {
    std::string endpoint;
    words >> endpoint;
    return self.plugin.Start(endpoint) ? "1" : "0";
  }
  throw std::runtime_error("an order that is not for a plugin: " + order);
}

}  // namespace

int RunPluginRole(const std::string& id) {
  bench::Channel channel(bench::ParentDescriptor());
  Orders self(id);
  ServeAll(self);
  for (;;) {
    std::string order;
    try {
      order = channel.TakeText();
    } catch (const std::runtime_error&) {
      return 0;  // who gave orders has ended
    }
    channel.Say(Obey(self, order));
  }
}

}  // namespace trust
