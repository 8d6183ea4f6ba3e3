#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"

namespace TolmLPCFrame {

CLPCCommunicateWithTolmGuard& CLPCCommunicateWithTolmGuard::GetInstance() {
  return Tolm::Base::CSingleton<CLPCCommunicateWithTolmGuard>::Instance();
}

void CLPCCommunicateWithTolmGuard::InitTolmAgent(const std::string& /*main_process_path*/,
                                                 const std::string& /*agent_path*/,
                                                 const std::string& /*role*/) {}

void CLPCCommunicateWithTolmGuard::UnInitTolmAgent() {}

void CLPCCommunicateWithTolmGuard::NotifyFrameInitedFinished(const std::string& /*cmdline*/) {}

void CLPCCommunicateWithTolmGuard::NotifyState() {}

void CLPCCommunicateWithTolmGuard::ControlGuardProcess(const std::string& /*process_name*/, bool /*start*/) {}

bool CLPCCommunicateWithTolmGuard::SetProcessGuardStateList(const std::map<std::string, bool>& /*states*/) {
  return false;
}

bool CLPCCommunicateWithTolmGuard::NotifyFrameUninit() {
  return false;
}

}  // namespace TolmLPCFrame
