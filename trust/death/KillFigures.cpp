#include "KillFigures.h"

#include <string>

#include "support/Figures.h"

namespace trust::death {
namespace {

/// Of all events, in percent.
constexpr double kMostSwapped = 1;

void Publish(const std::string& name, double figure) {
  PrintFigure("death." + name, figure, "count");
}

void PublishNone(const std::string& name, double figure) {
  PrintFigure("death." + name, figure, "count", Bound::kExactly, 0);
}

/// What the tally counts, and whether there may be any of it.
struct Counted {
  const char* name;
  Count Tally::*count;
  bool none = false;
};
constexpr Counted kOfCalls[] = {{"explained_by_all", &Tally::explained_by_all},
                                {"explained_by_plugin", &Tally::explained_by_plugin},
                                {"unexplained", &Tally::unexplained, true},
                                {"undisturbed_calls", &Tally::undisturbed},
                                {"caller_killed", &Tally::cut},
                                {"calm_calls", &Tally::calm_calls},
                                {"calm_calls_failed", &Tally::calm_failed, true}};
constexpr Counted kOfRequests[] = {{"later.sent", &Tally::later_sent},
                                   {"later.answered", &Tally::later_answered},
                                   {"later.never_sent", &Tally::later_never_sent},
                                   {"later.peer_gone", &Tally::later_peer_gone},
                                   {"later.lost", &Tally::later_lost, true},
                                   {"later.host_killed", &Tally::later_host_killed},
                                   {"later.host_stopped", &Tally::later_host_stopped},
                                   {"later.unasked", &Tally::later_unasked, true},
                                   {"notifications", &Tally::notices},
                                   {"notifications_failed", &Tally::notices_failed}};
constexpr Counted kOfEvents[] = {{"events", &Tally::events},
                                 {"events_swapped", &Tally::events_swapped},
                                 {"events_out_of_order", &Tally::events_out_of_order, true}};

template <typename Rows>
void PublishAll(const Rows& rows, const Tally& tally) {
  for (const Counted& row : rows) {
    (row.none ? PublishNone : Publish)(row.name, static_cast<double>((tally.*row.count).load()));
  }
}

void PrintOutcomes(const Tally& tally) {
  const auto count = [&tally](std::size_t outcome) {
    return static_cast<double>(tally.outcomes[outcome].load());
  };
  double calls = 0;
  for (std::size_t i = 0; i < kOutcomes; ++i) calls += count(i);
  Publish("calls", calls);
  PublishNone("calls_late", static_cast<double>(tally.late.load()));
  Publish("answered", count(0));
  for (std::size_t i = 1; i < kOutcomes; ++i) {
    Publish(std::string("code.") + NameOf(static_cast<Outcome>(i)), count(i));
  }
}

}  // namespace

void PrintKillFigures(const KillCounts& counts, int wanted, const Tally& tally) {
  PrintFigure("death.kills", counts.kills, "count", Bound::kAtLeast, wanted);
  Publish("kills.plugin", counts.plugins);
  Publish("kills.guard", counts.guards);
  Publish("kills.agent", counts.agents);
  Publish("kills.host", counts.hosts);
  Publish("kills.in_stop", counts.in_stops);
  PrintOutcomes(tally);
  PublishAll(kOfCalls, tally);
  PublishAll(kOfRequests, tally);
  PublishNone("later.miscounted", static_cast<double>(counts.requests_miscounted));
  PublishNone("orphans", static_cast<double>(counts.orphans));
  PublishNone("left_files", static_cast<double>(counts.files));
  PublishAll(kOfEvents, tally);
  const double swapped = static_cast<double>(tally.events_swapped.load());
  PrintFigure("death.events_swapped_share", 100 * swapped / static_cast<double>(tally.events.load()), "%",
              Bound::kAtMost, kMostSwapped);
  PublishNone("restarts_failed", counts.failed);
  PrintFigure("death.slowest_return_s", counts.slowest_return_s, "s");
  PrintFigure("death.slowest_end_s", counts.slowest_end_s, "s");
  PrintFigure("death.took_s", counts.took_s, "s");
}

}  // namespace trust::death
