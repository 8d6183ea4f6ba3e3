#include "traffic/ProcessState.h"

#include <malloc.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace trust {
namespace {

std::string FolderOf(int process) {
  return "/proc/" + std::to_string(process);
}

double StatusLine(int process, const std::string& name) {
  std::ifstream status(FolderOf(process) + "/status");
  for (std::string word; status >> word;) {
    double value = 0;
    if (word == name && status >> value) return value;
  }
  throw std::runtime_error("the system does not say " + name + " of a process");
}

// The 14th and 15th words, counted behind the name, which may hold blanks.
double ProcessorSeconds(int process) {
  std::ifstream stat(FolderOf(process) + "/stat");
  const std::string text{std::istreambuf_iterator<char>(stat), {}};
  std::istringstream words(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) words >> skipped;
  double user = 0;
  double system = 0;
  if (!(words >> user >> system)) throw std::runtime_error("the system does not say a process's time");
  return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace

ProcessState StateOf(int process) {
  ProcessState state;
  state.resident_kib = StatusLine(process, "VmRSS:");
  state.threads = StatusLine(process, "Threads:");
  const std::filesystem::directory_iterator descriptors(FolderOf(process) + "/fd");
  state.descriptors = static_cast<double>(std::distance(begin(descriptors), end(descriptors)));
  state.processor_seconds = ProcessorSeconds(process);
  return state;
}

double AllocatedKiB() {
  const struct mallinfo2 heap = ::mallinfo2();
  return static_cast<double>(heap.uordblks + heap.hblkhd) / 1024;
}

bool IsHalted(int process) {
  for (const auto& thread : std::filesystem::directory_iterator(FolderOf(process) + "/task")) {
    std::ifstream stat(thread.path() / "stat");
    const std::string text{std::istreambuf_iterator<char>(stat), {}};
    if (text.find(") T ") == std::string::npos) return false;
  }
  return true;
}

double PeakOf(int process) {
  return StatusLine(process, "VmHWM:");
}

}  // namespace trust
