// Pools, the transport's two ends and the WebSocket server are stopped by their own threads, by two of them
// at once, and beside a stop from outside, while others go on using them.
//
//   trust_own_threads [--rounds N] [--patient]

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Callers.h"
#include "RawClient.h"
#include "ServerPort.h"
#include "Stage.h"
#include "TolmBase/MessageLoopDyThreadPool.h"
#include "TolmBase/TaskThread.h"
#include "TolmLPCServer/LpcClient.h"
#include "TolmLPCServer/LpcServer.h"
#include "TolmNet/HttpServer.h"
#include "support/Figures.h"
#include "support/OwnResources.h"
#include "support/Wait.h"

namespace trust {
namespace {

using Clock = std::chrono::steady_clock;
using Tolm::Base::CMessageLoopDyThreadPool;

constexpr int kForever = 120'000;
/// A stop takes a millisecond or two on a machine with nothing else to do; nothing in it may wait.
constexpr double kSlowestMs = 500;

/// How often an end is stopped in each round, and from where.
struct Way {
  int inside = 0;   ///< from so many of its own threads at once
  int outside = 0;  ///< and by so many other threads
};
constexpr Way kWays[] = {{1, 0}, {2, 0}, {1, 1}, {2, 2}};

/// Who wants to stop in this round, and how it goes.
class Stops {
 public:
  void Begin(int inside) {
    returned_ = 0;
    begun_ = 0;
    wanted_ = inside;
  }
  /// For a thread of the end's own: stops when that is wanted of it, together with the others of whom it is.
  template <typename Stop>
  bool MaybeStop(Stop&& stop) {
    if (wanted_ <= 0) return false;
    ++begun_;  // before it is seen that nobody more is wanted
    int left = wanted_;
    while (left > 0 && !wanted_.compare_exchange_weak(left, left - 1)) {
    }
    if (left <= 0) {
      ++returned_;
      return false;
    }
    // So that they meet, where there is more than one such thread; not all ends have two.
    tolm::test::WaitFor([this] { return wanted_ == 0; }, std::chrono::milliseconds(3));
    wanted_ = 0;
    const auto begin = Clock::now();
    stop();
    const double spent = MillisecondsSince(begin);
    double before = slowest_ms_;
    while (before < spent && !slowest_ms_.compare_exchange_weak(before, spent)) {
    }
    ++total_;
    ++returned_;
    return true;
  }
  void WaitForAll() {
    tolm::test::WaitFor([this] { return begun_ > 0; });
    tolm::test::WaitFor([this] { return wanted_ == 0 && returned_ == begun_; }, std::chrono::seconds(100));
  }
  long total() const { return total_; }
  double slowest_ms() const { return slowest_ms_; }

 private:
  std::atomic<int> wanted_{0};
  std::atomic<int> begun_{0};
  std::atomic<int> returned_{0};
  std::atomic<long> total_{0};
  std::atomic<double> slowest_ms_{0};
};

/// What one end's rounds gave.
struct Measured {
  long threads_left = 0;
  long lost = 0;
  Stops stops;
};

void Print(const char* end, const Measured& measured, long rounds, bool patient) {
  const std::string name = std::string("stop.own_thread.") + end;
  PrintFigure(name + ".stops", static_cast<double>(measured.stops.total()), "stops", Bound::kAtLeast,
              static_cast<double>(rounds));
  PrintFigure(name + ".threads_left", static_cast<double>(measured.threads_left), "threads", Bound::kExactly,
              0);
  PrintFigure(name + ".lost", static_cast<double>(measured.lost), "things", Bound::kExactly, 0);
  PrintFigure(name + ".slowest_ms", measured.stops.slowest_ms(), "ms", Bound::kAtMost,
              MostMs(kSlowestMs, patient));
}

std::vector<std::jthread> Threads(int count, const std::function<void()>& run) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(run);
  return threads;
}

// ------------------------------------------------------------------------------- Pools

/// Counts itself when it is destroyed, run or not.
class Task final : public Tolm::Base::CTask {
 public:
  Task(std::atomic<long>& gone, std::function<void()> run) : gone_(gone), run_(std::move(run)) {}
  ~Task() override { ++gone_; }
  void Run() override { run_(); }

