#include "TolmLPCFrameDiagnostics.h"

#include <utility>

#include "TolmBase/Log.h"
#include "TolmBase/Singleton.h"
#include "common/CaughtException.h"
#include "os/Mutex.h"

namespace TolmLPCFrame {

namespace {

/// What the host chose. The base library is told level and sink at once, so both are kept here.
struct Choices {
  os::Mutex mutex;
  LogSink sink TOLM_GUARDED_BY(mutex) = nullptr;
  void* sink_user TOLM_GUARDED_BY(mutex) = nullptr;
  std::string file TOLM_GUARDED_BY(mutex);
  std::size_t file_max_bytes TOLM_GUARDED_BY(mutex) = 0;
  std::size_t file_max_files TOLM_GUARDED_BY(mutex) = 0;
  int level TOLM_GUARDED_BY(mutex) = kLogInformation;
};

Choices& GetChoices() {
  return Tolm::Base::CSingleton<Choices>::Instance();
}

}  // namespace

void SetLogSink(LogSink sink, void* user) try {
  Choices& choices = GetChoices();
  const os::MutexLock lock(choices.mutex);
  choices.sink = sink;
  choices.sink_user = user;
  Tolm::Base::SetLogCallback(sink, user, choices.level);
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
}

void SetLogLevel(int level) try {
  Choices& choices = GetChoices();
  const os::MutexLock lock(choices.mutex);
  choices.level = level;
  if (choices.sink != nullptr) Tolm::Base::SetLogCallback(choices.sink, choices.sink_user, level);
  if (!choices.file.empty()) {
    Tolm::Base::SetLogFile(choices.file, choices.file_max_bytes, choices.file_max_files, level);
  }
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
}

void SetLogStderrLevel(int level) try { Tolm::Base::SetLogStderrLevel(level); } catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
}

bool SetLogFile(const std::string& path, std::size_t max_bytes, std::size_t max_files) try {
  Choices& choices = GetChoices();
  const os::MutexLock lock(choices.mutex);
  std::string file = path;
  if (!Tolm::Base::SetLogFile(path, max_bytes, max_files, choices.level)) return false;
  choices.file = std::move(file);
  choices.file_max_bytes = max_bytes;
  choices.file_max_files = max_files;
  return true;
} catch (...) {
  TOLM_LOG_CAUGHT("the call failed");
  return false;
}

}  // namespace TolmLPCFrame
