#pragma once

// A transport around another one that watches what is asked of it and tells untruths where a test wants
// them.

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "os/LocalStream.h"

namespace tolm::test {

struct TransportTruth {
  std::atomic<bool> accepted_same_user{true};   ///< what accepted streams say of their peers
  std::atomic<bool> connected_same_user{true};  ///< what made connections say of theirs
  std::atomic<int> accept_shortages{0};         ///< so many of the next accepts fail, and may be tried again
  std::atomic<bool> accept_dead{false};         ///< the next accept fails for good
  std::atomic<bool> all_accepted{false};        ///< the last accept found nobody who waited
  std::atomic<bool> strangers_come{false};  ///< from the next one on every accept gives one of another user
  std::atomic<int> operations_until_failure{0};  ///< that one read or write fails; 0: none does
  std::atomic<std::uint64_t> waits{0};           ///< returns of Poller::Wait
  std::atomic<int> connects{0};                  ///< calls of Connect
  std::atomic<std::uint64_t> strangers{0};       ///< so many came
};

class WrappedStream final : public os::Stream {
 public:
  WrappedStream(std::unique_ptr<os::Stream> inner, TransportTruth& truth, bool same_user)
      : os::Stream(inner->native()), inner_(std::move(inner)), truth_(truth), same_user_(same_user) {}
  os::IoResult Read(const os::MutableBuffer* buffers, std::size_t count) override {
    if (FailsNow()) return {os::IoStatus::kFailed, 0, 5};
    return inner_->Read(buffers, count);
  }
  os::IoResult Write(const os::ConstBuffer* buffers, std::size_t count) override {
    if (FailsNow()) return {os::IoStatus::kFailed, 0, 5};
    return inner_->Write(buffers, count);
  }
  os::StreamState Wait(bool for_room, int timeout_ms) override { return inner_->Wait(for_room, timeout_ms); }
  bool CanWaitForRoom() const override { return inner_->CanWaitForRoom(); }
  void SetBulk(bool bulk) override { inner_->SetBulk(bulk); }
  void Shutdown() noexcept override { inner_->Shutdown(); }
  os::PeerIdentity Peer() const override { return {same_user_, inner_->Peer().process_id}; }

 private:
  bool FailsNow() {
    int left = truth_.operations_until_failure;
    while (left > 0 && !truth_.operations_until_failure.compare_exchange_weak(left, left - 1)) {
    }
    return left == 1;
  }

  const std::unique_ptr<os::Stream> inner_;
  TransportTruth& truth_;
  const bool same_user_;
};

class Stranger final : public os::Stream {
 public:
  Stranger() : os::Stream(-1) {}
  os::IoResult Read(const os::MutableBuffer* /*buffers*/, std::size_t /*count*/) override {
    return {os::IoStatus::kFailed, 0, 5};
  }
  os::IoResult Write(const os::ConstBuffer* /*buffers*/, std::size_t /*count*/) override {
    return {os::IoStatus::kFailed, 0, 5};
  }
  os::StreamState Wait(bool /*for_room*/, int /*timeout_ms*/) override { return {true, true}; }
  bool CanWaitForRoom() const override { return false; }
  void SetBulk(bool /*bulk*/) override {}
  void Shutdown() noexcept override {}
  os::PeerIdentity Peer() const override { return {false, 1}; }
};

class WrappedListener final : public os::Listener {
 public:
  WrappedListener(std::unique_ptr<os::Listener> inner, TransportTruth& truth)
      : os::Listener(inner->native()), inner_(std::move(inner)), truth_(truth) {}
  Accepted Accept() override {
    if (truth_.accept_dead) return {nullptr, os::IoStatus::kFailed, false, 77};
    if (truth_.accept_shortages > 0) {
      --truth_.accept_shortages;
      return {nullptr, os::IoStatus::kFailed, true, 24};
    }
    // Whoever waits does so on, and the poller says it each time.
    if (truth_.strangers_come) {
      ++truth_.strangers;
      return {std::make_unique<Stranger>(), os::IoStatus::kDone, false, 0};
    }
    Accepted accepted = inner_->Accept();
    truth_.all_accepted = !accepted.stream;
    if (accepted.stream) {
      accepted.stream =
          std::make_unique<WrappedStream>(std::move(accepted.stream), truth_, truth_.accepted_same_user);
    }
    return accepted;
  }

 private:
  const std::unique_ptr<os::Listener> inner_;
  TransportTruth& truth_;
};

class WrappedPoller final : public os::Poller {
 public:
  WrappedPoller(std::unique_ptr<os::Poller> inner, TransportTruth& truth)
      : inner_(std::move(inner)), truth_(truth) {}
  bool Arm(os::Pollable& source, std::uint64_t token, unsigned interest) override {
    return inner_->Arm(source, token, interest);
  }
  void Remove(os::Pollable& source) override { inner_->Remove(source); }
  std::optional<os::Readiness> Wait(int timeout_ms) override {
    const auto ready = inner_->Wait(timeout_ms);
    ++truth_.waits;
    return ready;
  }
  void Wake(unsigned threads) override { inner_->Wake(threads); }

 private:
  const std::unique_ptr<os::Poller> inner_;
  TransportTruth& truth_;
};

class WrappedTransport final : public os::LocalTransport {
 public:
  explicit WrappedTransport(os::LocalTransport& inner) : inner_(inner) {}

  os::EndpointResult<os::Listener> Listen(const std::string& name) override {
    auto made = inner_.Listen(name);
    if (made.value) made.value = std::make_unique<WrappedListener>(std::move(made.value), truth);
    return made;
  }
  os::EndpointResult<os::Stream> Connect(const std::string& name) override {
    ++truth.connects;
    auto made = inner_.Connect(name);
    if (made.value)
      made.value = std::make_unique<WrappedStream>(std::move(made.value), truth, truth.connected_same_user);
    return made;
  }
  std::unique_ptr<os::Poller> CreatePoller() override {
    return std::make_unique<WrappedPoller>(inner_.CreatePoller(), truth);
  }

  TransportTruth truth;

 private:
  os::LocalTransport& inner_;
};

}  // namespace tolm::test
