#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "os/LocalStream.h"

namespace instructions {

/// The transport of a process with one plugin, which is nothing but a script: it connects when the frame
/// listens, says HELLO and what it was told to say, answers each request at once, on the thread that sends
/// it, and sends requests of its own when it is asked to.
///
///   frame's thread                              script
///   Listen, Accept                              is connected
///   Read                                        the bytes that are next
///   Write of a request                          its answer is what is read next
///   Write of a reply                            counted
///
/// One thread of the frame's loop gets every readiness, so that each message takes the same way.
class ScriptedPlugin final : public os::LocalTransport {
 public:
  static ScriptedPlugin& Get();

  /// What it says of its own accord, in whole frames. What it can say before it is welcome are control
  /// frames only.
  void Say(const std::string& frames);
  /// Sends so many requests, one when the reply to the one before has come, and waits until the frame has
  /// done everything about the last one.
  void SendRequests(std::size_t count);
  /// Until the frame has read everything, nothing is due at any time, and all of its threads wait.
  void WaitUntilQuiet();
  /// How many requests it has answered.
  std::size_t answered() const;

  os::EndpointResult<os::Listener> Listen(const std::string& name) override;
  os::EndpointResult<os::Stream> Connect(const std::string& name) override;
  std::unique_ptr<os::Poller> CreatePoller() override;

 private:
  class Endpoint;
  class End;
  class Threads;

  ScriptedPlugin() = default;
  void WaitUntilQuiet(std::unique_lock<std::mutex>& lock);
  std::optional<os::Readiness> WaitForWork(int timeout_ms);
  bool HasToReadLocked() const { return read_ < inbound_.size() || requests_left_ > 0; }
  std::size_t ReadLocked(char* to, std::size_t size);
  void WrittenLocked(const os::ConstBuffer* buffers, std::size_t count);
  bool IsReadyLocked(std::intptr_t source) const;
  std::optional<os::Readiness> TakeReadinessLocked();

  mutable std::mutex mutex_;
  // All below is guarded by mutex_.
  std::condition_variable work_;    // for the frame's threads
  std::condition_variable rested_;  // for who waits for quiet
  bool connected_ = false;
  std::string inbound_;  // for the frame
  std::size_t read_ = 0;
  std::size_t requests_left_ = 0;
  std::size_t replies_ = 0;
  std::size_t answered_ = 0;
  struct Armed {
    std::uint64_t token = 0;
    bool read = false;
  };
  std::map<std::intptr_t, Armed> armed_;
  unsigned wakes_ = 0;
  std::thread::id reader_;   // the one that gets readiness
  std::size_t resting_ = 0;  // threads that wait for as long as it takes
};

}  // namespace instructions
