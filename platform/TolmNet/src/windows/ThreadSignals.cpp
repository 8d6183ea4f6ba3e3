#include "ThreadSignals.h"

namespace Tolm::Net {

// A console's events come on a thread of their own here.
struct SignalsBlocked::Mask {};

SignalsBlocked::SignalsBlocked() = default;
SignalsBlocked::~SignalsBlocked() = default;

}  // namespace Tolm::Net
