// Any command line of the agent: it is run, or refused with a reason; what it runs with is within its bounds.

#include <vector>

#include "Options.h"
#include "support/Input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using fuzz::Require;
  using tolm::agent::Order;
  fuzz::Input input(data, size);
  std::vector<std::string> words;
  while (!input.empty()) words.push_back(input.Line());
  tolm::agent::Options options;
  std::string fault;
  const Order order = tolm::agent::ReadCommandLine(words, options, fault);
  Require((order == Order::kRefuse) == !fault.empty(), "what is refused has a reason");
  const auto& times = options.times;
  for (const auto time : {times.grace, times.host_gone, times.host_interval, times.restart,
                          times.longest_restart, times.stable}) {
    Require(time >= std::chrono::milliseconds(1) && time <= std::chrono::hours(24), "a time is up to a day");
  }
  if (order == Order::kRun) {
    Require(options.role == "Client" && options.agent_path == words.front(), "it runs as it was told");
    Require(!options.host_path.starts_with("-"), "an option is no path");
  }
  return 0;
}
