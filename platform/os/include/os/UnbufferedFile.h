#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace os {

/// A file that is written past the system's cache, by nobody else at the same time.
class UnbufferedFile {
 public:
  virtual ~UnbufferedFile() = default;
  UnbufferedFile(const UnbufferedFile&) = delete;
  UnbufferedFile& operator=(const UnbufferedFile&) = delete;

  /// Opens `path`, or makes an empty file there. Null when that is not possible, or somebody else has it
  /// open in this way.
  static std::unique_ptr<UnbufferedFile> Open(const std::string& path);

  /// False when the system does not tell.
  virtual bool Size(std::uint64_t& size) const = 0;
  /// Overwrites the file from its start with `content`, whose size is a multiple of `block`, the size
  /// that memory is aligned to. Never truncates. True when all of it has reached the disk. A disk whose own
  /// blocks are larger says no.
  virtual bool WriteFromStart(std::string_view content, std::size_t block) = 0;

 protected:
  UnbufferedFile() = default;
};

}  // namespace os
