#include "CommandLine.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "os/HiddenProcess.h"

namespace os {
namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kRemovalHead = "wmic process where ExecutablePath=\"";
constexpr std::string_view kRemovalTail = "\" delete";

/// Takes the token that `rest` begins with, and the blanks behind it, off `rest`.
CommandToken TakeToken(std::string_view& rest, bool backslashes_escape) {
  CommandToken token;
  token.quoted = rest.front() == '"';
  bool in_quotes = false;
  while (!rest.empty() && (in_quotes || kBlanks.find(rest.front()) == std::string_view::npos)) {
    std::size_t backslashes = 0;
    while (backslashes < rest.size() && rest[backslashes] == '\\') ++backslashes;
    const bool before_quote = backslashes < rest.size() && rest[backslashes] == '"';
    const bool escape = backslashes_escape && before_quote;
    token.text.append(escape ? backslashes / 2 : backslashes, '\\');
    rest.remove_prefix(backslashes);
    if (before_quote) {
      if (escape && backslashes % 2 != 0) {
        token.text += '"';
      } else if (in_quotes && rest.substr(1, 1) == "\"") {
        token.text += '"';
        rest.remove_prefix(1);
      } else {
        in_quotes = !in_quotes;
      }
      rest.remove_prefix(1);
    } else if (backslashes == 0) {
      token.text += rest.front();
      rest.remove_prefix(1);
    }
  }
  rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));
  return token;
}

bool NeedsQuotes(std::string_view argument) {
  return argument.empty() || argument.find_first_of(" \t\"") != std::string_view::npos;
}

/// For the first token: backslashes mean themselves, and a quote can only be doubled.
std::string QuoteProgram(std::string_view program) {
  std::string quoted = "\"";
  for (const char c : program) quoted.append(c == '"' ? 2 : 1, c);
  return quoted + '"';
}

std::string QuoteArgument(std::string_view argument) {
  std::string quoted = "\"";
  std::size_t backslashes = 0;
  for (const char c : argument) {
    // Those that stand before a quote are doubled, and one more makes the quote literal.
    if (c == '"') quoted.append(backslashes + 1, '\\');
    backslashes = c == '\\' ? backslashes + 1 : 0;
    quoted += c;
  }
  return quoted.append(backslashes, '\\') + '"';
}

}  // namespace

std::vector<CommandToken> SplitCommandTokens(const std::string& command_line) {
  std::vector<CommandToken> tokens;
  std::string_view rest = command_line;
  rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));
  while (!rest.empty()) tokens.push_back(TakeToken(rest, !tokens.empty()));
  return tokens;
}

std::vector<std::string> SplitCommandLine(const std::string& command_line) {
  std::vector<std::string> texts;
  for (CommandToken& token : SplitCommandTokens(command_line)) texts.push_back(std::move(token.text));
  return texts;
}

std::string JoinCommandLine(const std::vector<std::string>& arguments) {
  std::string command_line;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (i > 0) command_line += ' ';
    command_line += !NeedsQuotes(argument) ? argument
                    : i == 0               ? QuoteProgram(argument)
                                           : QuoteArgument(argument);
  }
  return command_line;
}

std::optional<std::string> ParseRemovalCommand(const std::string& command) {
  std::string_view doubled = command;
  if (!doubled.starts_with(kRemovalHead)) return std::nullopt;
  doubled.remove_prefix(kRemovalHead.size());
  if (!doubled.ends_with(kRemovalTail)) return std::nullopt;
  doubled.remove_suffix(kRemovalTail.size());
  std::string path;
  for (std::size_t i = 0; i < doubled.size(); ++i) {
    if (doubled[i] == '"') return std::nullopt;
    if (doubled[i] == '\\' && doubled.substr(++i, 1) != "\\") return std::nullopt;
    path += doubled[i];
  }
  if (path.empty()) return std::nullopt;
  return path;
}

}  // namespace os
