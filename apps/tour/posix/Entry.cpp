#include "Entry.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "os/StopSignal.h"

namespace tour {

namespace fs = std::filesystem;

int Enter(const fs::path& /*folder*/, const fs::path& program, const std::vector<std::string>& arguments) {
  std::vector<std::string> words{program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  ::execv(program.c_str(), argv.data());
  throw std::runtime_error("cannot start " + program.string() + ": " + std::strerror(errno));
}

void OnInterrupt(const fs::path& /*folder*/, std::function<void()> asked) {
  os::OnStopSignal(std::move(asked));
}

}  // namespace tour
