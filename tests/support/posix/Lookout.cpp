#include "support/posix/Lookout.h"

#include <fcntl.h>

#include <filesystem>
#include <fstream>
#include <system_error>

namespace tolm::test {
namespace {

namespace fs = std::filesystem;

std::map<int, std::string> Inheritable() {
  std::map<int, std::string> found;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc/self/fdinfo", gone)) {
    const std::string number = entry.path().filename().string();
    std::ifstream file(entry.path());
    std::string word;
    while (file >> word && word != "flags:") {
    }
    if (!(file >> word) || (std::stoul(word, nullptr, 8) & O_CLOEXEC) != 0) continue;
    std::error_code closed;
    const std::string what = fs::read_symlink("/proc/self/fd/" + number, closed).string();
    // A sanitizer looks at objects through pipes of its own, each for a moment and without the mark.
    if (TEST_SANITIZED && what.starts_with("pipe:")) continue;
    // The file that is read here is not marked either.
    if (!closed && what.find("/fdinfo") == std::string::npos) found[std::stoi(number)] = what;
  }
  return found;
}

}  // namespace

Lookout::Lookout() : before_(Inheritable()), thread_([this] { Look(); }) {}

std::set<std::string> Lookout::Finish() {
  done_ = true;
  if (thread_.joinable()) thread_.join();
  return found_;
}

void Lookout::Look() {
  do {
    for (const auto& [number, what] : Inheritable()) {
      const auto known = before_.find(number);
      if (known == before_.end() || known->second != what) found_.insert(what);
    }
    ++looks_;
  } while (!done_);
}

}  // namespace tolm::test
