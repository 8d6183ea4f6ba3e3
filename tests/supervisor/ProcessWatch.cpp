#include "ProcessWatch.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "support/Wait.h"

namespace tolm::test {
namespace {

constexpr std::chrono::seconds kPatience{40};

struct State {
  char letter;
  pid_t parent;
};

std::optional<State> StateOf(pid_t id) {
  std::ifstream file("/proc/" + std::to_string(id) + "/stat");
  const std::string stat(std::istreambuf_iterator<char>(file), {});
  const std::size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) return std::nullopt;
  State state{};
  std::istringstream fields(stat.substr(name_end + 1));
  fields >> state.letter >> state.parent;
  return state;
}

}  // namespace

void Printed::Add(std::string_view piece) {
  const std::lock_guard lock(mutex_);
  text_ += piece;
}

std::string Printed::Text() const {
  const std::lock_guard lock(mutex_);
  return text_;
}

std::optional<pid_t> Printed::NumberAfter(const std::string& word) const {
  std::istringstream text(Text());
  for (std::string line; std::getline(text, line) && !text.eof();) {
    if (line.starts_with(word + " ")) return std::atoi(line.c_str() + word.size() + 1);
  }
  return std::nullopt;
}

pid_t Printed::WaitForNumberAfter(const std::string& word) const {
  WaitFor([&] { return NumberAfter(word).has_value(); }, kPatience);
  return NumberAfter(word).value_or(-1);
}

bool Printed::WaitForText(const std::string& text) const {
  return WaitFor([&] { return Text().find(text) != std::string::npos; }, kPatience);
}

bool IsGone(pid_t id) {
  const auto state = StateOf(id);
  return !state || state->letter == 'Z' || state->letter == 'X';
}

bool WaitUntilGone(pid_t id) {
  return WaitFor([id] { return IsGone(id); }, kPatience);
}

std::size_t CountZombiesOf(pid_t parent) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const auto state = StateOf(std::atoi(entry.path().filename().c_str()));
    if (state && state->letter == 'Z' && state->parent == parent) ++count;
  }
  return count;
}

std::size_t CountOpenDescriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(open), end(open)));
}

}  // namespace tolm::test
