#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TolmLPCServer/LpcClient.h"
#include "TolmPlugin/Plugin.h"
#include "UrlTable.h"
#include "os/Mutex.h"

namespace TolmPlugin {

/// One plugin's connection to the frame, its registration on it, and what it does with what arrives.
class Plugin::Core : public std::enable_shared_from_this<Core> {
 public:
  Core(std::string plugin_id, std::string what_it_is)
      : id(std::move(plugin_id)), description(std::move(what_it_is)) {}

  bool Start(const std::string& endpoint);
  bool WaitReady(int time_out_ms) const;
  void WaitEnd() const;
  void Stop() TOLM_EXCLUDES(mutex_);
  void RequestEnd() TOLM_EXCLUDES(mutex_);

  // Set up before Start, constant afterwards.
  std::string id;
  const std::string description;
  UrlTable urls;
  std::vector<std::string> header_names;
  std::function<void()> on_init;
  std::function<void()> on_uninit;
  std::function<void()> on_ready;
  std::function<void(const std::string&)> on_lost;
  std::function<void(int, const std::string&)> on_connect_failed;
  AnswerHandler on_answer;
  std::unique_ptr<lpcclient::CLpcClient> client;  // made by Start

 private:
  bool StartOrThrow(const std::string& endpoint);
  void Connected();
  void Disconnected(const std::string& reason);
  void Received(tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info);
  void Handle(tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info);
  void Serve(tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info) const;
  void MethodReceived(const tag_LPCCallBackData& data);
  void Uninit() TOLM_EXCLUDES(mutex_);
  void RegisterAgainAndAgain();
  bool RegisterAndConfirm(int connection);
  bool ReportInitFinish(std::chrono::milliseconds cost) const;
  bool StillLocked(int connection) const TOLM_REQUIRES(mutex_) {
    return !stopping_ && connection == connection_ && connected_;
  }

  std::string own_url_;  // set by Start

  mutable os::Mutex mutex_;
  mutable os::Condition changed_;
  bool stopping_ TOLM_GUARDED_BY(mutex_) = false;
  bool connected_ TOLM_GUARDED_BY(mutex_) = false;
  bool ready_ TOLM_GUARDED_BY(mutex_) = false;
  bool uniniting_ TOLM_GUARDED_BY(mutex_) = false;
  bool ended_ TOLM_GUARDED_BY(mutex_) = false;
  int connection_ TOLM_GUARDED_BY(mutex_) = 0;         // counts connections
  std::string awaited_nonce_ TOLM_GUARDED_BY(mutex_);  // what comes back when the registration is in force
  bool confirmed_ TOLM_GUARDED_BY(mutex_) = false;
  std::thread registrar_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace TolmPlugin
