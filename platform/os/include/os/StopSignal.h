#pragma once

#include <functional>

namespace os {

/// From now on Ctrl-C and a polite request to end (SIGINT and SIGTERM) call `asked` on a thread of their
/// own, each time, and do nothing else. For programs of ours, before they start other threads; once in a
/// process. The thread lasts as long as the process.
void OnStopSignal(std::function<void()> asked);

}  // namespace os
