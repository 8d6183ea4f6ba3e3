// Any output of a plugin, in pieces of any size, into a log of any bound: the files are the same, bounded,
// and hold nothing that upsets who reads them.

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "OutputFile.h"
#include "support/Folder.h"
#include "support/Input.h"

namespace {

using fuzz::Require;

constexpr int kFiles = 3;

std::chrono::system_clock::time_point Never() {
  return {};
}

std::string Whole(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// What the files hold, the oldest one first.
std::string Written(std::string_view text, std::size_t piece, std::size_t max_bytes) {
  const std::filesystem::path path = fuzz::OwnFolder().path() / "plugin_output.log";
  for (const char* const end : {"", ".1", ".2"}) std::filesystem::remove(path.string() + end);
  {
    guard::OutputFile output(path, {}, &Never);
    output.SetRules({max_bytes, kFiles});
    for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) {
      output.Write(text.substr(0, piece));
    }
    output.Write({});
    for (const std::string& line : output.LastLines()) Require(line.size() <= 512, "a last line is short");
    Require(output.LastLines().size() <= 20, "the last lines are few");
    output.ForgetLastLines();
    Require(output.LastLines().empty(), "what is forgotten is gone");
  }
  std::string all;
  for (const char* const end : {".2", ".1", ""}) {
    const std::string one = Whole(path.string() + end);
    Require(one.size() <= max_bytes, "a file is bounded");
    all += one;
  }
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t max_bytes = 1024 + 16 * static_cast<std::size_t>(input.Byte());
  const std::size_t piece = 1 + input.Byte();
  const std::string text = fuzz::WithLongRuns(input.Rest());
  const std::string all = Written(text, text.size() + 1, max_bytes);
  Require(Written(text, piece, max_bytes) == all, "pieces do not matter");
  Require(std::all_of(all.begin(), all.end(),
                      [](char c) {
                        const auto code = static_cast<unsigned char>(c);
                        return c == '\n' || c == '\t' || (code >= 0x20 && code != 0x7f);
                      }),
          "nothing upsets a terminal");
  return 0;
}
