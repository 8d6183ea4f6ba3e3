#pragma once

// What the frame says about itself. Until a host calls one of these, errors go to stderr and nothing
// else is written anywhere.

#include <cstddef>
#include <string>

#include "TolmLPCFrame.h"

namespace TolmLPCFrame {

/// Levels of log lines. A level includes all higher ones.
inline constexpr int kLogTrace = 2;
inline constexpr int kLogInformation = 3;
inline constexpr int kLogWarning = 4;
inline constexpr int kLogError = 5;
inline constexpr int kLogNothing = 100;

/// Receives one log line: its level, its tag ("LPCFrameInfo", for instance) and the whole text without
/// a line feed. Called on the thread that logs, before its log call returns, on several threads at
/// once. Both texts are valid during the call only.
using LogSink = void (*)(int level, const char* tag, const char* text, void* user);

/// Sets the one log sink and the pointer that it is given; null removes it. A call that is under way on
/// another thread may still end after this returns.
TOLM_LPCFRAME_API void SetLogSink(LogSink sink, void* user);

/// The lowest level that the sink and the log file receive; at first kLogInformation. Lines below it
/// are not even formatted.
TOLM_LPCFRAME_API void SetLogLevel(int level);

/// The lowest level that is written to stderr; at first kLogError.
TOLM_LPCFRAME_API void SetLogStderrLevel(int level);

/// Logs into the file `path` as well, and rotates it when it would grow beyond `max_bytes`, keeping
/// `max_files` old ones. An empty path ends it. False when the file cannot be written or `max_bytes` is 0.
TOLM_LPCFRAME_API bool SetLogFile(const std::string& path, std::size_t max_bytes, std::size_t max_files);

}  // namespace TolmLPCFrame
