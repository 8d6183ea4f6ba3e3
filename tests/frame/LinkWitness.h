#pragma once

#include <atomic>

namespace tolm::test {

// Some calls inside the frame cross no scripted interface. The linker leads these past here (see
// CMakeLists.txt) and then to the real function:
//
//   CMessageLoopDyThreadPool::Start, Stop, PostTask   noted in the journal
//   MaskSidInUrl                                      counted

/// How often a url was masked since the process began.
extern std::atomic<int> g_masked_urls;

}  // namespace tolm::test
