#include "ScriptedGuard.h"

#include "Journal.h"
#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "net/TolmGuardConnectionManager.h"

namespace tolm::test {

ScriptedGuard& ScriptedGuard::Get() {
  static ScriptedGuard* const guard = new ScriptedGuard;
  return *guard;
}

void ScriptedGuard::Reset() {
  init_manager = true;
  uninit_manager = [] {};
  init_agent = [] {};
  notify_state = [] {};
  notify_frame_inited_finished = [] {};
  control_guard_process = [] {};
  set_process_guard_state_list = true;
  notify_frame_uninit = true;
}

}  // namespace tolm::test

namespace TolmLPCFrame {

using tolm::test::Journal;
using tolm::test::ScriptedGuard;

CLPCCommunicateWithTolmGuard& CLPCCommunicateWithTolmGuard::GetInstance() {
  return Tolm::Base::CSingleton<CLPCCommunicateWithTolmGuard>::Instance();
}

void CLPCCommunicateWithTolmGuard::InitTolmAgent(const std::string& main_process_path,
                                                 const std::string& agent_path, const std::string& role) {
  Journal::Note("guard.InitTolmAgent " + main_process_path + "|" + agent_path + "|" + role);
  ScriptedGuard::Get().init_agent();
}

void CLPCCommunicateWithTolmGuard::UnInitTolmAgent() {
  Journal::Note("guard.UnInitTolmAgent");
}

void CLPCCommunicateWithTolmGuard::NotifyFrameInitedFinished(const std::string& cmdline) {
  Journal::Note("guard.NotifyFrameInitedFinished " + cmdline);
  ScriptedGuard::Get().notify_frame_inited_finished();
}

void CLPCCommunicateWithTolmGuard::NotifyState() {
  Journal::Note("guard.NotifyState");
  ScriptedGuard::Get().notify_state();
}

void CLPCCommunicateWithTolmGuard::ControlGuardProcess(const std::string& process_name, bool start) {
  Journal::Note("guard.ControlGuardProcess " + process_name + (start ? " start" : " stop"));
  ScriptedGuard::Get().control_guard_process();
}

bool CLPCCommunicateWithTolmGuard::SetProcessGuardStateList(const std::map<std::string, bool>& states) {
  std::string entry = "guard.SetProcessGuardStateList";
  for (const auto& [id, watched] : states) entry += " " + id + (watched ? "=true" : "=false");
  Journal::Note(entry);
  return ScriptedGuard::Get().set_process_guard_state_list(states);
}

bool CLPCCommunicateWithTolmGuard::NotifyFrameUninit() {
  Journal::Note("guard.NotifyFrameUninit");
  return ScriptedGuard::Get().notify_frame_uninit();
}

bool CTolmGuardConnectManager::InitManager(std::int32_t frame_type) {
  Journal::Note("guard.InitManager " + std::to_string(frame_type));
  return ScriptedGuard::Get().init_manager(frame_type);
}

void CTolmGuardConnectManager::UninitManager() {
  Journal::Note("guard.UninitManager");
  ScriptedGuard::Get().uninit_manager();
}

}  // namespace TolmLPCFrame
