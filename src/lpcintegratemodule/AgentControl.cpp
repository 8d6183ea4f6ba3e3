// Starting and ending the agent, which keeps the guard alive.

#include "TolmBase/FileUtil.h"
#include "TolmBase/LogLine.h"
#include "TolmBase/StringUtil.h"
#include "common/AgentNames.h"
#include "common/Constants.h"
#include "common/Steps.h"
#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "os/ChildProcess.h"
#include "os/HiddenProcess.h"
#include "os/Mutex.h"
#include "os/NamedEvent.h"
#include "os/Utf8Path.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelInfo;
using Tolm::Base::StringUtil::str_fmt;
using Tolm::Base::StringUtil::StringReplace;

namespace {

constexpr int kAgentAnswerTimeOut = 5000;  // milliseconds

void RemoveProcesses(std::string executable_path) {
  NormalizePath(executable_path);
  os::RunRemovalCommand("wmic process where ExecutablePath=\"" +
                        StringReplace(executable_path, "\\", "\\\\") + "\" delete");
}

/// The lock of an agent or a guard that was killed may lie there as a file: whoever takes it and lets go of
/// it takes that away. One that lives keeps it.
void RemoveLeftLock(const std::string& name) {
  std::string ignored;
  os::ProcessLock::TryTake(name, ignored);
}

}  // namespace

void CLPCCommunicateWithTolmGuard::InitTolmAgent(const std::string& main_process_path,
                                                 const std::string& agent_path, const std::string& role) {
  TOLM_LOG(kLogLevelInfo, kTagInfo, "Start to init TolmAgent");
  const std::string event_name = AgentEventName(agent_path);
  {
    const os::MutexLock lock(mutex_);
    agent_event_name_ = event_name;
  }
  // Not kept: an event that this process held would outlive its agent.
  if (os::NamedEvent::Open(event_name) != nullptr) return;

  const std::string command_line =
      str_fmt("\"%s\" \"%s\" %s -process", agent_path.c_str(), main_process_path.c_str(), role.c_str());
  TOLM_LOG(kLogLevelInfo, kTagInfo, "cmd [%s]", command_line.c_str());
  const os::StartedProcess agent = os::StartHidden(command_line);
  if (agent.started) {
    TOLM_LOG(kLogLevelInfo, kTagInfo, "Create Agent processID %d ", static_cast<int>(agent.process_id));
  } else {
    TOLM_LOG(kLogLevelError, kTagError, "CreateProcess failed ErrorCode: %d", agent.error);
  }
}

void CLPCCommunicateWithTolmGuard::UnInitTolmAgent() {
  // From where this process runs, which need not be where the agent was started from.
  const std::string folder = Tolm::Base::FileUtil::GetCurExeDir();
  std::string event_name;
  Steps steps;
  steps.Make([&] {
    const os::MutexLock lock(mutex_);
    event_name = agent_event_name_;
  });
  steps.Make([&event_name] {
    const auto event = os::NamedEvent::Open(event_name);
    if (event == nullptr) return;
    event->Set();
    TOLM_LOG(kLogLevelInfo, kTagInfo, "_Watchdog_Protect_ Event is seted %d ",
             static_cast<int>(event->native()));
    if (!event->Wait(kAgentAnswerTimeOut)) TOLM_LOG(kLogLevelInfo, kTagInfo, "TolmAgent Uninit over time");
  });
  for (const char* const path : {kGuardRelativePath, kAgentRelativePath}) {
    steps.Make([&] { RemoveProcesses(folder + path); });
  }
  if (!event_name.empty()) {
    steps.Make([&] { RemoveLeftLock(event_name); });
    steps.Make([] {
      RemoveLeftLock(GuardLockName(os::Utf8Path(Tolm::Base::FileUtil::GetCurExeDirUtf8()) / kConfigFileName));
    });
  }
  steps.Finish();
}

}  // namespace TolmLPCFrame
