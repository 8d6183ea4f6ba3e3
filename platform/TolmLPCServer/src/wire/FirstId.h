#pragma once

#include <cstdint>

namespace lpc::wire {

/// Where an end begins to count the ids of its requests: microseconds since 1970, which no earlier life of
/// it, in this process or another, has come to. A reply that is late goes to whoever has the asking peer's
/// name by then, and must not be taken for one to a request of this one's.
std::uint64_t FirstId();

}  // namespace lpc::wire
