#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace tolm::test {

/// Everything that happened around the frame, in its order, one short line each:
///
///   lpc.Send A               the transport was called (what and for whom)
///   guard.NotifyState        the guard's side was called
///   pool.Start Plugins 2 30 0
///   pool.Post NetCallBack CURLCallBackTask
///   krt.Sleep 1000
///   host 4 A                 the host's callback: kind and source
///   log TolmLPCFrameUnInit begin      a log line's own text
class Journal {
 public:
  static void Note(std::string entry);
  static void Clear();
  static std::vector<std::string> Entries();
  /// The entries that begin with `prefix`.
  static std::vector<std::string> Of(std::string_view prefix);
  static std::size_t Count(std::string_view entry);
};

/// Whether `entries` are all in the journal, each one behind the one before it.
::testing::AssertionResult HappenedInOrder(std::initializer_list<std::string_view> entries);

}  // namespace tolm::test
