#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Route.h"

namespace bench {

/// A program that measures one peer.
struct Peer {
  const char* name;  ///< what its rows' names begin with
  std::vector<RouteKind> routes;

  /// What a process of the route does until its channel ends. `behind` is what a router sends on to.
  struct Role {
    const char* name;
    std::function<void(const std::string& endpoint, const std::string& behind)> run;
  };
  std::vector<Role> roles;
};

/// The program's main function. It is started by frame_bench, as `--role measure --id NAME [--quick]`: NAME
/// is the peer's name, a route's or a row's.
int RunPeer(const Peer& peer, int argc, char** argv);

}  // namespace bench
