#pragma once

#include <string>
#include <vector>

#include "Measurements.h"
#include "Row.h"

namespace bench {

/// What is measured beside the frame by programs of their own: other ways of saying something to another
/// process. Each is built where its library is installed.
std::vector<Measurement> PeerMeasurements();

/// Where the program of the peer `name` would lie.
std::string PeerProgram(const std::string& name);

/// The rows of a peer whose program is not there.
std::vector<Row> RowsNotInstalled(const std::string& name);

}  // namespace bench
