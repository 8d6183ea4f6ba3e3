// bench_nng: REQ and REP for calls, PUSH and PULL for what is not answered, both over "ipc://"; as the router
// the library's own device between raw sockets of the same protocols. Every calling thread has a socket of
// its own. The number of the library's threads is its default.

#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <memory>
#include <thread>

#include "Counter.h"
#include "Peer.h"
#include "Roles.h"
#include "nng/Sockets.h"

namespace bench::nng {
namespace {

// The longest that the library has.
constexpr int kQueueLength = 8192;

class RequestCaller : public Caller {
 public:
  explicit RequestCaller(const std::string& endpoint) { socket_.Dial(CallsAddress(endpoint)); }
  std::size_t Call(const std::string& body) override {
    socket_.Send(body);
    answer_.Receive(socket_);
    return answer_.size();
  }

 private:
  Socket socket_{nng_req0_open};
  Message answer_;
};

class NngRoute : public Route {
 public:
  NngRoute(const std::string& name, bool routed) : processes_(name, routed) {
    one_way_.SetSendQueue(kQueueLength);
    one_way_.Dial(OneWayAddress(processes_.endpoint()));
  }
  std::unique_ptr<Caller> NewCaller() override {
    return std::make_unique<RequestCaller>(processes_.endpoint());
  }
  void SendOneWay(const std::string& body, std::size_t count) override {
    for (std::size_t i = 0; i < count; ++i) one_way_.Send(body);
  }
  Child& server() override { return processes_.server(); }

 private:
  Processes processes_;
  Socket one_way_{nng_push0_open};
};

void RunServer(const std::string& endpoint, const std::string&) {
  Socket calls(nng_rep0_open);
  Socket one_way(nng_pull0_open);
  calls.Listen(CallsAddress(endpoint));
  one_way.Listen(OneWayAddress(endpoint));
  Counter counter;
  std::thread([&] {
    for (Message message;;) {
      message.Receive(calls);
      message.Send(calls);
    }
  }).detach();
  std::thread([&] {
    for (Message message;;) {
      message.Receive(one_way);
      counter.Count();
    }
  }).detach();
  Serve(counter);
  // The threads still use what is declared above.
  std::_Exit(0);
}

void RunRouter(const std::string& endpoint, const std::string& behind) {
  Socket front(nng_rep0_open_raw);
  Socket back(nng_req0_open_raw);
  Socket one_way_front(nng_pull0_open_raw);
  Socket one_way_back(nng_push0_open_raw);
  one_way_back.SetSendQueue(kQueueLength);
  back.Dial(CallsAddress(behind));
  one_way_back.Dial(OneWayAddress(behind));
  front.Listen(CallsAddress(endpoint));
  one_way_front.Listen(OneWayAddress(endpoint));
  std::thread([&] { nng_device(front.get(), back.get()); }).detach();
  std::thread([&] { nng_device(one_way_front.get(), one_way_back.get()); }).detach();
  Counter nothing;
  Serve(nothing);
  std::_Exit(0);
}

}  // namespace
}  // namespace bench::nng

int main(int argc, char** argv) {
  using bench::nng::NngRoute;
  const bench::Amounts slow{1'000, 30, 10'000};
  const bench::Peer peer{
      "nng",
      {{"direct", [](const std::string& name) { return std::make_unique<NngRoute>(name, false); }, slow},
       {"router", [](const std::string& name) { return std::make_unique<NngRoute>(name, true); }, slow}},
      {{"server", bench::nng::RunServer}, {"router", bench::nng::RunRouter}}};
  return bench::RunPeer(peer, argc, argv);
}
