#pragma once

namespace Tolm::Base {

/// Derive from it to forbid copying and moving.
class CNoncopyable {
 public:
  CNoncopyable(const CNoncopyable&) = delete;
  CNoncopyable& operator=(const CNoncopyable&) = delete;

 protected:
  CNoncopyable() = default;
  ~CNoncopyable() = default;
};

}  // namespace Tolm::Base
