#pragma once

namespace bench {

/// The one plugin of bench_start_host, and what it serves.
inline constexpr char kStartPlugin[] = "echo";
inline constexpr char kStartUrl[] = "/bench/start/echo";

}  // namespace bench
