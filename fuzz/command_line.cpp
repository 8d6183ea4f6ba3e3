// Any command line: whatever is split can be joined and split again, and quotes are told as they stand.

#include "CommandLine.h"
#include "os/HiddenProcess.h"
#include "support/Input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto arguments = os::SplitCommandLine(text);
  const auto tokens = os::SplitCommandTokens(text);
  fuzz::Require(tokens.size() == arguments.size(), "tokens are arguments");
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    fuzz::Require(tokens[i].text == arguments[i], "tokens are arguments");
    bytes += tokens[i].text.size();
  }
  fuzz::Require(bytes + (tokens.empty() ? 0 : tokens.size() - 1) <= size, "nothing is added");
  fuzz::Require(os::SplitCommandLine(os::JoinCommandLine(arguments)) == arguments,
                "what is joined is split again");

  // Any texts, not only those that some line has.
  fuzz::Input input(data, size);
  std::vector<std::string> texts;
  while (!input.empty()) texts.push_back(input.Line());
  fuzz::Require(os::SplitCommandLine(os::JoinCommandLine(texts)) == texts,
                "any texts can be joined and split");
  return 0;
}
