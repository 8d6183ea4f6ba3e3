#include "os/ChildProcess.h"

namespace os {

std::string Describe(const ProcessEnd& end) {
  return end.signal != 0 ? "killed by signal " + std::to_string(end.signal)
                         : "exit status " + std::to_string(end.exit_status);
}

}  // namespace os
