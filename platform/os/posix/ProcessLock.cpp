#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <utility>

#include "Descriptor.h"
#include "RuntimeFolder.h"
#include "os/ChildProcess.h"

namespace os {
namespace {

class PosixProcessLock final : public ProcessLock {
 public:
  PosixProcessLock(RuntimeFolder folder, std::string name, Descriptor file)
      : folder_(std::move(folder)), name_(std::move(name)), file_(std::move(file)) {}
  // Removed while it is still locked: whoever has opened it by now sees that it is not the one any more.
  ~PosixProcessLock() override { folder_.Remove(name_); }

 private:
  const RuntimeFolder folder_;
  const std::string name_;
  // Closed on exec. A child that has not got there yet holds the lock too, and is killed with this
  // process.
  const Descriptor file_;
};

}  // namespace

std::unique_ptr<ProcessLock> ProcessLock::TryTake(const std::string& name, std::string& why) {
  RuntimeFolder folder = RuntimeFolder::Open(why);
  if (!why.empty()) return nullptr;
  std::string file_name = "only-one:" + RuntimeFileName(name);  // the colon keeps it apart from endpoints
  for (;;) {
    Descriptor file = folder.OpenFile(file_name, O_CREAT);
    if (!file) {
      why = SystemMessage("opening " + folder.PathOf(file_name));
      return nullptr;
    }
    if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EINTR) continue;
      if (errno != EWOULDBLOCK) why = SystemMessage("locking " + folder.PathOf(file_name));
      return nullptr;
    }
    const FilePlace place = folder.PlaceOf(file_name, file);
    if (place == FilePlace::kUnknown) {
      why = SystemMessage("looking at " + folder.PathOf(file_name));
      return nullptr;
    }
    if (place == FilePlace::kThere) {
      return std::make_unique<PosixProcessLock>(std::move(folder), std::move(file_name), std::move(file));
    }
    // Its earlier holder removed the file between the two calls above; the next one is a new file.
  }
}

}  // namespace os
