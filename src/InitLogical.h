#pragma once

#include <string>

#include "TolmBase/MessageLoopDyThreadPool.h"
#include "TolmBase/Singleton.h"
#include "TolmLPCFrame.h"

namespace TolmLPCFrame {

/// Runs what the transport's inbound callback posts.
class CMessageLoopForNetCallBack : public Tolm::Base::CMessageLoopDyThreadPool {
 public:
  CMessageLoopForNetCallBack() : CMessageLoopDyThreadPool("LpcNetCallBack") {}
};

/// Runs what ends in the host's callback.
class CMessageLoopForMainFrameWork : public Tolm::Base::CMessageLoopDyThreadPool {
 public:
  CMessageLoopForMainFrameWork() : CMessageLoopDyThreadPool("LpcMainFrame") {}
};

/// Runs what waits for plugins, so that a slow one holds up no host delivery.
class CMessageLoopForPlugins : public Tolm::Base::CMessageLoopDyThreadPool {
 public:
  CMessageLoopForPlugins() : CMessageLoopDyThreadPool("LpcPlugins") {}
};

/// Runs what the guard's WebSocket delivers.
class CMessageLoopForWebSocket : public Tolm::Base::CMessageLoopDyThreadPool {
 public:
  CMessageLoopForWebSocket() : CMessageLoopDyThreadPool("LpcWebSocket") {}
};

/// Brings everything up: transport, pools, guard endpoint, plugin registry. False when the transport
/// does not listen; nothing else is started then.
bool InitLogical(const std::string& lpc_server_name, const PlatformInfo& info);

/// Returns when no InitLogical is under way, other than one that repeats a start which is in force. For
/// what arrives: plugins and guards that wait for an endpoint connect as soon as it is there, before the
/// registry knows them.
void WaitWhileStarting();

/// Whether the frame was stopped, or is at the point of the stop from which on what arrives is dropped.
bool IsStopped();

/// Takes everything down in the opposite order. False when InitLogical never succeeded.
bool UninitLogical();

}  // namespace TolmLPCFrame
