#include "sdbus/Connection.h"

#include <systemd/sd-id128.h>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace bench::sdbus {
namespace {

MessagePointer Owned(sd_bus_message* message) {
  return {message, &sd_bus_message_unref};
}

sd_bus* NewBus() {
  sd_bus* bus = nullptr;
  Checked(sd_bus_new(&bus), "no connection");
  return bus;
}

int Answer(sd_bus_message* call) {
  const void* bytes = nullptr;
  std::size_t size = 0;
  int result = sd_bus_message_read_array(call, 'y', &bytes, &size);
  if (result < 0) return result;
  sd_bus_message* made = nullptr;
  result = sd_bus_message_new_method_return(call, &made);
  const auto answer = Owned(made);
  if (result >= 0) result = sd_bus_message_append_array(made, 'y', bytes, size);
  return result < 0 ? result : sd_bus_send(nullptr, made, nullptr);
}

// A callback for the path: a table of methods would be one more search for each call.
int Handle(sd_bus_message* message, void* counter, sd_bus_error*) {
  if (sd_bus_message_is_method_call(message, kInterface, kEcho) > 0) {
    const int result = Answer(message);
    return result < 0 ? result : 1;
  }
  if (sd_bus_message_is_method_call(message, kInterface, kTake) == 0) return 0;
  static_cast<Counter*>(counter)->Count();
  return 1;
}

}  // namespace

int Checked(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
  return result;
}

Connection::Connection() : bus_(NewBus(), &sd_bus_close_unref) {}

Connection::Connection(const std::string& path, bool bus) : Connection() {
  Checked(sd_bus_set_address(get(), ("unix:path=" + path).c_str()), "no address");
  if (bus) Checked(sd_bus_set_bus_client(get(), 1), "no bus's client");
  if (bus) destination_ = kServerName;
  Start();
}

Connection::Connection(int descriptor) : Connection() {
  Checked(sd_bus_set_fd(get(), descriptor, descriptor), "no descriptor");
  Start();
}

Connection Connection::Accepted(int descriptor) {
  Connection connection;
  sd_id128_t id;
  Checked(sd_id128_randomize(&id), "no id");
  Checked(sd_bus_set_fd(connection.get(), descriptor, descriptor), "no descriptor");
  Checked(sd_bus_set_server(connection.get(), 1, id), "no server");
  connection.Start();
  return connection;
}

void Connection::Start() {
  Checked(sd_bus_start(get()), "cannot connect");
}

MessagePointer Connection::NewCall(const char* method, const std::string& body) const {
  sd_bus_message* made = nullptr;
  Checked(sd_bus_message_new_method_call(get(), &made, destination_, kPath, kInterface, method), "no call");
  MessagePointer call = Owned(made);
  Checked(sd_bus_message_append_array(made, 'y', body.data(), body.size()), "no body");
  return call;
}

void Connection::TakeName() {
  Checked(sd_bus_request_name(get(), kServerName, 0), "no name");
}

void Connection::ServeCalls(Counter& counter) {
  Checked(sd_bus_add_object(get(), nullptr, kPath, Handle, &counter), "no object");
  for (;;) {
    const int result = sd_bus_process(get(), nullptr);
    if (result < 0) return;
    if (result == 0 && sd_bus_wait(get(), UINT64_MAX) < 0) return;
  }
}

}  // namespace bench::sdbus