 private:
  std::atomic<long>& gone_;
  const std::function<void()> run_;
};

void StopPools(long rounds, Watchdog& watchdog, Measured& measured) {
  for (long round = 0; round < rounds; ++round) {
    watchdog.Look("pools", round);
    const Way& way = kWays[static_cast<std::size_t>(round) % std::size(kWays)];
    const bool drain = round / 4 % 2 == 0;
    const bool destroys = round % 16 == 0;  // the task that stops is the one that destroys
    std::atomic<long> posted{0};
    std::atomic<long> gone{0};
    {
      auto pool = std::make_unique<CMessageLoopDyThreadPool>("own");
      CMessageLoopDyThreadPool other("other");
      auto* const host = pool.get();
      host->Start(1, 3, 0);
      other.Start(1, 3, 0);
      measured.stops.Begin(destroys ? 1 : way.inside);
      const auto run = [&] {
        measured.stops.MaybeStop([&] {
          if (destroys) {
            pool.reset();
          } else {
            host->Stop(drain);
          }
        });
      };
      {
        // Nobody else may use what is about to be destroyed.
        auto posters = Threads(destroys ? 0 : 2, [&] {
          for (int i = 0; i < 50; ++i) {
            ++posted;
            host->PostTask(new Task(gone, run));
            ++posted;
            // A guest of the pool, which posts as its last act.
            other.PostTask(new Task(gone, [&] {
              const Tolm::Base::CTaskThread::CLastAct last_act;
              ++posted;
              host->PostTask(new Task(gone, run));
            }));
          }
        });
        if (destroys) {
          ++posted;
          host->PostTask(new Task(gone, run));
        }
        const auto stoppers = Threads(destroys ? 0 : way.outside, [&] { host->Stop(drain); });
        // When the stop from outside was first, there is nobody left to stop from inside.
        if (way.outside == 0 || destroys) measured.stops.WaitForAll();
      }
      measured.stops.Begin(0);
      other.Stop(true);
      if (pool) {
        pool->Stop(true);
        measured.threads_left += static_cast<long>(pool->ThreadCount());
      }
    }
    if (!tolm::test::WaitFor([&] { return gone == posted; })) ++measured.lost;
  }
}

// ------------------------------------------------------------------------------- The frame's end of the
// transport

Measured* of_server = nullptr;

bool OnServerEvent(const tag_LPCCallBackData& data, void* /*user*/) {
  of_server->stops.MaybeStop([] { lpcserver::StopListen(); });
  if (!data.need_reply) return true;
  tag_LPCReplyData reply;
  reply.msg_id = data.msg_id;
  reply.dst_id = data.src_id;
  return lpcserver::Reply(std::move(reply));
}

std::unique_ptr<lpcclient::CLpcClient> Client(const std::string& id, lpcclient::Settings settings = {}) {
  settings.id = id;
  settings.endpoint = kEndpointOfStage;
  auto client = std::make_unique<lpcclient::CLpcClient>(std::move(settings));
  client->Start();
  return client;
}

bool Asks(lpcclient::CLpcClient& client) {
  tag_LPCResponseData response;
  return client.Send(response, tag_LPCRequestData{"0", {}, "question"}, kForever) ||
         lpcclient::GetLPCLastError() != lpc::kOk;
}

void StopServers(long rounds, Watchdog& watchdog, Measured& measured) {
  of_server = &measured;
  lpcserver::Init();
  std::vector<std::unique_ptr<lpcclient::CLpcClient>> clients;
  Callers callers;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(Client("c" + std::to_string(i)));
    callers.Add([client = clients.back().get()] { return Asks(*client); });
    callers.Add([client = clients.back().get()] {
      client->Notify(tag_LPCNotifyData{"0", {}, "told"});
      return true;
    });
    callers.Add([id = "c" + std::to_string(i)] {
      lpcserver::Notify(tag_LPCNotifyData{id, {}, "told"});
      return true;
    });
  }
  for (long round = 0; round < rounds; ++round) {
    watchdog.Look("the frame's end", round);
    const Way& way = kWays[static_cast<std::size_t>(round) % std::size(kWays)];
    lpcserver::SetInvokeCallBack(OnServerEvent, nullptr);
    if (!lpcserver::StartListen(kEndpointOfStage)) ++measured.lost;
    measured.stops.Begin(way.inside);
    const auto stoppers = Threads(way.outside, [] { lpcserver::StopListen(); });
    if (way.outside == 0) measured.stops.WaitForAll();
    measured.stops.Begin(0);
    lpcserver::StopListen();
    lpcserver::SetInvokeCallBack(nullptr, nullptr);
    measured.lost += callers.WaitForThoseUnderWay();
  }
  measured.lost += callers.WithoutCode();
  callers.End();
  clients.clear();
  lpcserver::Uninit();
}

