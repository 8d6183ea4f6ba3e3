#include "os/UnbufferedFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "Descriptor.h"

namespace os {
namespace {

std::size_t PageSize() {
  return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

class DirectFile final : public UnbufferedFile {
 public:
  explicit DirectFile(Descriptor file) : file_(std::move(file)) {}

  bool Size(std::uint64_t& size) const override {
    struct stat status {};
    if (::fstat(file_.get(), &status) != 0) return false;
    size = static_cast<std::uint64_t>(status.st_size);
    return true;
  }

  bool WriteFromStart(std::string_view content, std::size_t block) override {
    if (!std::has_single_bit(block) || content.size() % block != 0) return false;
    if (content.empty()) return true;
    const std::size_t alignment = std::max(block, PageSize());
    const std::size_t room = (content.size() + alignment - 1) / alignment * alignment;
    const std::unique_ptr<void, decltype(&std::free)> memory(std::aligned_alloc(alignment, room), std::free);
    if (memory == nullptr) return false;
    std::memcpy(memory.get(), content.data(), content.size());
    const std::string_view aligned(static_cast<const char*>(memory.get()), content.size());
    if (Write(aligned)) return true;
    // Whole pages are refused by file systems that take the flag when a file is opened and then do not
    // know what to do with it.
    return errno == EINVAL && block >= PageSize() && UseCache() && Write(aligned);
  }

 private:
  bool Write(std::string_view content) {
    off_t offset = 0;
    while (!content.empty()) {
      const ssize_t written = ::pwrite(file_.get(), content.data(), content.size(), offset);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return false;
      content.remove_prefix(static_cast<std::size_t>(written));
      offset += written;
    }
    return ::fdatasync(file_.get()) == 0;
  }

  bool UseCache() {
    const int flags = ::fcntl(file_.get(), F_GETFL);
    return flags >= 0 && (flags & O_DIRECT) != 0 && ::fcntl(file_.get(), F_SETFL, flags & ~O_DIRECT) == 0;
  }

  const Descriptor file_;
};

}  // namespace

std::unique_ptr<UnbufferedFile> UnbufferedFile::Open(const std::string& path) {
  constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC;
  Descriptor file(::open(path.c_str(), kFlags | O_DIRECT, 0644));
  if (!file && errno == EINVAL) file = Descriptor(::open(path.c_str(), kFlags, 0644));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      ::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    return nullptr;
  }
  return std::make_unique<DirectFile>(std::move(file));
}

}  // namespace os
