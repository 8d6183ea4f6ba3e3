#pragma once

#include <string>
#include <vector>

#include "Route.h"
#include "Row.h"
#include "Settings.h"

namespace bench {

/// The rows PEER.ROUTE.64, .1M, .64.callers64 and .64.burst, each beside the bare stream, round by round.
/// Only those whose name is `wanted` or begins with it and a dot. Where the route cannot be opened, the rows
/// have a note and no figures.
std::vector<Row> MeasureRoute(const std::string& peer, const RouteKind& kind, const std::string& wanted,
                              const Settings& settings);

}  // namespace bench
