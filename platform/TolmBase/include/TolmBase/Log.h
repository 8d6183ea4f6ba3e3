#pragma once

// Logging: one printf-like call, any number of sinks behind it.
//
//   OMLQFormatLog ──► is the level wanted by anybody? ──no──► nothing at all happens
//                                │ yes
//                                ▼
//                      format once ──► file (rotated) ──► callback ──► stderr
//
// Levels: 1 debug, 2 trace, 3 information, 4 warning, 5 error. Until somebody says otherwise, only
// errors are wanted, and they go to stderr: this library is loaded into other people's processes.
// All functions may be called from any thread at any time, also while the process exits.

#include <atomic>
#include <cstddef>
#include <string>

#include "TolmBase/PrintfLike.h"

namespace Tolm::Base {

inline constexpr int kLogLevelTrace = 2;
inline constexpr int kLogLevelInfo = 3;
inline constexpr int kLogLevelWarning = 4;
inline constexpr int kLogLevelError = 5;
/// Higher than every level in use: a sink with this level receives nothing.
inline constexpr int kLogLevelOff = 100;

/// Receives one finished line. `text` has no line feed added; it and `tag` are valid during the call
/// only. An exception that leaves it is swallowed. Called on the thread that logs, before its log call
/// returns, possibly on several threads at once, with no lock of this library held: a sink may log and may
/// change the sinks.
using LogCallback = void (*)(int level, const char* tag, const char* text, void* user);

/// Installs the callback sink, or removes it when `callback` is null. Lines below `level` do not
/// reach it. A call that is under way on another thread may still end after this returns.
void SetLogCallback(LogCallback callback, void* user, int level);

/// Logs into `path` (UTF-8), which is rotated when it would grow beyond `max_bytes`: at most
/// `max_files` old files are kept beside it as name.1.ext, name.2.ext and so on. An empty path ends
/// logging into a file. False when the file cannot be opened for writing or `max_bytes` is 0; the earlier
/// file then stays. Every line is handed to the system at once. A file that cannot be written any more is
/// reported to the other sinks once, and is tried again every second.
bool SetLogFile(const std::string& path, std::size_t max_bytes, std::size_t max_files, int level);

/// Lines of `level` and above go to stderr (at first: kLogLevelError). kLogLevelOff silences it.
void SetLogStderrLevel(int level);

namespace details {

/// The lowest level that any sink wants. Read through IsLogWanted only.
extern std::atomic<int> g_lowest_wanted_level;

/// Formats and hands the line to every sink that wants `level`. Never throws; a line that cannot be
/// formatted for want of memory is dropped. Leaves errno as it was.
TOLM_PRINTF_LIKE(3, 4) void OMLQFormatLog(int level, const char* tag, const char* format, ...);

}  // namespace details

/// One relaxed atomic load: test it before making anything that only a log line needs.
inline bool IsLogWanted(int level) {
  return level >= details::g_lowest_wanted_level.load(std::memory_order_relaxed);
}

}  // namespace Tolm::Base
