#include "Stage.h"

#include <charconv>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "Process.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr char kConfiguration[] = "LpcFrame.xml";

// Only this run writes into the run's folder.
fs::path MakeFolder() {
  for (int number = 0;; ++number) {
    const fs::path folder = fs::path(RuntimeFolder::Path()) / ("host-" + std::to_string(number));
    if (fs::create_directory(folder)) return fs::canonical(folder);
  }
}

}  // namespace

Stage::Stage() : folder_(MakeFolder()) {
  for (const fs::path& file : FilesToRunElsewhere()) fs::copy_file(file, folder_ / file.filename());
}

Stage::~Stage() {
  EndProcessesBelow(folder_);  // usually all have ended by now
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

void Stage::WritePort(const char* element, std::uint16_t port) const {
  const std::string name(element);
  std::ofstream file(folder_ / kConfiguration);
  file << "<Config>\n  <" << name << '>' << port << "</" << name << ">\n</Config>\n";
  if (!file.flush()) throw std::runtime_error("cannot write into " + folder_.string());
}

void Stage::RemovePort() const {
  fs::remove(folder_ / kConfiguration);
}

std::uint16_t Stage::Port() const {
  std::ifstream file(folder_ / kConfiguration);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const std::size_t at = text.find("Port>");
  std::uint16_t port = 0;
  const char* const end = text.data() + text.size();
  if (at == text.npos || std::from_chars(text.data() + at + 5, end, port).ec != std::errc()) {
    throw std::runtime_error("there is no port in the configuration");
  }
  return port;
}

}  // namespace bench
