#include "os/UnbufferedFile.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "WideText.h"

namespace os {
namespace {

class DirectFile final : public UnbufferedFile {
 public:
  explicit DirectFile(Handle file) : file_(std::move(file)) {}

  bool Size(std::uint64_t& size) const override {
    LARGE_INTEGER told{};
    if (!::GetFileSizeEx(file_.get(), &told)) return false;
    size = static_cast<std::uint64_t>(told.QuadPart);
    return true;
  }

  bool WriteFromStart(std::string_view content, std::size_t block) override {
    const bool is_power_of_two = block != 0 && (block & (block - 1)) == 0;
    if (!is_power_of_two || content.size() % block != 0 ||
        content.size() > std::numeric_limits<DWORD>::max()) {
      return false;
    }
    if (content.empty()) return true;
    // Pages of their own: aligned to 64 KiB.
    void* const memory = ::VirtualAlloc(nullptr, content.size(), MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
    if (memory == nullptr) return false;
    std::memcpy(memory, content.data(), content.size());
    const auto size = static_cast<DWORD>(content.size());
    DWORD written = 0;
    const bool done = ::SetFilePointerEx(file_.get(), LARGE_INTEGER{}, nullptr, FILE_BEGIN) &&
                      ::WriteFile(file_.get(), memory, size, &written, nullptr) && written == size;
    ::VirtualFree(memory, 0, MEM_RELEASE);
    // The content is on the disk already, its place there may not be.
    return done && ::FlushFileBuffers(file_.get());
  }

 private:
  const Handle file_;
};

/// The narrow call takes a path in the machine's code page, in which only ASCII means what it means here.
HANDLE OpenFile(const std::string& path) {
  constexpr DWORD kAccess = GENERIC_READ | GENERIC_WRITE;
  const bool is_ascii = std::all_of(path.begin(), path.end(), [](char c) { return c > 0; });
  return is_ascii
             ? ::CreateFileA(path.c_str(), kAccess, 0, nullptr, OPEN_ALWAYS, FILE_FLAG_NO_BUFFERING, nullptr)
             : ::CreateFileW(FromUtf8(path).c_str(), kAccess, 0, nullptr, OPEN_ALWAYS, FILE_FLAG_NO_BUFFERING,
                             nullptr);
}

}  // namespace

std::unique_ptr<UnbufferedFile> UnbufferedFile::Open(const std::string& path) {
  Handle file(OpenFile(path));
  if (!file) return nullptr;
  return std::make_unique<DirectFile>(std::move(file));
}

}  // namespace os
