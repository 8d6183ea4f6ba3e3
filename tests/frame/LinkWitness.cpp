#include "LinkWitness.h"

#include <memory>
#include <string>

#include "InitLogical.h"
#include "Journal.h"
#include "TolmBase/MessageLoopDyThreadPool.h"
#include "common/UrlTemplate.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "lpcsevermanager/LpcServerManager.h"

namespace tolm::test {

std::atomic<int> g_masked_urls{0};

namespace {

using Tolm::Base::CMessageLoopDyThreadPool;
using Tolm::Base::CSingleton;
using Tolm::Base::CTask;

std::string NameOf(const CMessageLoopDyThreadPool* pool) {
  if (pool == &CSingleton<TolmLPCFrame::CMessageLoopForNetCallBack>::Instance()) return "NetCallBack";
  if (pool == &CSingleton<TolmLPCFrame::CMessageLoopForMainFrameWork>::Instance()) return "MainFrameWork";
  if (pool == &CSingleton<TolmLPCFrame::CMessageLoopForPlugins>::Instance()) return "Plugins";
  if (pool == &CSingleton<TolmLPCFrame::CMessageLoopForWebSocket>::Instance()) return "WebSocket";
  return "another";
}

std::string NameOf(const CTask* task) {
  if (dynamic_cast<const TolmLPCFrame::CURLCallBackTask*>(task) != nullptr) return "CURLCallBackTask";
  if (dynamic_cast<const TolmLPCFrame::CMethodCallBackTask*>(task) != nullptr) return "CMethodCallBackTask";
  if (dynamic_cast<const TolmLPCFrame::CURLTask*>(task) != nullptr) return "CURLTask";
  return "another";
}

}  // namespace

// The real functions.
bool RealStart(CMessageLoopDyThreadPool* pool, int min_threads, int max_threads,
               int idle_seconds) asm("__real__ZN4Tolm4Base24CMessageLoopDyThreadPool5StartEiii");
bool RealStop(CMessageLoopDyThreadPool* pool,
              bool drain) asm("__real__ZN4Tolm4Base24CMessageLoopDyThreadPool4StopEb");
bool RealPostTask(CMessageLoopDyThreadPool* pool,
                  CTask* task) asm("__real__ZN4Tolm4Base24CMessageLoopDyThreadPool8PostTaskEPNS0_5CTaskE");
std::string RealMaskSidInUrl(const std::string& url) asm(
    "__real__ZN12TolmLPCFrame12MaskSidInUrlERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");

// What the frame's calls are led to.
bool NotedStart(CMessageLoopDyThreadPool* pool, int min_threads, int max_threads,
                int idle_seconds) asm("__wrap__ZN4Tolm4Base24CMessageLoopDyThreadPool5StartEiii");
bool NotedStop(CMessageLoopDyThreadPool* pool,
               bool drain) asm("__wrap__ZN4Tolm4Base24CMessageLoopDyThreadPool4StopEb");
bool NotedPostTask(CMessageLoopDyThreadPool* pool,
                   CTask* task) asm("__wrap__ZN4Tolm4Base24CMessageLoopDyThreadPool8PostTaskEPNS0_5CTaskE");
std::string CountedMaskSidInUrl(const std::string& url) asm(
    "__wrap__ZN12TolmLPCFrame12MaskSidInUrlERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");

bool NotedStart(CMessageLoopDyThreadPool* pool, int min_threads, int max_threads, int idle_seconds) {
  Journal::Note("pool.Start " + NameOf(pool) + " " + std::to_string(min_threads) + " " +
                std::to_string(max_threads) + " " + std::to_string(idle_seconds));
  return RealStart(pool, min_threads, max_threads, idle_seconds);
}

bool NotedStop(CMessageLoopDyThreadPool* pool, bool drain) {
  Journal::Note("pool.Stop " + NameOf(pool) + (drain ? " true" : " false"));
  return RealStop(pool, drain);
}

bool NotedPostTask(CMessageLoopDyThreadPool* pool, CTask* task) {
  std::unique_ptr<CTask> owned(task);
  Journal::Note("pool.Post " + NameOf(pool) + " " + NameOf(task));
  return RealPostTask(pool, owned.release());
}

std::string CountedMaskSidInUrl(const std::string& url) {
  ++g_masked_urls;
  return RealMaskSidInUrl(url);
}

}  // namespace tolm::test
