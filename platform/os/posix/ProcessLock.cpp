#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Descriptor.h"
#include "RuntimeFolder.h"
#include "os/ChildProcess.h"

namespace os {
namespace {

class PosixProcessLock final : public ProcessLock {
 public:
  PosixProcessLock(std::string path, Descriptor file) : path_(std::move(path)), file_(std::move(file)) {}
  // Removed while it is still locked: whoever has opened it by now sees that it is not the one any more.
  ~PosixProcessLock() override { ::unlink(path_.c_str()); }

 private:
  const std::string path_;
  // Closed on exec. A child that has not got there yet holds the lock too, and is killed with this
  // process.
  const Descriptor file_;
};

bool IsStillAt(const std::string& path, const Descriptor& file) {
  struct stat opened {};
  struct stat named {};
  return ::fstat(file.get(), &opened) == 0 && ::stat(path.c_str(), &named) == 0 &&
         opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

}  // namespace

std::unique_ptr<ProcessLock> ProcessLock::TryTake(const std::string& name, std::string& why) {
  why.clear();
  const std::string folder = EnsureRuntimeFolder(why);
  if (!why.empty()) return nullptr;
  const std::string path =
      folder + "/only-one:" + RuntimeFileName(name);  // the colon keeps it apart from endpoints
  for (;;) {
    Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) {
      why = SystemMessage("opening " + path);
      return nullptr;
    }
    if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EINTR) continue;
      if (errno != EWOULDBLOCK) why = SystemMessage("locking " + path);
      return nullptr;
    }
    if (IsStillAt(path, file)) return std::make_unique<PosixProcessLock>(path, std::move(file));
    // Its earlier holder removed the file between the two calls above; the next one is a new file.
  }
}

}  // namespace os
