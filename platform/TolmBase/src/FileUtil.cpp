#include "TolmBase/FileUtil.h"

#include <filesystem>

#include "LocalText.h"
#include "os/ExecutablePath.h"
#include "os/Mutex.h"

namespace Tolm::Base::FileUtil {
namespace {

struct Published {
  os::Mutex mutex;
  std::string utf8_dir TOLM_GUARDED_BY(mutex);
};

Published& GetPublished() {
  // Never destroyed: threads may still ask while the process exits.
  static Published& published = *new Published;
  return published;
}

}  // namespace

std::string GetCurExeDir() {
  return Utf8ToLocal(os::ExecutableDirectory());
}

void InitCurExeDirUtf8(const std::string& utf8_dir) {
  std::string dir = utf8_dir;
  // An unknown directory stays unknown: a separator alone would name the root.
  if (!dir.empty() && dir.back() != '/' && dir.back() != '\\') {
    dir += static_cast<char>(std::filesystem::path::preferred_separator);
  }
  Published& published = GetPublished();
  const os::MutexLock lock(published.mutex);
  published.utf8_dir.swap(dir);
}

std::string GetCurExeDirUtf8() {
  Published& published = GetPublished();
  {
    const os::MutexLock lock(published.mutex);
    if (!published.utf8_dir.empty()) return published.utf8_dir;
  }
  return LocalToUtf8(GetCurExeDir());
}

}  // namespace Tolm::Base::FileUtil
