// bench_sdbus: method calls with an array of bytes, through systemd's sd-bus library: directly from process
// to process over a Unix socket, and through dbus-broker and dbus-daemon. A connection is not for several
// threads, so every calling thread has one of its own; without a bus the server has a thread for each, which
// is faster here than one event loop for all.

#include <cstdlib>
#include <memory>
#include <thread>
#include <utility>

#include "Counter.h"
#include "Peer.h"
#include "Roles.h"
#include "sdbus/Buses.h"
#include "sdbus/Connection.h"
#include "sdbus/Listener.h"

namespace bench::sdbus {
namespace {

class MethodCaller : public Caller {
 public:
  MethodCaller(const std::string& socket, bool bus) : connection_(socket, bus) {}
  std::size_t Call(const std::string& body) override {
    const MessagePointer call = connection_.NewCall(kEcho, body);
    sd_bus_message* made = nullptr;
    Checked(sd_bus_call(connection_.get(), call.get(), 0, nullptr, &made), "a call failed");
    const MessagePointer answer(made, &sd_bus_message_unref);
    const void* bytes = nullptr;
    std::size_t size = 0;
    Checked(sd_bus_message_read_array(made, 'y', &bytes, &size), "no bytes in an answer");
    return size;
  }

 private:
  Connection connection_;
};

class SdBusRoute : public Route {
 public:
  /// `bus` may be null: then the server itself listens on `socket`.
  SdBusRoute(std::unique_ptr<Bus> bus, const std::string& socket)
      : bus_(std::move(bus)),
        socket_(socket),
        server_({"--role", bus_ ? "bus_server" : "server", "--endpoint", socket}),
        ready_((server_.channel().TakeAnswer(), true)),
        one_way_(socket, bus_ != nullptr) {}

  std::unique_ptr<Caller> NewCaller() override {
    return std::make_unique<MethodCaller>(socket_, bus_ != nullptr);
  }
  // What the socket does not take at once goes into a queue from which each message is taken in a time that
  // grows with the queue; flushing keeps that empty, and costs nothing when it is.
  void SendOneWay(const std::string& body, std::size_t count) override {
    for (std::size_t i = 0; i < count; ++i) {
      const MessagePointer call = one_way_.NewCall(kTake, body);
      Checked(sd_bus_message_set_expect_reply(call.get(), 0), "no one-way call");
      Checked(sd_bus_send(one_way_.get(), call.get(), nullptr), "cannot send");
      Checked(sd_bus_flush(one_way_.get()), "cannot flush");
    }
  }
  Child& server() override { return server_; }

 private:
  const std::unique_ptr<Bus> bus_;
  const std::string socket_;
  Child server_;
  const bool ready_;
  Connection one_way_;
};

std::unique_ptr<Route> OpenDirect(const std::string& name) {
  return std::make_unique<SdBusRoute>(nullptr, NewEndpoint(name));
}

template <typename KindOfBus>
std::unique_ptr<Route> OpenThrough(const std::string& name) {
  auto bus = std::make_unique<KindOfBus>(NewEndpoint(name));
  const std::string socket = bus->socket();
  return std::make_unique<SdBusRoute>(std::move(bus), socket);
}

void RunServer(const std::string& endpoint, const std::string&) {
  const Listener listener(endpoint);
  Counter counter;
  std::thread([&] {
    for (;;) {
      std::thread([&counter, client = listener.Accept()] {
        Connection::Accepted(client).ServeCalls(counter);
      }).detach();
    }
  }).detach();
  Serve(counter);
  // The threads still use what is declared above.
  std::_Exit(0);
}

void RunBusServer(const std::string& endpoint, const std::string&) {
  Connection connection(endpoint, true);
  connection.TakeName();
  Counter counter;
  std::thread([&] { connection.ServeCalls(counter); }).detach();
  Serve(counter);
  std::_Exit(0);
}

}  // namespace
}  // namespace bench::sdbus

int main(int argc, char** argv) {
  using namespace bench::sdbus;
  const bench::Peer peer{
      "sdbus",
      {{"direct", OpenDirect, {}}, {"broker", OpenThrough<Broker>, {}}, {"daemon", OpenThrough<Daemon>, {}}},
      {{"server", RunServer}, {"bus_server", RunBusServer}}};
  return bench::RunPeer(peer, argc, argv);
}
