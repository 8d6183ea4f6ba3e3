#include "support/ChildProcess.h"

#include <algorithm>
#include <cstddef>
#include <ostream>
#include <string_view>
#include <utility>

#include "support/NativeChild.h"
#include "support/TestLogs.h"

namespace tolm::test {

std::ostream& operator<<(std::ostream& out, const Exit& exit) {
  return exit.killed ? out << "killed" : out << "status " << exit.status;
}

ChildProcess::ChildProcess(std::vector<std::string> command)
    : native_(NativeChild::Start(std::move(command))), watcher_([this] { Watch(); }) {}

ChildProcess::~ChildProcess() {
  Kill();
  CloseInput();
  watcher_.join();
  KeepForSearch("child-" + std::to_string(id()), printed_);
}

ProcessId ChildProcess::id() const {
  return native_->id();
}

// The id stays the child's until it is collected, which is done under the same lock.
template <typename Act>
void ChildProcess::WhileItRuns(Act&& act) {
  const std::lock_guard lock(mutex_);
  if (!exit_) act();
}

void ChildProcess::Kill() {
  WhileItRuns([this] { KillProcess(id()); });
}

void ChildProcess::AskToEnd() {
  WhileItRuns([this] { AskProcessToEnd(id()); });
}

void ChildProcess::Interrupt() {
  WhileItRuns([this] { native_->Interrupt(); });
}

void ChildProcess::Freeze() {
  WhileItRuns([this] { FreezeProcess(id()); });
}

void ChildProcess::Thaw() {
  WhileItRuns([this] { ThawProcess(id()); });
}

void ChildProcess::Type(const std::string& line) {
  // A child that has ended is noticed where its answer is missed.
  native_->Write(line + "\n");
}

void ChildProcess::CloseInput() {
  native_->CloseInput();
}

std::optional<std::string> ChildProcess::WaitForLine(const std::string& text,
                                                     std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  std::optional<std::string> line;
  changed_.wait_for(lock, limit, [&] {
    const std::size_t found = printed_.find(text);
    const std::size_t end = found == std::string::npos ? found : printed_.find('\n', found);
    if (end == std::string::npos) return exit_.has_value();
    const std::size_t before = printed_.rfind('\n', found);
    const std::size_t begin = before == std::string::npos ? 0 : before + 1;
    line = printed_.substr(begin, end - begin);
    return true;
  });
  return line;
}

bool ChildProcess::WaitForLines(const std::string& text, std::size_t count, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return Count(text) >= count || exit_; }) &&
         Count(text) >= count;
}

std::size_t ChildProcess::CountLines(const std::string& text) const {
  const std::lock_guard lock(mutex_);
  return Count(text);
}

std::size_t ChildProcess::Count(const std::string& text) const {
  std::size_t count = 0;
  for (std::size_t begin = 0, end = 0; (end = printed_.find('\n', begin)) != printed_.npos; begin = end + 1) {
    if (std::string_view(printed_).substr(begin, end - begin).find(text) != printed_.npos) ++count;
  }
  return count;
}

std::optional<Exit> ChildProcess::WaitExit(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, limit, [this] { return exit_.has_value(); });
  return exit_;
}

std::string ChildProcess::Output() const {
  const std::lock_guard lock(mutex_);
  return printed_;
}

void ChildProcess::Watch() {
  char buffer[4096];
  while (const std::size_t count = native_->Read(buffer, sizeof buffer)) {
    // Programs may end their lines as their system does.
    const char* const end = std::remove(buffer, buffer + count, '\r');
    const std::lock_guard lock(mutex_);
    printed_.append(static_cast<const char*>(buffer), end);
    changed_.notify_all();
  }
  native_->WaitEnd();
  const std::lock_guard lock(mutex_);
  exit_ = native_->Collect();
  changed_.notify_all();
}

}  // namespace tolm::test
