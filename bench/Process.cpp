#include "Process.h"

#include "os/ExecutablePath.h"

namespace bench {

std::filesystem::path ThisProgram() {
  return os::ExecutablePath();
}

std::vector<double> Child::Do(Task task, std::size_t size, std::size_t count) {
  return Do({task, static_cast<std::uint32_t>(size), count});
}

std::vector<double> Child::Do(const Order& order) {
  channel_->Send(order);
  return channel_->TakeAnswer();
}

}  // namespace bench
