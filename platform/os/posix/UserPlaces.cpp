#include "os/UserPlaces.h"

#include <cstdlib>

namespace os {
namespace {

/// The variable's value when it is an absolute path, otherwise nothing.
std::string AbsolutePath(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value == '/' ? value : "";
}

}  // namespace

std::vector<std::string> OwnArguments(int argc, const char* const* argv) {
  return {argv, argv + argc};
}

std::string UserStateFolder() {
  std::string state = AbsolutePath("XDG_STATE_HOME");
  if (!state.empty()) return state;
  const std::string home = AbsolutePath("HOME");
  return home.empty() ? home : home + "/.local/state";
}

std::string ProgramFile(const std::string& program) {
  return program;
}

}  // namespace os
