#include "EndReports.h"

#include <utility>

#include "TolmBase/GuidUtil.h"
#include "TolmBase/LogLine.h"

namespace guard {

EndReports::EndReports(Scheduler& scheduler, FrameChannel& channel)
    : scheduler_(scheduler), channel_(channel) {}

EndReports::~EndReports() {
  scheduler_.Cancel(timer_);
}

void EndReports::OnEnded(const std::string& plugin, bool successor_due) {
  End end{scheduler_.Now() + kSettledWithin, !successor_due, {}};
  if ((successor_due || channel_.Send(BuildProcessEnded(plugin))) && Ask(end)) {
    ends_[plugin] = std::move(end);
  } else {
    unheard_.insert(plugin);
  }
}

void EndReports::OnStates(const std::string& guid, const std::map<std::string, bool>& states) {
  for (auto entry = ends_.begin(); entry != ends_.end();) {
    const auto& [plugin, end] = *entry;
    const auto state = states.find(plugin);
    const bool is_late = scheduler_.Now() >= end.until;
    if (is_late) {
      TOLM_LOG(Tolm::Base::kLogLevelWarning, "TolmGuard",
               "plugin %.128s: the frame took longer than %lld ms to note its end", plugin.c_str(),
               static_cast<long long>(kSettledWithin.count()));
      entry = ends_.erase(entry);
      continue;
    }
    // An answer to an earlier question may be from before the end.
    if (guid != end.question) {
      ++entry;
      continue;
    }
    // The frame has no flag for a plugin that is not listed, but tells its host all the same.
    const bool is_listed = state != states.end();
    if (!end.told && (!is_listed || state->second)) {
      entry->second.told = channel_.Send(BuildProcessEnded(plugin));
    }
    if (is_listed && state->second) {
      AskLater(entry->second);
      ++entry;
    } else {
      entry = ends_.erase(entry);
    }
  }
}

void EndReports::OnFrameLost() {
  for (const auto& [plugin, end] : ends_) {
    if (!end.told) unheard_.insert(plugin);
  }
  ends_.clear();  // another frame knows of nobody
  scheduler_.Cancel(std::exchange(timer_, 0));
}

std::set<std::string> EndReports::TakeUnheard() {
  return std::exchange(unheard_, {});
}

bool EndReports::IsSettled(const std::string& plugin) const {
  const auto end = ends_.find(plugin);
  return end == ends_.end() || scheduler_.Now() >= end->second.until;
}

bool EndReports::Ask(End& end) {
  end.question = Tolm::Base::GuidUtil::CreateGuid();
  return channel_.Send(BuildInitStatesQuestion(end.question));
}

void EndReports::AskLater(End& end) {
  end.question.clear();
  if (timer_ == 0) timer_ = scheduler_.After(kAskAgain, [this] { AskAgain(); });
}

// One question serves all that wait.
void EndReports::AskAgain() {
  timer_ = 0;
  const std::string guid = Tolm::Base::GuidUtil::CreateGuid();
  for (auto& [plugin, end] : ends_) {
    if (end.question.empty()) end.question = guid;
  }
  channel_.Send(BuildInitStatesQuestion(guid));
}

}  // namespace guard
