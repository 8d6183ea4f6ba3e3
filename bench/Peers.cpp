#include "Peers.h"

#include "Process.h"

namespace bench {
namespace {

struct Peer {
  const char* name;
  std::vector<const char*> routes;
};

const std::vector<Peer>& Peers() {
  static const std::vector<Peer> peers{{"zeromq", {"direct", "router"}},
                                       {"sdbus", {"direct", "broker", "daemon"}},
                                       {"grpc", {"direct", "router"}},
                                       {"nng", {"direct", "router"}}};
  return peers;
}

}  // namespace

std::vector<Measurement> PeerMeasurements() {
  return {{"zeromq", "ZeroMQ: a request and its answer, to another process and through a third", nullptr},
          {"sdbus", "D-Bus with sd-bus: to another process, through dbus-broker and through dbus-daemon",
           nullptr},
          {"grpc", "gRPC over a Unix socket: to another process, and through a third", nullptr},
          {"nng", "nng: to another process, and through a third", nullptr}};
}

std::string PeerProgram(const std::string& name) {
  return (ThisProgram().parent_path() / ("bench_" + name)).string();
}

std::vector<Row> RowsNotInstalled(const std::string& name) {
  std::vector<Row> rows;
  const auto add = [&rows](const std::string& row_name, const char* unit) {
    Row row;
    row.name = row_name;
    row.unit = unit;
    row.note = "not installed";
    rows.push_back(row);
  };
  for (const Peer& peer : Peers()) {
    if (peer.name != name) continue;
    for (const char* const route : peer.routes) {
      const std::string through = name + '.' + route;
      add(through + ".64", "us");
      add(through + ".1M", "us");
      add(through + ".64.callers64", "1/s");
      add(through + ".64.burst", "1/s");
    }
  }
  return rows;
}

}  // namespace bench
