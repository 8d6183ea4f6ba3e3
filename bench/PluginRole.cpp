#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Callers.h"
#include "Channel.h"
#include "Counter.h"
#include "Process.h"
#include "Roles.h"
#include "Samples.h"
#include "Shapes.h"
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
  plugin.Serve(EchoUrl(id), [](Request request) {
    request.message.url.clear();
    return std::move(request.message);
  });
  plugin.Serve(AnswerUrl(id), [](const Request&) { return Answer("x"); });
  plugin.Serve(SourceUrl(id), [](const Request& request) {
    return Answer(std::string(std::stoul(request.message.body), 'x'));
  });
  plugin.Serve(CountUrl(id), [&counter](const Request&) {
    counter.Count();
    return Message{};
  });
}

std::vector<double> Call(TolmPlugin::Plugin& plugin, CallRunner& runner, const std::string& url,
                         const Order& order) {
  Message request;
  request.url = url;
  Fill(order, request.headers, request.parts, request.body);
  return runner.Run<Message>(order, [&](Message& answer) {
    if (!plugin.Call(answer, request, kCallMs)) throw std::runtime_error("no answer from " + url);
    Check(order, answer.headers, answer.parts, answer.body);
  });
}

/// `send()` until it succeeds, while the queue is full.
template <typename Send>
void Must(const Send& send) {
  while (!send()) {
    if (TolmPlugin::Plugin::LastError() != lpc::kQueueFull)
      throw std::runtime_error("a message was not sent");
    std::this_thread::yield();
  }
}

void NotifyHost(TolmPlugin::Plugin& plugin, const Order& order) {
  const Message message = MessageTo(kHostCountUrl, std::string(order.size, 'x'));
  for (std::uint64_t i = 0; i < order.count; ++i) Must([&] { return plugin.Notify(message); });
}

void PushHost(TolmPlugin::Plugin& plugin, const Order& order) {
  const Message message = MessageTo({}, std::string(order.size, 'x'));
  for (std::uint64_t i = 0; i < order.count; ++i) Must([&] { return plugin.Push("bench", message); });
}

double NotifyHostInGroups(TolmPlugin::Plugin& plugin, const Order& order, Channel& channel) {
  const Message message = MessageTo(kHostCountUrl, std::string(order.size, 'x'));
  const auto begin = Clock::now();
  for (std::uint64_t group = 0; group < order.count; ++group) {
    for (std::size_t i = 0; i < kGroup; ++i) Must([&] { return plugin.Notify(message); });
    char done = 0;
    if (!channel.Read(&done, 1)) throw std::runtime_error("the host ended");
  }
  return static_cast<double>(order.count * kGroup) / SecondsSince(begin);
}

void RegisterUrls(TolmPlugin::Plugin& plugin, const Order& order) {
  const std::uint64_t end = order.size + order.count;
  for (std::uint64_t first = order.size; first < end; first += kUrlsPerRegistration) {
    const std::string body = RegistrationOf(first, std::min(end, first + kUrlsPerRegistration));
    const Message registration = MessageTo(kRegisterUrl, body);
    Must([&] { return plugin.Notify(registration); });
  }
}

}  // namespace

int RunPluginRole(const std::string& endpoint, const std::string& id) {
  Channel channel(ParentDescriptor());
  Counter counter;
  CallRunner runner;
  std::vector<std::unique_ptr<TolmPlugin::Plugin>> others;
  TolmPlugin::Plugin plugin(id);
  ServeAll(plugin, counter);
  while (const auto order = channel.Receive()) {
    std::vector<double> samples;
    switch (order->task) {
      case Task::kConnect:
        if (!plugin.Start(endpoint)) return 1;
        break;
      case Task::kCallHost:
        samples = Call(plugin, runner, kHostUrl, *order);
        break;
      case Task::kCallPlugin:
        samples = Call(plugin, runner, OneOf(EchoUrl(kServingPlugin)), *order);
        break;
      case Task::kNotifyHost:
        NotifyHost(plugin, *order);
        break;
      case Task::kNotifyHostGroups:
        samples = {NotifyHostInGroups(plugin, *order, channel)};
        break;
      case Task::kPushHost:
        PushHost(plugin, *order);
        break;
      case Task::kExpect:
      case Task::kExpectGroups:
        if (order->task == Task::kExpect) counter.ExpectMore(order->count);
        if (order->task == Task::kExpectGroups) counter.ExpectGroups(order->count, channel);
        channel.Answer();  // it may begin
        if (!counter.Wait(kLongest)) return 1;
        break;
      case Task::kRegister:
        RegisterUrls(plugin, *order);
        break;
      case Task::kIdlePlugins:
        for (std::uint64_t i = 0; i < order->count; ++i) {
          others.push_back(std::make_unique<TolmPlugin::Plugin>(PluginName(others.size())));
          if (!others.back()->Start(endpoint) || !others.back()->WaitReady(kCallMs)) return 1;
        }
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
