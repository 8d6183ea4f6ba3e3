#include "net/WholeFile.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>

#include "os/OpenToRead.h"
#include "os/UnbufferedFile.h"

namespace TolmLPCFrame {
namespace {

/// What most disks can write at once, and what all others can.
constexpr std::size_t kUsualBlock = 512;
constexpr std::size_t kLargeBlock = 4096;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

struct OpenedFile {
  File file;
  std::size_t size = 0;
};

/// The file and its size; no file when it cannot be opened or holds nothing.
OpenedFile OpenWithContent(const std::string& path) {
  File file(os::OpenToRead(path));
  if (file == nullptr || std::fseek(file.get(), 0, SEEK_END) != 0) return {};
  const long size = std::ftell(file.get());
  if (size <= 0 || std::fseek(file.get(), 0, SEEK_SET) != 0) return {};
  // Some systems open folders, too, and tell a size of them, but nothing can be read there.
  if (std::fgetc(file.get()) == EOF || std::fseek(file.get(), 0, SEEK_SET) != 0) return {};
  return {std::move(file), static_cast<std::size_t>(size)};
}

/// The path of the file that stands in for `path`; empty when `path` names no folder.
std::string CompanionOf(const std::string& path) {
  const std::size_t separator = path.find_last_of("/\\");
  if (separator == std::string::npos) return {};
  const std::string name = path.substr(separator + 1);
  return path.substr(0, separator) + "/" + name.substr(0, name.rfind('.')) + ".data";
}

std::string_view UpToLastLineFeed(std::string_view text) {
  const std::size_t last = text.rfind('\n');
  return last == std::string_view::npos ? text : text.substr(0, last + 1);
}

}  // namespace

bool ReadFileText(std::string& content, const std::string& path, const std::string& alt_path) {
  OpenedFile opened = OpenWithContent(path);
  if (opened.file == nullptr) {
    const std::string companion = alt_path.empty() ? CompanionOf(path) : alt_path;
    if (!companion.empty()) opened = OpenWithContent(companion);
  }
  if (opened.file == nullptr) return false;
  std::string text(opened.size, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), opened.file.get()));
  text.resize(UpToLastLineFeed(text).size());
  content.swap(text);
  return true;
}

std::size_t RoundUpToBlock(std::size_t size, std::size_t block) {
  return (size + block - 1) / block * block;
}

bool WriteFileTextAligned(const std::string& path, const std::string& content, std::size_t block) {
  const auto file = os::UnbufferedFile::Open(path);
  std::uint64_t old_size = 0;
  if (file == nullptr || !file->Size(old_size)) return false;
  const std::string_view body = UpToLastLineFeed(content);
  const std::size_t size =
      RoundUpToBlock(std::max<std::size_t>(static_cast<std::uint32_t>(old_size), body.size()), block);
  if (size == 0) return false;
  std::string padded(size, '\n');
  body.copy(padded.data(), body.size());
  // What comes of it is not looked at: the next start reads what is there, and copes with anything.
  (void)file->WriteFromStart(padded, block);
  return true;
}

bool WriteFileText(const std::string& path, const std::string& content) {
  return WriteFileTextAligned(path, content, kUsualBlock) || WriteFileTextAligned(path, content, kLargeBlock);
}

}  // namespace TolmLPCFrame
