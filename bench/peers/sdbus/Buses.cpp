#include "sdbus/Buses.h"

#include <fcntl.h>
#include <unistd.h>
#include <array>
#include <cstdint>
#include <fstream>

#include "Route.h"
#include "sdbus/Listener.h"

namespace bench::sdbus {
namespace {

constexpr char kDaemonProgram[] = "/usr/bin/dbus-daemon";
constexpr char kBrokerProgram[] = "/usr/bin/dbus-broker";

// The descriptor that a Child has for its parent: the one writes its address there, the other takes orders.
std::string ChildDescriptor() {
  return std::to_string(ParentDescriptor());
}

void MustBeInstalled(const char* program) {
  if (::access(program, X_OK) != 0) throw NotThere("not installed");
}

void WriteConfiguration(const std::string& file, const std::string& socket) {
  std::ofstream out(file);
  out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         "  \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig>\n"
         "  <listen>unix:path="
      << socket
      << "</listen>\n"
         "  <auth>EXTERNAL</auth>\n"
         "  <policy context=\"default\">\n"
         "    <allow send_destination=\"*\"/>\n"
         "    <allow receive_sender=\"*\"/>\n"
         "    <allow own=\"*\"/>\n"
         "  </policy>\n"
         "  <limit name=\"max_incoming_bytes\">1000000000</limit>\n"
         "  <limit name=\"max_outgoing_bytes\">1000000000</limit>\n"
         "  <limit name=\"max_message_size\">1000000000</limit>\n"
         "  <limit name=\"max_replies_per_connection\">50000</limit>\n"
         "</busconfig>\n";
}

// A set of rules: whether to connect, what names to take, what to send, what to receive. Each has a verdict
// and a priority; an empty text stands for all.
#define TOLM_RULES "bta(btbs)a(btssssuutt)a(btssssuutt)"
// Rules by user, by group, for SELinux; whether AppArmor is asked; the kind of bus.
#define TOLM_POLICY "a(u(" TOLM_RULES "))a(buu(" TOLM_RULES "))a(ss)bs"

constexpr std::uint32_t kEverybody = UINT32_MAX;
constexpr std::uint64_t kFirst = 1;
constexpr std::uint64_t kAnyNumber = UINT64_MAX;

void AppendPolicy(sd_bus_message* message) {
  const std::uint64_t none = 0;
  Checked(sd_bus_message_append(message, "v", "(" TOLM_POLICY ")",
                                // One set, for all users.
                                1, kEverybody,
                                // Connecting, and all names.
                                1, kFirst, 1, 1, kFirst, 1, "",
                                // Sending: name, path, interface and member; type, broadcast; how many
                                // descriptors.
                                1, 1, kFirst, "", "", "", "", 0, 0, none, kAnyNumber,
                                // Receiving.
                                1, 1, kFirst, "", "", "", "", 0, 0, none, kAnyNumber,
                                // No set for groups, no SELinux, no AppArmor.
                                0, 0, 0, "session"),
          "no policy");
}

#undef TOLM_POLICY
#undef TOLM_RULES

}  // namespace

Daemon::Daemon(const std::string& path) : Bus(path) {
  MustBeInstalled(kDaemonProgram);
  const std::string file = path + ".conf";
  WriteConfiguration(file, path);
  process_.emplace(kDaemonProgram,
                   std::vector<std::string>{"--config-file=" + file, "--nofork", "--nopidfile",
                                            "--syslog-only", "--print-address=" + ChildDescriptor()});
  // It writes its address when it listens. Its complaints about this machine do not belong into the table.
  char first = 0;
  if (!process_->channel().Read(&first, 1)) throw NotThere("dbus-daemon cannot be started here");
}

Broker::Broker(const std::string& path) : Bus(path) {
  MustBeInstalled(kBrokerProgram);
  // The limits count per user, and all processes here have the same one.
  process_.emplace(
      kBrokerProgram,
      std::vector<std::string>{"--controller", ChildDescriptor(), "--machine-id",
                               "0123456789abcdef0123456789abcdef", "--max-bytes", "1000000000", "--max-fds",
                               "100000", "--max-matches", "50000", "--max-objects", "1000000"});
  try {
    const Listener listener(path);
    // The broker accepts until there is nobody left.
    ::fcntl(listener.descriptor(), F_SETFL, O_NONBLOCK);
    // The channel keeps a descriptor of its own.
    controller_.emplace(::fcntl(static_cast<int>(process_->channel().descriptor()), F_DUPFD_CLOEXEC, 0));
    sd_bus_message* made = nullptr;
    Checked(sd_bus_message_new_method_call(controller_->get(), &made, nullptr, "/org/bus1/DBus/Broker",
                                           "org.bus1.DBus.Broker", "AddListener"),
            "no order");
    const MessagePointer order(made, &sd_bus_message_unref);
    Checked(sd_bus_message_append(made, "oh", "/org/bus1/DBus/Listener/0", listener.descriptor()),
            "no listener");
    AppendPolicy(made);
    Checked(sd_bus_call(controller_->get(), made, 0, nullptr, nullptr), "the order was refused");
  } catch (const std::runtime_error& error) {
    throw NotThere(std::string("dbus-broker cannot be started here: ") + error.what());
  }
}

}  // namespace bench::sdbus
