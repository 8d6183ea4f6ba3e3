#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "support/TempDirectory.h"

namespace tolm::test {

/// While it lives, the user's state folder is another one, or none: whatever the variables of all systems
/// say.
class UserState {
 public:
  explicit UserState(const std::optional<std::filesystem::path>& folder = std::nullopt)
      : state_("XDG_STATE_HOME", Text(folder)),
        home_("HOME", std::nullopt),
        local_("LOCALAPPDATA", Text(folder)) {}

 private:
  static std::optional<std::string> Text(const std::optional<std::filesystem::path>& folder) {
    return folder ? std::optional(folder->string()) : std::nullopt;
  }

  const EnvironmentValue state_;
  const EnvironmentValue home_;
  const EnvironmentValue local_;
};

}  // namespace tolm::test
