// The host's callback is busy, so the plugin is not read from; its queue is full of what it has sent, and its
// registration is refused. It is ready as soon as there is room all the same.

#include <string>

#include "pressure/Cases.h"
#include "support/Figures.h"
#include "traffic/Host.h"
#include "traffic/PluginProcess.h"
#include "traffic/Time.h"

namespace trust {

void FullStart(const PressureSettings& settings) {
  PluginProcess full("full");
  Host host("full", {"full"});
  host.Hold(true);
  full.Do("fill_before_it_registers");
  full.Start(host.endpoint());
  // What comes behind is the registration.
  const bool is_full = full.Do("await_filled").at(0) != 0;
  Spend(std::chrono::seconds(1));
  const bool early = host.Events(TolmLPCFrame::kLpcMsgPluginInited, "full") > 0;
  host.Hold(false);
  const auto begin = bench::Clock::now();
  const bool ready = host.AwaitEvents(TolmLPCFrame::kLpcMsgPluginInited, "full", 1, 20'000);
  const double after = bench::SecondsSince(begin);
  PrintFigure("pressure.full_start.filled", is_full && !early ? 1 : 0, "bool", Bound::kExactly, 1);
  PrintFigure("pressure.full_start.ready", ready ? 1 : 0, "bool", Bound::kExactly, 1);
  if (settings.quick) {
    PrintFigure("pressure.full_start.ready_after", after, "s");
  } else {
    PrintFigure("pressure.full_start.ready_after", after, "s", Bound::kAtMost, 2);
  }
}

}  // namespace trust
