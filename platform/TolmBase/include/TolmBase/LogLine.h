#pragma once

// The shape of every log line: "[function]text[file(line)]".

#include <cstddef>
#include <string_view>

#include "TolmBase/Log.h"

namespace Tolm::Base::details {

/// Where the declarator of a compiler's description of a function ends its name, and where its last
/// component begins that may hold blanks and brackets of its own ("operator()", "operator bool").
struct NameEnd {
  std::size_t last_component;
  std::size_t end;
};

/// Whether the keyword "operator", and no longer identifier, stands at `at`.
constexpr bool IsOperatorAt(std::string_view pretty, std::size_t at) {
  constexpr std::string_view kWord = "operator";
  constexpr auto is_identifier = [](char c) {
    return c == '_' || (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
  };
  if (pretty.substr(at, kWord.size()) != kWord) return false;
  if (at > 0 && is_identifier(pretty[at - 1])) return false;
  const std::size_t behind = at + kWord.size();
  return behind < pretty.size() && !is_identifier(pretty[behind]);
}

constexpr NameEnd FindNameEnd(std::string_view pretty) {
  std::size_t operator_at = std::string_view::npos;
  int depth = 0;
  for (std::size_t i = 0; i < pretty.size(); ++i) {
    const std::string_view rest = pretty.substr(i);
    if (depth == 0 && IsOperatorAt(pretty, i)) {
      operator_at = i;
      const std::size_t symbol = i + 8;
      if (pretty.substr(symbol, 2) == "()") return {i, symbol + 2};
      // The symbol itself may be made of "<" and ">"; only a conversion's type needs to be read.
      if (pretty.substr(symbol, 1) != " ") return {i, pretty.find('(', symbol)};
    }
    if (pretty[i] == '<') ++depth;
    if (pretty[i] == '>') --depth;
    if (depth != 0) continue;
    // Brackets that are no parameter list: an unnamed scope, the declarator of a returned pointer to a
    // function or reference to an array, and an expression in the place of a return type.
    if (rest.starts_with("(anonymous ") || rest.starts_with("(*") || rest.starts_with("(&")) continue;
    if (rest.starts_with("decltype")) {
      int brackets = 0;
      for (; i < pretty.size(); ++i) {
        if (pretty[i] == '(') ++brackets;
        if (pretty[i] == ')' && --brackets == 0) break;
      }
      continue;
    }
    if (pretty[i] == '(' || rest.starts_with(" [")) return {operator_at < i ? operator_at : i, i};
  }
  return {pretty.size(), pretty.size()};
}

/// The qualified function name within a compiler's description of a function: in
/// "void A::B::C(const X&) [with T = int]" it is "A::B::C". A lambda has the name of the function that
/// holds it. Evaluated at compile time; knows the descriptions of GCC and clang.
constexpr std::string_view QualifiedFunctionName(std::string_view pretty) {
  const NameEnd name = FindNameEnd(pretty);
  // The name starts behind the last blank outside of template arguments and unnamed scopes.
  std::size_t begin = name.last_component;
  int depth = 0;
  while (begin > 0) {
    const char c = pretty[begin - 1];
    if (c == '>' || c == ')' || c == '}') ++depth;
    if (c == '<' || c == '(' || c == '{') --depth;
    if (depth == 0 && (c == ' ' || c == '*' || c == '&')) break;
    --begin;
  }
  return pretty.substr(begin, name.end - begin);
}

/// A compile-time text that ends with a NUL, as printf wants it.
template <std::size_t kSize>
struct FixedText {
  char text[kSize + 1] = {};
  constexpr explicit FixedText(std::string_view source) {
    for (std::size_t i = 0; i < kSize; ++i) text[i] = source[i];
  }
};

}  // namespace Tolm::Base::details

/// Logs "[function]" + line + "[file(line)]". The arguments are evaluated only when somebody wants the
/// level, so that masking and copying cost nothing otherwise. `line` must be a string literal.
#define TOLM_LOG(level, tag, line, ...)                                                                 \
  do {                                                                                                  \
    if (::Tolm::Base::IsLogWanted(level)) {                                                             \
      static constexpr ::std::string_view tolm_log_name =                                               \
          ::Tolm::Base::details::QualifiedFunctionName(__PRETTY_FUNCTION__);                            \
      static constexpr ::Tolm::Base::details::FixedText<tolm_log_name.size()> tolm_log_function{        \
          tolm_log_name};                                                                               \
      ::Tolm::Base::details::OMLQFormatLog(level, tag, "[%s]" line "[%s(%d)]",                          \
                                           tolm_log_function.text __VA_OPT__(, ) __VA_ARGS__, __FILE__, \
                                           __LINE__);                                                   \
    }                                                                                                   \
  } while (false)
