#include "TolmBase/Log.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "TolmBase/FileUtil.h"
#include "os/Mutex.h"
#include "os/PrivateFiles.h"
#include "os/Utf8Path.h"

namespace Tolm::Base {
namespace {

constexpr const char* kPattern = "[%Y-%m-%d %H:%M:%S.%f] [%t] [%l] [%n] %v";
/// Longer lines are formatted on the heap.
constexpr std::size_t kShortLine = 1024;
/// A file that cannot be written is opened anew, but not for every line.
constexpr std::chrono::seconds kRetryInterval{1};

spdlog::level::level_enum ToSpdlog(int level) {
  // Here debug lies below trace, there it is the other way round; only the name is of interest.
  constexpr std::array kLevels = {spdlog::level::debug, spdlog::level::debug, spdlog::level::trace,
                                  spdlog::level::info,  spdlog::level::warn,  spdlog::level::err};
  return kLevels[static_cast<std::size_t>(std::clamp(level, 0, kLogLevelError))];
}

/// Lines end with a line feed on every system, so that logs of all can be read alike.
std::unique_ptr<spdlog::formatter> MakeFormatter() {
  return std::make_unique<spdlog::pattern_formatter>(kPattern, spdlog::pattern_time_type::local, "\n");
}

/// Held while a line goes into a file, whichever: some systems append by seeking the end first, so that a
/// file and the one that takes its place would overwrite each other's lines when both have the same path.
os::Mutex& FileMutex() {
  // Never destroyed: threads may log while the process exits.
  static os::Mutex& mutex = *new os::Mutex;
  return mutex;
}

/// The rotated file. Opens itself anew after a failure, which the sink alone would not survive: when a
/// rotation cannot open the next file, it would go on with none.
class LogFile {
 public:
  LogFile(const std::string& path, std::size_t max_bytes, std::size_t max_files)
      : path_(path), max_bytes_(max_bytes), max_files_(max_files) {
    Open();
  }

  const std::string& path() const { return path_; }

  /// False when the line could not be written and the one before it could.
  bool Write(const spdlog::details::log_msg& line) {
    const os::MutexLock lock(FileMutex());
    const auto now = std::chrono::steady_clock::now();
    if (failed_ && now < retry_at_) return true;
    try {
      if (!sink_) Open();
      sink_->log(line);
      // Whoever reads the file after a crash needs the last lines most.
      sink_->flush();
      failed_ = false;
      return true;
    } catch (const std::exception&) {
      sink_.reset();
      retry_at_ = now + kRetryInterval;
      return std::exchange(failed_, true);
    }
  }

 private:
  void Open() TOLM_REQUIRES(FileMutex()) {
    // Lines may hold what is meant for this user alone. Called for each file of a rotation.
    spdlog::file_event_handlers handlers;
    handlers.before_open = [](const spdlog::filename_t& name) { os::MakePrivateFile(name); };
    auto sink = std::make_unique<spdlog::sinks::rotating_file_sink_st>(
        os::Utf8Path(path_).native(), max_bytes_, max_files_, false, handlers);
    sink->set_formatter(MakeFormatter());
    sink_ = std::move(sink);
  }

  const std::string path_;
  const std::size_t max_bytes_;
  const std::size_t max_files_;
  std::unique_ptr<spdlog::sinks::rotating_file_sink_st> sink_ TOLM_GUARDED_BY(FileMutex());
  bool failed_ TOLM_GUARDED_BY(FileMutex()) = false;
  std::chrono::steady_clock::time_point retry_at_ TOLM_GUARDED_BY(FileMutex());
};

/// Writes to what the process has as stderr at that moment; a host may redirect it at any time.
class Stderr {
 public:
  void Write(const spdlog::details::log_msg& line) {
    spdlog::memory_buf_t text;
    const os::MutexLock lock(mutex_);
    formatter_->format(line, text);
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
  }

