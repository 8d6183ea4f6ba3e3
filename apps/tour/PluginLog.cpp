#include "PluginLog.h"

#include <fstream>
#include <iterator>
#include <string_view>
#include <thread>

namespace tour {

bool PluginLog::WaitFor(const std::string& text, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!Find(text)) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

bool PluginLog::Find(const std::string& text) {
  std::ifstream file(path_, std::ios::binary);
  const std::string all{std::istreambuf_iterator<char>(file), {}};
  for (std::size_t begin = read_, end = 0; (end = all.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    if (std::string_view(all).substr(begin, end - begin).ends_with(text)) {
      read_ = end + 1;
      return true;
    }
  }
  return false;
}

}  // namespace tour
