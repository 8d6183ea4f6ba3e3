// bench_zeromq: REQ and REP for calls, PUSH and PULL for what is not answered, both over "ipc://"; as the
// router the library's own proxy, between ROUTER and DEALER and between PULL and PUSH. Every calling thread
// has a socket of its own, and all of them share the process's one thread for input and output.

#include <memory>
#include <thread>

#include "Counter.h"
#include "Peer.h"
#include "Roles.h"
#include "zeromq/Sockets.h"

namespace bench::zeromq {
namespace {

class RequestCaller : public Caller {
 public:
  explicit RequestCaller(const std::string& endpoint) { socket_.Connect(CallsAddress(endpoint)); }
  std::size_t Call(const std::string& body) override {
    socket_.Send(body);
    answer_.Receive(socket_);
    return answer_.size();
  }

 private:
  Socket socket_{ZMQ_REQ};
  Message answer_;
};

class ZeroMqRoute : public Route {
 public:
  ZeroMqRoute(const std::string& name, bool routed) : processes_(name, routed) {
    one_way_.Connect(OneWayAddress(processes_.endpoint()));
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
  Socket one_way_{ZMQ_PUSH};
};

void RunServer(const std::string& endpoint, const std::string&) {
  Socket calls(ZMQ_REP);
  Socket one_way(ZMQ_PULL);
  calls.Bind(CallsAddress(endpoint));
  one_way.Bind(OneWayAddress(endpoint));
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
  Socket front(ZMQ_ROUTER);
  Socket back(ZMQ_DEALER);
  Socket one_way_front(ZMQ_PULL);
  Socket one_way_back(ZMQ_PUSH);
  front.Bind(CallsAddress(endpoint));
  back.Connect(CallsAddress(behind));
  one_way_front.Bind(OneWayAddress(endpoint));
  one_way_back.Connect(OneWayAddress(behind));
  std::thread([&] { zmq_proxy(front.get(), back.get(), nullptr); }).detach();
  std::thread([&] { zmq_proxy(one_way_front.get(), one_way_back.get(), nullptr); }).detach();
  Counter nothing;
  Serve(nothing);
  std::_Exit(0);
}

}  // namespace
}  // namespace bench::zeromq

int main(int argc, char** argv) {
  using bench::zeromq::ZeroMqRoute;
  const bench::Peer peer{
      "zeromq",
      {{"direct", [](const std::string& name) { return std::make_unique<ZeroMqRoute>(name, false); }, {}},
       {"router", [](const std::string& name) { return std::make_unique<ZeroMqRoute>(name, true); }, {}}},
      {{"server", bench::zeromq::RunServer}, {"router", bench::zeromq::RunRouter}}};
  return bench::RunPeer(peer, argc, argv);
}