 private:
  os::Mutex mutex_;
  const std::unique_ptr<spdlog::formatter> formatter_ TOLM_PT_GUARDED_BY(mutex_) = MakeFormatter();
};

struct Sinks {
  std::shared_ptr<LogFile> file;
  int file_level = kLogLevelOff;
  LogCallback callback = nullptr;
  void* user = nullptr;
  int callback_level = kLogLevelOff;
  int stderr_level = kLogLevelError;
};

struct State {
  Stderr err;
  os::Mutex mutex;
  Sinks sinks TOLM_GUARDED_BY(mutex);
};

State& GetState() {
  // Never destroyed: threads may log while the process exits.
  static State& state = *new State;
  return state;
}

/// Changes the sinks by `change`, and what is wanted with them.
template <typename Change>
void ChangeSinks(Change change) {
  State& state = GetState();
  const os::MutexLock lock(state.mutex);
  Sinks& sinks = state.sinks;
  change(sinks);
  details::g_lowest_wanted_level.store(std::min({sinks.file_level, sinks.callback_level, sinks.stderr_level}),
                                       std::memory_order_relaxed);
}

/// Hands a finished text to every sink that wants it, with no lock held.
void Deliver(int level, const char* tag, const char* text, std::size_t length) {
  State& state = GetState();
  Sinks sinks;
  {
    const os::MutexLock lock(state.mutex);
    sinks = state.sinks;
  }
  const spdlog::details::log_msg line(spdlog::details::os::now(), spdlog::source_loc{}, tag, ToSpdlog(level),
                                      spdlog::string_view_t(text, length));
  bool file_works = true;
  if (sinks.file && level >= sinks.file_level) file_works = sinks.file->Write(line);
  if (sinks.callback != nullptr && level >= sinks.callback_level) {
    try {
      sinks.callback(level, tag, text, sinks.user);
    } catch (...) {
      // The other sinks get the line all the same.
    }
  }
  if (level >= sinks.stderr_level) state.err.Write(line);
  // The file knows that it failed and stays quiet until it is tried again, so this does not repeat.
  if (!file_works) {
    details::OMLQFormatLog(kLogLevelError, "TolmBase", "Lines are lost: cannot write the log file %s",
                           sinks.file->path().c_str());
  }
}

void FormatAndDeliver(int level, const char* tag, const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  std::array<char, kShortLine> line;
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  if (length < 0) {
    // The arguments cannot be shown. The bare format still says which line it was.
    Deliver(level, tag, format, std::char_traits<char>::length(format));
  } else if (static_cast<std::size_t>(length) < line.size()) {
    Deliver(level, tag, line.data(), static_cast<std::size_t>(length));
  } else {
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    if (const std::unique_ptr<char[]> long_line{new (std::nothrow) char[size]}) {
      std::vsnprintf(long_line.get(), size, format, again);
      Deliver(level, tag, long_line.get(), size - 1);
    }
  }
  va_end(again);
}

}  // namespace

void SetLogCallback(LogCallback callback, void* user, int level) {
  ChangeSinks([&](Sinks& sinks) {
    sinks.callback = callback;
    sinks.user = user;
    sinks.callback_level = callback != nullptr ? level : kLogLevelOff;
  });
}

bool SetLogFile(const std::string& path, std::size_t max_bytes, std::size_t max_files, int level) {
  std::shared_ptr<LogFile> file;
  if (!path.empty()) {
    try {
      file = std::make_shared<LogFile>(path, max_bytes, max_files);
    } catch (const std::exception&) {
      return false;
    }
  }
  // The earlier file is closed with `file`, after the lock.
  ChangeSinks([&](Sinks& sinks) {
    sinks.file.swap(file);
    sinks.file_level = sinks.file ? level : kLogLevelOff;
  });
  return true;
}

void SetLogStderrLevel(int level) {
  ChangeSinks([&](Sinks& sinks) { sinks.stderr_level = level; });
}

namespace details {

constinit std::atomic<int> g_lowest_wanted_level{kLogLevelError};

void OMLQFormatLog(int level, const char* tag, const char* format, ...) {
  if (!IsLogWanted(level)) return;
  // Callers log first and look at errno afterwards.
  const int saved_errno = errno;
  std::va_list arguments;
  va_start(arguments, format);
  try {
    FormatAndDeliver(level, tag, format, arguments);
  } catch (...) {
    // No memory: logging must not be what breaks the program.
  }
  va_end(arguments);
  errno = saved_errno;
}

}  // namespace details
}  // namespace Tolm::Base
