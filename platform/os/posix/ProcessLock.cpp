#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <utility>

#include "Descriptor.h"
#include "RuntimeFolder.h"
#include "os/ChildProcess.h"

namespace os {
namespace {

std::string Hex(std::uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
  return text;
}

std::uint64_t Fnv1a(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return hash;
}

/// A file name for any text. The colon keeps it apart from the endpoints in the same folder.
std::string FileName(const std::string& name) {
  std::string encoded;
  for (const char c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '-' || c == '_';
    if (plain) {
      encoded += c;
    } else {
      encoded += "%" + Hex(static_cast<unsigned char>(c)).substr(14);
    }
  }
  // File systems end names at 255 bytes. The end of a long text tells people more than its beginning.
  constexpr std::size_t kLongest = 200;
  if (encoded.size() > kLongest) encoded = Hex(Fnv1a(name)) + "-" + encoded.substr(encoded.size() - kLongest);
  return "only-one:" + encoded;
}

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
  const std::string path = folder + "/" + FileName(name);
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
