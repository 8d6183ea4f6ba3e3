#include "Console.h"

#include <cstdio>
#include <iostream>
#include <thread>

#include "os/StopSignal.h"

namespace host {

Console& Console::Open() {
  static Console& console = *new Console;
  os::OnStopSignal([] { console.Push("stop"); });
  // With a buffer of its own: a thread that waits for a line in the C library's stream holds that stream,
  // and the end of the process would wait for it where every stream is flushed then.
  std::ios::sync_with_stdio(false);
  std::thread([] {
    for (std::string line; std::getline(std::cin, line);) console.Push(line);
    console.Push("stop");
  }).detach();
  return console;
}

void Console::Push(std::string line) {
  const os::MutexLock lock(mutex_);
  lines_.push_back(std::move(line));
  changed_.notify_all();
}

std::string Console::NextLine() {
  os::UniqueLock lock(mutex_);
  changed_.wait(lock, [this]() TOLM_REQUIRES(mutex_) { return !lines_.empty(); });
  std::string line = std::move(lines_.front());
  lines_.pop_front();
  return line;
}

void Console::Print(const std::string& line) {
  // One write, so that lines of several threads do not mix.
  const std::string whole = line + "\n";
  std::fwrite(whole.data(), 1, whole.size(), stdout);
  std::fflush(stdout);
}

}  // namespace host
