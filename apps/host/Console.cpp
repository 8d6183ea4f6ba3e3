#include "Console.h"

#include <csignal>
#include <cstdio>
#include <iostream>
#include <thread>

namespace host {

Console& Console::Open() {
  static Console& console = *new Console;
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([signals] {
    for (int signal = 0; ::sigwait(&signals, &signal) == 0;) console.Push("stop");
  }).detach();
  std::thread([] {
    for (std::string line; std::getline(std::cin, line);) console.Push(line);
    console.Push("stop");
  }).detach();
  return console;
}

void Console::Push(std::string line) {
  const std::lock_guard lock(mutex_);
  lines_.push_back(std::move(line));
  changed_.notify_all();
}

std::string Console::NextLine() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return !lines_.empty(); });
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
