#include "RuntimeFolder.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

#include "Descriptor.h"

namespace os {
namespace {

// Why `folder` may not be used, or nothing. The temporary directory is everybody's: a folder that
// somebody else made there, or may enter, must not hold what is ours.
std::string FolderFault(const std::string& folder) {
  struct stat status {};
  if (::lstat(folder.c_str(), &status) != 0) return SystemMessage("looking at " + folder);
  if (!S_ISDIR(status.st_mode)) return folder + " is not a directory";
  if (status.st_uid != ::geteuid()) return folder + " belongs to another user";
  if ((status.st_mode & 077) != 0) return folder + " may be entered by other users";
  return {};
}

}  // namespace

std::string RuntimeFolder() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && runtime[0] == '/') return std::string(runtime) + "/tolm-lpc";
  const char* temporary = std::getenv("TMPDIR");
  if (temporary == nullptr || temporary[0] != '/') temporary = "/tmp";
  return std::string(temporary) + "/tolm-lpc-" + std::to_string(::geteuid());
}

std::string EnsureRuntimeFolder(std::string& fault) {
  std::string folder = RuntimeFolder();
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    fault = SystemMessage("making " + folder);
  } else {
    fault = FolderFault(folder);
  }
  return folder;
}

}  // namespace os
