#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "soak/Tally.h"
#include "traffic/Host.h"
#include "traffic/PluginProcess.h"
#include "traffic/Time.h"

namespace trust {

/// Threads that do something again and again, each with pauses of its own, until this object ends.
class Repeating {
 public:
  ~Repeating() { End(); }

  /// `what` must not throw.
  void Add(std::chrono::milliseconds pause, std::function<void()> what) {
    threads_.emplace_back([this, pause, what = std::move(what)] {
      while (!ends_) {
        what();
        Spend(pause);
      }
    });
  }
  void End() {
    ends_ = true;
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

 private:
  std::atomic<bool> ends_{false};
  std::vector<std::thread> threads_;
};

/// What was sent without waiting, and so has to be counted when all is over.
struct Sent {
  std::atomic<std::uint64_t> requests{0};       ///< of the host, whose answers come later
  std::atomic<std::uint64_t> notifications{0};  ///< to the plugin beta
  std::atomic<std::uint64_t> to_host{0};        ///< notifications to the host
  std::atomic<std::uint64_t> pushes{0};
};

/// Lets the host make what it makes once and keeps: each thread of its pools, and room for large bodies
/// wherever its allocator keeps some. Throws when it cannot.
void WarmUp(Host& host, Sent& sent);

/// What the host does, with the plugins `alpha` and `beta`.
void AddHostTraffic(Repeating& repeating, const Host& host, Sent& sent, Tally& tally);
/// What a plugin does; `other` is the plugin that it calls through the frame.
void AddPluginTraffic(Repeating& repeating, PluginProcess& plugin, const std::string& other, Sent& sent,
                      Tally& tally);
/// Plugins that come and go: the process `coming` connects and disconnects, and others are killed.
void AddChurn(Repeating& repeating, const Host& host, Tally& tally);
/// A guard that asks, and that comes again now and then.
void AddGuardTraffic(Repeating& repeating, std::uint16_t port, Tally& tally);

}  // namespace trust
