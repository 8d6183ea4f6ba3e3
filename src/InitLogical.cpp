#include "InitLogical.h"

#include <atomic>

#include "TolmBase/LogLine.h"
#include "common/Constants.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "lpcsevermanager/LpcServerManager.h"
#include "net/TolmGuardConnectionManager.h"

namespace TolmLPCFrame {

using Tolm::Base::CSingleton;

namespace {

/// Set by the first start that succeeds, and never cleared: a stop may be repeated.
std::atomic<bool> g_logical_init{false};
/// Whether the pools are in use at the moment.
std::atomic<bool> g_pools_started{false};

void ReopenPools() {
  CSingleton<CMessageLoopForNetCallBack>::Instance().Reopen();
  CSingleton<CMessageLoopForMainFrameWork>::Instance().Reopen();
  CSingleton<CMessageLoopForPlugins>::Instance().Reopen();
  CSingleton<CMessageLoopForWebSocket>::Instance().Reopen();
}

void StartPools() {
  CSingleton<CMessageLoopForNetCallBack>::Instance().Start(2, 30, 0);
  CSingleton<CMessageLoopForMainFrameWork>::Instance().Start(2, 30, 0);
  CSingleton<CMessageLoopForPlugins>::Instance().Start(2, 30, 0);
  CSingleton<CMessageLoopForWebSocket>::Instance().Start(2, 10, 5);
}

void StopPools() {
  CSingleton<CMessageLoopForWebSocket>::Instance().Stop(false);
  CSingleton<CMessageLoopForPlugins>::Instance().Stop(false);
  CSingleton<CMessageLoopForMainFrameWork>::Instance().Stop(false);
  CSingleton<CMessageLoopForNetCallBack>::Instance().Stop(false);
}

}  // namespace

bool InitLogical(const std::string& lpc_server_name, const PlatformInfo& info) {
  // Messages may arrive as soon as the transport listens, before the pools have threads. Pools that an
  // earlier stop has closed would destroy them; running ones are not touched by this.
  ReopenPools();
  auto& transport = CSingleton<CLpcServerManager>::Instance();
  if (!transport.LpcInit(lpc_server_name)) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTagError, "LpcInit failed");
    // The frame may be running all the while, under another name; its pools are left alone then.
    if (!g_pools_started) StopPools();
    return false;
  }
  g_pools_started = true;
  StartPools();
  CSingleton<CTolmGuardConnectManager>::Instance().InitManager(info.frame_type);
  CLPCIntegrate::GetInstance().Init(info);
  g_logical_init = true;
  return true;
}

bool UninitLogical() {
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTagInfo, "Start UninitLogical");
  if (!g_logical_init) return false;
  CLPCIntegrate::GetInstance().UnInit();
  g_pools_started = false;
  StopPools();
  CSingleton<CTolmGuardConnectManager>::Instance().UninitManager();
  CSingleton<CLpcServerManager>::Instance().LpcUnint();
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTagInfo, "Finish UninitLogical");
  return true;
}

}  // namespace TolmLPCFrame
