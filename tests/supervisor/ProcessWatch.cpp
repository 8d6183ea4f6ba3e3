#include "ProcessWatch.h"

#include <chrono>
#include <cstdlib>
#include <sstream>

#include "support/Wait.h"

namespace tolm::test {
namespace {

constexpr std::chrono::seconds kPatience{40};

}  // namespace

void Printed::Add(std::string_view piece) {
  const std::lock_guard lock(mutex_);
  text_ += piece;
}

std::string Printed::Text() const {
  const std::lock_guard lock(mutex_);
  return text_;
}

std::optional<ProcessId> Printed::NumberAfter(const std::string& word) const {
  std::istringstream text(Text());
  for (std::string line; std::getline(text, line) && !text.eof();) {
    if (line.starts_with(word + " ")) return std::atol(line.c_str() + word.size() + 1);
  }
  return std::nullopt;
}

ProcessId Printed::WaitForNumberAfter(const std::string& word) const {
  WaitFor([&] { return NumberAfter(word).has_value(); }, kPatience);
  return NumberAfter(word).value_or(-1);
}

bool Printed::WaitForText(const std::string& text) const {
  return WaitFor([&] { return Text().find(text) != std::string::npos; }, kPatience);
}

bool IsGone(ProcessId id) {
  return !IsAlive(id);
}

bool WaitUntilGone(ProcessId id) {
  return WaitFor([id] { return IsGone(id); }, kPatience);
}

}  // namespace tolm::test