// ------------------------------------------------------------------------------- The plugin's end of the
// transport

bool Flood(const tag_LPCCallBackData& data, void* /*user*/) {
  for (int i = 0; i < 8; ++i) lpcserver::Notify(tag_LPCNotifyData{data.src_id, {}, "told"});
  if (!data.need_reply) return true;
  tag_LPCReplyData reply;
  reply.msg_id = data.msg_id;
  reply.dst_id = data.src_id;
  return lpcserver::Reply(std::move(reply));
}

void StopClients(long rounds, Watchdog& watchdog, Measured& measured) {
  lpcserver::Init();
  lpcserver::SetInvokeCallBack(Flood, nullptr);
  lpcserver::StartListen(kEndpointOfStage);
  for (long round = 0; round < rounds; ++round) {
    watchdog.Look("the plugin's end", round);
    const Way& way = kWays[static_cast<std::size_t>(round) % std::size(kWays)];
    // 0: in a message; 1: in its "connected"; 2: when it is refused, since somebody has its id; 3: it is
    // destroyed in a message.
    const long place = round / 4 % 4;
    std::unique_ptr<lpcclient::CLpcClient> holder;
    if (place == 2) {
      holder = Client("stops");
      holder->WaitConnected(kForever);
    }
    measured.stops.Begin(place == 0 ? way.inside : 1);
    std::unique_ptr<lpcclient::CLpcClient> client;
    std::atomic<bool> known{false};
    const auto stop = [&] {
      tolm::test::WaitFor([&] { return known.load(); });
      measured.stops.MaybeStop([&] {
        if (place == 3) {
          client.reset();
        } else {
          client->Stop();
        }
      });
    };
    lpcclient::Settings settings;
    settings.on_message = [&](tag_LPCCallBackData&&, const lpcclient::InboundInfo&) {
      if (place == 0 || place == 3) stop();
    };
    settings.on_connected = [&] {
      if (place == 1) stop();
    };
    settings.on_connect_failed = [&](int, const std::string&) {
      if (place == 2) stop();
    };
    client = Client("stops", std::move(settings));
    if (place == 3) {
      client->WaitConnected(kForever);
      client->Notify(tag_LPCNotifyData{"0", {}, "told"});
      known = true;
      measured.stops.WaitForAll();
      // The thread that destroyed it is on its way out.
      continue;
    }
    known = true;
    Callers callers;
    callers.Add([&] { return Asks(*client); });
    callers.Add([&] {
      client->Notify(tag_LPCNotifyData{"0", {}, "told"});
      return true;
    });
    {
      const auto stoppers = Threads(way.outside, [&] {
        if (place == 0) client->Stop();
      });
    }
    if (way.outside == 0 || place != 0) measured.stops.WaitForAll();
    measured.stops.Begin(0);
    client->Stop();
    measured.lost += callers.WaitForThoseUnderWay() + callers.WithoutCode();
    callers.End();
  }
  lpcserver::StopListen();
  lpcserver::Uninit();
}

