// Any output of a process, in pieces of any size: its lines are the same, bounded, and without what upsets a
// log.

#include <vector>

#include "OutputLines.h"
#include "support/Input.h"

namespace {

std::vector<std::string> Lines(std::string_view text, std::size_t piece) {
  std::vector<std::string> lines;
  tolm::agent::OutputLines output([&lines](const std::string& line) { lines.push_back(line); });
  for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) output.Add(text.substr(0, piece));
  output.Add({});
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t piece = 1 + input.Byte();
  const std::string text = fuzz::WithLongRuns(input.Rest());
  const auto lines = Lines(text, text.size() + 1);
  fuzz::Require(Lines(text, piece) == lines, "pieces do not matter");
  std::string all;
  for (const std::string& line : lines) {
    fuzz::Require(line.size() <= tolm::agent::OutputLines::kLongest, "a line is bounded");
    all += line;
  }
  std::string letters = text;
  std::erase_if(letters, [](char c) { return c == '\n' || c == '\r' || c == '\0'; });
  fuzz::Require(all == letters, "nothing is lost, and nothing upsets a log");
  return 0;
}
