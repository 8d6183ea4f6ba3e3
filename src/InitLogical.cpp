#include "InitLogical.h"

#include <atomic>
#include <optional>

#include "TolmBase/LogLine.h"
#include "common/CaughtException.h"
#include "common/Constants.h"
#include "common/Gate.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "lpcsevermanager/LpcServerManager.h"
#include "net/TolmGuardConnectionManager.h"

namespace TolmLPCFrame {

using Tolm::Base::CSingleton;

namespace {

/// Set by the first start that succeeds, and never cleared: a stop may be repeated.
std::atomic<bool> g_logical_init{false};
/// Whether the pools were stopped and not started again since.
std::atomic<bool> g_pools_stopped{false};
/// Closed while StartAll runs and no earlier start is in force.
Gate& ArrivalGate() {
  // Never destroyed: threads may come to it while the process exits.
  static Gate& gate = *new Gate(true);
  return gate;
}

class Starting {
 public:
  Starting() { ArrivalGate().Close(); }
  ~Starting() { ArrivalGate().Open(); }
  Starting(const Starting&) = delete;
  Starting& operator=(const Starting&) = delete;
};

void ReopenPools() {
  CSingleton<CMessageLoopForNetCallBack>::Instance().Reopen();
  CSingleton<CMessageLoopForMainFrameWork>::Instance().Reopen();
  CSingleton<CMessageLoopForPlugins>::Instance().Reopen();
  CSingleton<CMessageLoopForWebSocket>::Instance().Reopen();
}

/// False when one has not a single thread, or was running.
bool StartPools() {
  const bool sorts = CSingleton<CMessageLoopForNetCallBack>::Instance().Start(2, 30, 0);
  const bool calls = CSingleton<CMessageLoopForMainFrameWork>::Instance().Start(2, 30, 0);
  const bool forwards = CSingleton<CMessageLoopForPlugins>::Instance().Start(2, 30, 0);
  const bool hears = CSingleton<CMessageLoopForWebSocket>::Instance().Start(2, 10, 5);
  return sorts && calls && forwards && hears;
}

void StopPools() {
  CSingleton<CMessageLoopForWebSocket>::Instance().Stop(false);
  CSingleton<CMessageLoopForPlugins>::Instance().Stop(false);
  CSingleton<CMessageLoopForMainFrameWork>::Instance().Stop(false);
  CSingleton<CMessageLoopForNetCallBack>::Instance().Stop(false);
}

/// Of the frame's own threads one at a time may wait for the others to end: two that stop the frame at once,
/// in callbacks on different pools, would wait for each other. A thread of the host's is waited for by
/// nobody.
class Turn {
 public:
  Turn()
      : is_own_thread_(CLpcServerManager::IsInCallback()),
        granted_(!is_own_thread_ || !Taken().exchange(true)) {}
  ~Turn() {
    if (is_own_thread_ && granted_) Taken() = false;
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  explicit operator bool() const { return granted_; }

 private:
  static std::atomic<bool>& Taken() {
    static std::atomic<bool> taken{false};
    return taken;
  }

  const bool is_own_thread_;
  const bool granted_;
};

/// After a start that failed in the middle, of which nothing is to be left: a frame that has never been
/// started is not stopped. The host's callback does stay, for the next attempt.
void TakeBackStart() {
  g_pools_stopped = true;
  StopPools();
  auto& guards = CSingleton<CTolmGuardConnectManager>::Instance();
  if (guards.HasEndpoint()) guards.UninitManager();
  CSingleton<CLpcServerManager>::Instance().LpcStopListen();
}

bool StartAll(const std::string& lpc_server_name, const PlatformInfo& info) {
  // A start that is repeated holds nobody up: what arrives meanwhile finds what the first one has made.
  std::optional<Starting> starting;
  if (!g_logical_init || g_pools_stopped) starting.emplace();
  if (!CSingleton<CLpcServerManager>::Instance().LpcInit(lpc_server_name)) return false;
  g_pools_stopped = false;
  try {
    // Pools that run already are no failure of a start that is repeated.
    const bool have_threads = StartPools() || !starting;
    if (have_threads) {
      CSingleton<CTolmGuardConnectManager>::Instance().InitManager(info.frame_type);
      CLPCIntegrate::GetInstance().Init(info);
      g_logical_init = true;
      return true;
    }
  } catch (...) {
    TOLM_LOG_CAUGHT("the start is taken back");
  }
  if (starting) {
    starting.reset();  // the pools are about to be waited for, and what came waits in them
    TakeBackStart();
  }
  return false;
}

/// Runs a step of the stop. False when it failed: the others are made all the same.
template <typename Step>
bool Attempt(Step&& step) {
  try {
    step();
    return true;
  } catch (...) {
    TOLM_LOG_CAUGHT("a step of the stop failed");
    return false;
  }
}

}  // namespace

bool InitLogical(const std::string& lpc_server_name, const PlatformInfo& info) {
  // Messages may arrive as soon as the transport listens, before the pools have threads. New pools keep
  // them until then; pools that an earlier stop has closed would destroy them.
  const bool reopens = g_pools_stopped;
  if (reopens) ReopenPools();
  if (StartAll(lpc_server_name, info)) return true;
  TOLM_LOG(Tolm::Base::kLogLevelError, kTagError, "LpcInit failed");
  if (reopens) StopPools();
  return false;
}

void WaitWhileStarting() {
  ArrivalGate().Pass();
}

bool IsStopped() {
  return g_pools_stopped;
}

bool UninitLogical() {
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTagInfo, "Start UninitLogical");
  if (!g_logical_init) return false;
  const bool orderly = Attempt([] { CLPCIntegrate::GetInstance().UnInit(); });
  g_pools_stopped = true;
  // The pools are about to be waited for, and in them whoever waits for a plugin.
  auto& transport = CSingleton<CLpcServerManager>::Instance();
  bool whole = Attempt([&] { transport.EndWaitsSoon(); }) && orderly;
  if (const Turn turn; turn) {
    StopPools();
    // Of plugins that came back behind UnInit.
    whole &= Attempt([] { CLPCIntegrate::GetInstance().ForgetUrls(); });
    whole &= Attempt([] { CSingleton<CTolmGuardConnectManager>::Instance().UninitManager(); });
    whole &= Attempt([&] { transport.LpcUnint(); });
  } else {
    // Another callback does the rest, and waits for this one to return; that no callback starts any more is
    // seen to here.
    transport.SetCallBack(nullptr, nullptr);
  }
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTagInfo, "Finish UninitLogical");
  return whole;
}

}  // namespace TolmLPCFrame