// ------------------------------------------------------------------------------- The WebSocket server

void StopWebSockets(long rounds, Watchdog& watchdog, Measured& measured) {
  using Tolm::Net::CHttpServer;
  for (long round = 0; round < rounds; ++round) {
    watchdog.Look("the WebSocket server", round);
    const Way& way = kWays[static_cast<std::size_t>(round) % std::size(kWays)];
    std::int32_t handle = -1;
    std::uint16_t port = 0;
    // Somebody else may be quicker at the port.
    const bool listens = tolm::test::WaitFor([&] {
      port = tolm::test::ServerPort();
      return CHttpServer::StartHttpServer(handle, "127.0.0.1", port, [](auto, const auto&) {}) == 0;
    });
    if (!listens) ++measured.lost;
    std::atomic<std::int32_t> socket{-1};
    // In the handshake, in a text, in the close of a connection.
    const std::int32_t in[] = {Tolm::Net::kWebsocketHandshake, Tolm::Net::kWebsocketText,
                               Tolm::Net::kWebsocketClose};
    const std::int32_t wanted = in[static_cast<std::size_t>(round / 4) % std::size(in)];
    measured.stops.Begin(1);
    CHttpServer::SetWebSocketServerCallBack(
        handle, [&](std::int32_t id, const Tolm::Net::WebsocketRecv& recv) {
          socket = id;
          if (recv.type == wanted) measured.stops.MaybeStop([&] { CHttpServer::StopServer(handle); });
        });
    {
      std::atomic<bool> over{false};
      auto clients = Threads(2, [&] {
        while (!over) {
          auto client = tolm::test::RawClient::Upgraded(port);
          for (int i = 0; i < 4 && client.connected(); ++i) client.Send(tolm::test::Text("hello"));
          if (client.connected()) client.Send(tolm::test::CloseBytes(1000));
          client.Close();
        }
      });
      auto senders = Threads(1, [&] {
        while (!over) {
          CHttpServer::SendWebSocketMsg(socket, Tolm::Net::kWebsocketText, "hello", 5, true);
          CHttpServer::SetWebSocketServerCallBack(-1, nullptr);
          LetPass(std::chrono::microseconds(50));
        }
      });
      {
        const auto stoppers = Threads(way.outside, [&] { CHttpServer::StopServer(handle); });
      }
      if (way.outside == 0) measured.stops.WaitForAll();
      over = true;
    }
    measured.stops.Begin(0);
    CHttpServer::StopServer(handle);
  }
}

int Main(int argc, char** argv) {
  const long rounds = Argument(argc, argv, "--rounds", 2000);
  const Stage stage;
  Watchdog watchdog("stop.own_thread.hung", std::chrono::seconds(60));
  struct End {
    const char* name;
    void (*stop)(long rounds, Watchdog& watchdog, Measured& measured);
  };
  const End ends[] = {
      {"pool", StopPools}, {"server", StopServers}, {"client", StopClients}, {"websocket", StopWebSockets}};
  for (const End& end : ends) {
    const long threads = tolm::test::RunningThreads();
    Measured measured;
    end.stop(rounds, watchdog, measured);
    if (!tolm::test::WaitFor([&] { return tolm::test::RunningThreads() <= threads; })) {
      measured.threads_left += tolm::test::RunningThreads() - threads;
    }
    // In the ways that have a stop from outside it may be the only one.
    Print(end.name, measured, rounds / 2, IsPatient(argc, argv));
  }
  PrintFigure("stop.own_thread.hung", 0, "calls", Bound::kExactly, 0);
  return AllKept() ? 0 : 1;
}

}  // namespace
}  // namespace trust

int main(int argc, char** argv) {
  return trust::Main(argc, argv);
}
