#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Channel.h"
#include "Counter.h"
#include "Process.h"
#include "Roles.h"
#include "Samples.h"
#include "TolmLPCServer/LpcClient.h"
#include "TolmPlugin/Plugin.h"
#include "Urls.h"

namespace bench {
namespace {

using TolmPlugin::Message;
using TolmPlugin::Request;

constexpr int kCallMs = 10'000;
constexpr auto kLongest = std::chrono::seconds(30);
constexpr char kRegisterUrl[] = "/QOMI/Vantrel/Integration/V1/Register";

Message MessageTo(std::string url, std::string body) {
  Message message;
  message.url = std::move(url);
  message.body = std::move(body);
  return message;
}

Message Answer(std::string body) {
  return MessageTo({}, std::move(body));
}

void ServeAll(TolmPlugin::Plugin& plugin, Counter& counter) {
  const std::string& id = plugin.id();
  plugin.Serve(EchoUrl(id), [](const Request& request) { return Answer(request.message.body); });
  plugin.Serve(AnswerUrl(id), [](const Request&) { return Answer("x"); });
  plugin.Serve(SourceUrl(id), [](const Request& request) {
    return Answer(std::string(std::stoul(request.message.body), 'x'));
  });
  plugin.Serve(CountUrl(id), [&counter](const Request&) {
    counter.Count();
    return Message{};
  });
}

std::vector<double> CallAgainAndAgain(TolmPlugin::Plugin& plugin, const std::string& url,
                                      const Order& order) {
  const Message request = MessageTo(url, std::string(order.size, 'x'));
  std::vector<double> samples;
  samples.reserve(order.count);
  for (std::uint64_t i = 0; i < order.count; ++i) {
    Message answer;
    bool answered = false;
    samples.push_back(Microseconds([&] { answered = plugin.Call(answer, request, kCallMs); }));
    if (!answered || answer.body.size() != order.size) throw std::runtime_error("no answer from " + url);
  }
  return samples;
}

void MustNotify(TolmPlugin::Plugin& plugin, const Message& message) {
  while (!plugin.Notify(message)) {
    if (TolmPlugin::Plugin::LastError() != lpc::kQueueFull) throw std::runtime_error("a notification failed");
    std::this_thread::yield();
  }
}

void NotifyHost(TolmPlugin::Plugin& plugin, const Order& order) {
  const Message message = MessageTo(kHostCountUrl, std::string(order.size, 'x'));
  for (std::uint64_t i = 0; i < order.count; ++i) MustNotify(plugin, message);
}

void RegisterUrls(TolmPlugin::Plugin& plugin, const Order& order) {
  const std::uint64_t end = order.size + order.count;
  for (std::uint64_t first = order.size; first < end; first += kUrlsPerRegistration) {
    const std::string body = RegistrationOf(first, std::min(end, first + kUrlsPerRegistration));
    MustNotify(plugin, MessageTo(kRegisterUrl, body));
  }
}

}  // namespace

int RunPluginRole(const std::string& endpoint, const std::string& id) {
  Channel channel(ParentDescriptor());
  Counter counter;
  TolmPlugin::Plugin plugin(id);
  ServeAll(plugin, counter);
  while (const auto order = channel.Receive()) {
    std::vector<double> samples;
    switch (order->task) {
      case Task::kConnect:
        if (!plugin.Start(endpoint)) return 1;
        break;
      case Task::kCallHost:
        samples = CallAgainAndAgain(plugin, kHostUrl, *order);
        break;
      case Task::kCallPlugin:
        samples = CallAgainAndAgain(plugin, OneOf(EchoUrl(kServingPlugin)), *order);
        break;
      case Task::kNotifyHost:
        NotifyHost(plugin, *order);
        break;
      case Task::kExpect:
        counter.ExpectMore(order->count);
        channel.Answer();  // it may begin
        if (!counter.Wait(kLongest)) return 1;
        break;
      case Task::kRegister:
        RegisterUrls(plugin, *order);
        break;
      default:
        throw std::runtime_error("an order that is not for a plugin");
    }
    channel.Answer(samples);
  }
  return 0;
}

int RunGuardedRole(const std::string& endpoint, const std::string& id) {
  TolmPlugin::Plugin plugin(id);
  if (!plugin.Start(endpoint)) return 1;
  plugin.WaitEnd();
  return 0;
}

int RunIdleRole(const std::string& endpoint, const std::string& id) {
  Channel channel(ParentDescriptor());
  std::vector<std::unique_ptr<lpcclient::CLpcClient>> clients;
  while (const auto order = channel.Receive()) {
    for (std::uint64_t i = 0; i < order->count; ++i) {
      lpcclient::Settings settings;
      settings.id = id + std::to_string(clients.size());
      settings.endpoint = endpoint;
      clients.push_back(std::make_unique<lpcclient::CLpcClient>(std::move(settings)));
      if (!clients.back()->Start() || !clients.back()->WaitConnected(kCallMs)) return 1;
    }
    channel.Answer();
  }
  return 0;
}

}  // namespace bench
