#pragma once

namespace tolm::test {

/// What the processes do that the tests start: this program again, with "--role", a role and its arguments.
/// Roles that live on say so with a line that begins with "ready".
int RunAsRole(int argc, char** argv);

}  // namespace tolm::test
