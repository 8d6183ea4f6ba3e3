#pragma once

// What of the roles is another on each system; twin files make it.

#include <map>
#include <string>

#include "ProcessRoles.h"

namespace tolm::test {

/// What stands behind the program's name, in UTF-8. From now on what is printed goes out byte by byte.
Arguments ProgramArguments(int argc, char** argv);

/// Families, and what a program sees of how it was started.
const std::map<std::string, Role>& SystemRoles();

/// A variable of the environment in UTF-8; "(none)" when there is none.
std::string Variable(const std::string& name);

/// What is told of the end of a process that was killed with its tree.
std::string KilledText();

}  // namespace tolm::test
