#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Scripted.h"

namespace tolm::test {

/// Stands behind the frame's link to the guard. Every call is noted in the journal before its script
/// runs.
class ScriptedGuard {
 public:
  static ScriptedGuard& Get();
  /// The endpoint opens, the guard accepts everything.
  void Reset();

  Scripted<bool(std::int32_t frame_type)> init_manager;
  Scripted<void()> uninit_manager;
  Scripted<void()> init_agent;
  Scripted<void()> notify_state;
  Scripted<void()> notify_frame_inited_finished;
  Scripted<void()> control_guard_process;
  Scripted<bool(const std::map<std::string, bool>&)> set_process_guard_state_list;
  Scripted<bool()> notify_frame_uninit;

 private:
  ScriptedGuard() { Reset(); }
};

}  // namespace tolm::test
