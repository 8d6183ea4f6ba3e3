#pragma once

#include <memory>

namespace Tolm::Net {

/// Puts back at its end what the process does about a broken pipe; making a context of libwebsockets sets
/// it to "ignore" without being asked. One at a time: others wait.
class PipeSignalKept {
 public:
  PipeSignalKept();
  ~PipeSignalKept();
  PipeSignalKept(const PipeSignalKept&) = delete;
  PipeSignalKept& operator=(const PipeSignalKept&) = delete;

 private:
  struct Action;
  const std::unique_ptr<Action> before_;
};

}  // namespace Tolm::Net
