// The command that ends processes by their executable: any path can be put into it and taken out again, and a
// text that is taken for the command is one.

#include "CommandLine.h"
#include "support/Input.h"

namespace {

std::string CommandFor(const std::string& path) {
  std::string doubled;
  for (const char c : path) doubled.append(c == '\\' ? 2 : 1, c);
  return "wmic process where ExecutablePath=\"" + doubled + "\" delete";
}

void Look(const std::string& command) {
  const auto path = os::ParseRemovalCommand(command);
  if (!path) return;
  fuzz::Require(!path->empty() && path->find('"') == std::string::npos, "a path has letters, and no quote");
  fuzz::Require(CommandFor(*path) == command, "what was taken for the command is one");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Look(text);
  Look("wmic process where ExecutablePath=\"" + text + "\" delete");
  const auto path = os::ParseRemovalCommand(CommandFor(text));
  const bool may_be_path = !text.empty() && text.find('"') == std::string::npos;
  fuzz::Require(may_be_path ? path == text : !path, "a path comes out as it went in");
  return 0;
}
