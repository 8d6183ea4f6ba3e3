#pragma once

#include <string>

namespace bench::sdbus {

/// A Unix socket that listens.
class Listener {
 public:
  explicit Listener(const std::string& path);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int descriptor() const { return descriptor_; }
  /// Waits for the next client.
  int Accept() const;

 private:
  int descriptor_ = -1;
};

}  // namespace bench::sdbus
