#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TolmLPCServer/LpcClient.h"
#include "TolmPlugin/Plugin.h"
#include "UrlTable.h"

namespace TolmPlugin {

/// One plugin's connection to the frame, its registration on it, and what it does with what arrives.
class Plugin::Core : public std::enable_shared_from_this<Core> {
 public:
  Core(std::string plugin_id, std::string what_it_is)
      : id(std::move(plugin_id)), description(std::move(what_it_is)) {}

  bool Start(const std::string& endpoint);
  bool WaitReady(int time_out_ms) const;
  void WaitEnd() const;
  void Stop();
  void RequestEnd();

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
  void Connected();
  void Disconnected(const std::string& reason);
  void Received(tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info);
  void Serve(tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info);
  void MethodReceived(const tag_LPCCallBackData& data);
  void Uninit();
  void RegisterAgainAndAgain();
  bool RegisterAndConfirm(int connection);
  bool StillLocked(int connection) const { return !stopping_ && connection == connection_ && connected_; }

  std::thread registrar_;
  std::string own_url_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  // All below is guarded by mutex_.
  bool stopping_ = false;
  bool connected_ = false;
  bool ready_ = false;
  bool uniniting_ = false;
  bool ended_ = false;
  int connection_ = 0;         // counts connections
  std::string awaited_nonce_;  // what comes back when the registration is in force
  bool confirmed_ = false;
};

}  // namespace TolmPlugin
