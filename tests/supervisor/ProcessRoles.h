#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/System.h"

namespace tolm::test {

using Arguments = std::vector<std::string>;
/// Gives the exit status.
using Role = int (*)(const Arguments&);

/// What the processes do that the tests start: this program again, with "--role", a role and its arguments,
/// which stand in `role`. Roles that live on say so with a line that begins with "ready". `more` are those
/// that only one program has.
int RunAsRole(const Arguments& role, const std::map<std::string, Role>& more = {});

// What roles are made of.

void Say(const std::string& line);
/// "who 4711", with the number of this process.
void SayWithId(const std::string& who);

}  // namespace tolm::test
