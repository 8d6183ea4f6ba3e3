#pragma once

namespace tolm::test {

/// The life of a host process: `arguments` are BEHAVIOUR, the endpoint, and the ids of its plugins.
///
/// It prints "init N", and what went to its log's level of errors; then, unless that failed, "inited ID"
/// for each plugin, and when all are there "ID answered BODY" for a call to each. Then "serving" waits
/// until its input ends and stops the frame; "exiting" calls exit(0) without stopping it, while other
/// threads of it go on calling. Both end with status 0; with 1 when something failed. "stopping" starts
/// nothing: it stops a frame that never ran and prints "uninit N".
int RunAsHost(int count, const char* const* arguments);

}  // namespace tolm::test
