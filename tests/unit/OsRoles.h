#pragma once

#include <map>
#include <string>
#include <vector>

#include "supervisor/ProcessRoles.h"
#include "support/System.h"

namespace tolm::test {

/// What other processes do with events, files, sockets and hidden programs.
const std::map<std::string, Role>& OsRoles();

/// The command that starts this program in a role.
inline std::vector<std::string> InRole(std::vector<std::string> role) {
  role.insert(role.begin(), {ThisProgram().string(), "--role"});
  return role;
}

}  // namespace tolm::test
