#include "traffic/PluginProcess.h"

#include <csignal>
#include <sstream>
#include <utility>

#include "traffic/ProcessState.h"
#include "traffic/Time.h"

namespace trust {

PluginProcess::PluginProcess(std::string id) : id_(std::move(id)), child_({"--role", "plugin", id_}) {
  process_ = static_cast<int>(Do("process").at(0));
}

void PluginProcess::Start(const std::string& endpoint) {
  Do("start " + endpoint);
}

void PluginProcess::Begin(const std::string& order) {
  child_.channel().Say(order);
}

std::vector<double> PluginProcess::Finish(int time_out_seconds) {
  child_.AwaitWord(time_out_seconds);
  std::istringstream words(child_.channel().TakeText());
  std::vector<double> numbers;
  for (double number = 0; words >> number;) numbers.push_back(number);
  return numbers;
}

std::vector<double> PluginProcess::Do(const std::string& order, int time_out_seconds) {
  const std::lock_guard turn(turn_);
  Begin(order);
  return Finish(time_out_seconds);
}

void PluginProcess::Halt() const {
  ::kill(process_, SIGSTOP);
  // Each of its threads runs until it sees that.
  Await(30, [this] { return IsHalted(process_); });
}

void PluginProcess::GoOn() const {
  ::kill(process_, SIGCONT);
}

}  // namespace trust
