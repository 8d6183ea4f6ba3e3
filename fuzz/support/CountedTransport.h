#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "os/LocalStream.h"

namespace fuzz {

/// How many streams of one kind were made and how many of them are gone.
class StreamCount {
 public:
  void Made() { Change(made_); }
  void Gone() { Change(gone_); }
  std::uint64_t gone() const {
    const std::lock_guard lock(mutex_);
    return gone_;
  }
  /// Waits until at least so many are gone; false when that takes too long for a connection that has ended.
  bool WaitGone(std::uint64_t count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kLong, [&] { return gone_ >= count; });
  }
  /// Waits until only so many are left.
  bool WaitLeft(std::uint64_t count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kLong, [&] { return made_ - gone_ <= count; });
  }

 private:
  static constexpr std::chrono::seconds kLong{15};

  void Change(std::uint64_t& number) {
    const std::lock_guard lock(mutex_);
    ++number;
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::uint64_t made_ = 0;  // guarded by mutex_
  std::uint64_t gone_ = 0;  // as well
};

/// A stream that is counted while it lives.
class CountedStream final : public os::Stream {
 public:
  CountedStream(std::unique_ptr<os::Stream> inner, StreamCount& count)
      : os::Stream(inner->native()), inner_(std::move(inner)), count_(count) {
    count_.Made();
  }
  ~CountedStream() override {
    inner_.reset();
    count_.Gone();
  }
  os::IoResult Read(const os::MutableBuffer* buffers, std::size_t count) override {
    return inner_->Read(buffers, count);
  }
  os::IoResult Write(const os::ConstBuffer* buffers, std::size_t count) override {
    return inner_->Write(buffers, count);
  }
  os::StreamState Wait(bool for_room, int timeout_ms) override { return inner_->Wait(for_room, timeout_ms); }
  bool CanWaitForRoom() const override { return inner_->CanWaitForRoom(); }
  void SetBulk(bool bulk) override { inner_->SetBulk(bulk); }
  void Shutdown() noexcept override { inner_->Shutdown(); }
  os::PeerIdentity Peer() const override { return inner_->Peer(); }

 private:
  std::unique_ptr<os::Stream> inner_;
  StreamCount& count_;
};

/// Streams within this process; those that were accepted or connected through it are counted.
class CountedTransport final : public os::LocalTransport {
 public:
  /// `inner` and `count` must outlive it.
  CountedTransport(os::LocalTransport& inner, StreamCount& count) : inner_(inner), count_(count) {}

  os::EndpointResult<os::Listener> Listen(const std::string& name) override {
    auto made = inner_.Listen(name);
    if (made.value) made.value = std::make_unique<CountedListener>(std::move(made.value), count_);
    return made;
  }
  os::EndpointResult<os::Stream> Connect(const std::string& name) override {
    auto made = inner_.Connect(name);
    if (made.value) made.value = std::make_unique<CountedStream>(std::move(made.value), count_);
    return made;
  }
  std::unique_ptr<os::Poller> CreatePoller() override { return inner_.CreatePoller(); }

 private:
  class CountedListener final : public os::Listener {
   public:
    CountedListener(std::unique_ptr<os::Listener> inner, StreamCount& count)
        : os::Listener(inner->native()), inner_(std::move(inner)), count_(count) {}
    Accepted Accept() override {
      Accepted accepted = inner_->Accept();
      if (accepted.stream)
        accepted.stream = std::make_unique<CountedStream>(std::move(accepted.stream), count_);
      return accepted;
    }

   private:
    const std::unique_ptr<os::Listener> inner_;
    StreamCount& count_;
  };

  os::LocalTransport& inner_;
  StreamCount& count_;
};

}  // namespace fuzz
