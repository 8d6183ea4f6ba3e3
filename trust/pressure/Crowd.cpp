#include "pressure/Crowd.h"

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "Channel.h"
#include "TolmLPCFrameDiagnostics.h"
#include "TolmLPCServer/LpcClient.h"
#include "pressure/ManyGuards.h"
#include "pressure/NoMemory.h"
#include "traffic/Host.h"

namespace trust {
namespace {

constexpr int kOrderSeconds = 300;
constexpr int kMostClients = 256;

using Obey = std::function<std::string(const std::string& what, std::istream& words)>;

int TakeOrders(const Obey& obey) {
  bench::Channel channel(bench::ParentDescriptor());
  for (;;) {
    std::string order;
    try {
      order = channel.TakeText();
    } catch (const std::runtime_error&) {
      return 0;  // who gave orders has ended
    }
    std::istringstream words(order);
    std::string what;
    words >> what;
    channel.Say(obey(what, words));
  }
}

struct Lines {
  std::atomic<int> all{0};
  std::atomic<int> errors{0};
  std::atomic<int> shortages{0};
};

// What both endpoints say when they can let nobody in.
constexpr std::string_view kShortage = "for now";

void CountLine(int level, const char*, const char* text, void* user) {
  Lines& lines = *static_cast<Lines*>(user);
  ++lines.all;
  if (level < TolmLPCFrame::kLogError) return;
  ++lines.errors;
  if (std::string_view(text).find(kShortage) != std::string_view::npos) ++lines.shortages;
}

// Those who are many need more descriptors than a process has at first.
void AllowManyDescriptors() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

std::vector<double> Crowd::Do(const std::string& order) {
  child_.channel().Say(order);
  child_.AwaitWord(kOrderSeconds);
  std::istringstream words(child_.channel().TakeText());
  std::vector<double> numbers;
  for (double number = 0; words >> number;) numbers.push_back(number);
  return numbers;
}

int RunFewHostRole(const std::string& endpoint) {
  std::vector<std::string> ids{"fresh"};
  for (int i = 0; i < kMostClients; ++i) ids.push_back("client" + std::to_string(i));
  Lines lines;
  TolmLPCFrame::SetLogSink(CountLine, &lines);
  const Host host(endpoint, ids);
  return TakeOrders([&](const std::string& what, std::istream& words) -> std::string {
    if (what == "process") return std::to_string(::getpid());
    if (what == "lines")
      return std::to_string(lines.all.exchange(0)) + ' ' + std::to_string(lines.errors.exchange(0)) + ' ' +
             std::to_string(lines.shortages.exchange(0));
    std::string url;
    words >> url;
    return host.Call(url, "x", 1000).answered ? "1" : "0";
  });
}

int RunFewClientsRole() {
  AllowManyDescriptors();
  std::vector<std::unique_ptr<lpcclient::CLpcClient>> clients;
  return TakeOrders([&](const std::string& what, std::istream& words) -> std::string {
    if (what == "connect") {
      int count = 0;
      std::string endpoint;
      words >> count >> endpoint;
      for (int i = 0; i < count; ++i) {
        lpcclient::Settings settings;
        settings.id = "client" + std::to_string(i);
        settings.endpoint = endpoint;
        clients.push_back(std::make_unique<lpcclient::CLpcClient>(std::move(settings)));
        if (!clients.back()->Start()) throw std::runtime_error("a client does not start");
      }
      return "1";
    }
    int connected = 0;
    for (const auto& client : clients) connected += client->IsConnected() ? 1 : 0;
    return std::to_string(connected);
  });
}

int RunFewGuardsRole() {
  AllowManyDescriptors();
  std::unique_ptr<ManyGuards> guards;
  return TakeOrders([&](const std::string& what, std::istream& words) -> std::string {
    if (what == "connect") {
      int count = 0;
      int port = 0;
      words >> count >> port;
      guards = std::make_unique<ManyGuards>(count, static_cast<std::uint16_t>(port));
    }
    if (what == "turns") guards->TakeTurns();
    return std::to_string(guards->connected());
  });
}

int RunNoMemoryRole(const std::string& arguments) {
  std::istringstream words(arguments);
  std::string configuration;
  std::string port;
  std::getline(words, configuration, ',');
  std::getline(words, port, ',');
  const bool quick = !words.eof();
  return TakeOrders([&](const std::string&, std::istream&) -> std::string {
    return RunNoMemory(configuration, static_cast<std::uint16_t>(std::stoi(port)), quick) ? "1" : "0";
  });
}

}  // namespace trust
