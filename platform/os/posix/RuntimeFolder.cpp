#include "RuntimeFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace os {
namespace {

// Why a folder may not be used, or nothing. The temporary directory is everybody's: a folder that somebody
// else made there, or may enter, must not hold what is ours.
std::string FaultOf(const std::string& folder, const struct stat& status) {
  if (!S_ISDIR(status.st_mode)) return folder + " is not a directory";
  if (status.st_uid != ::geteuid()) return folder + " belongs to another user";
  if ((status.st_mode & 077) != 0) return folder + " may be entered by other users";
  return {};
}

// File systems end names at 255 bytes, of which others take some for their own ends.
constexpr std::size_t kMaxPlainName = 200;
constexpr std::size_t kKeptOfLongName = 120;  // the end: it tells people more than the beginning

std::string Hash(const std::string& text, std::uint64_t hash) {
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
  std::string digits(16, '0');
  for (std::size_t i = 0; i < digits.size(); ++i) digits[i] = "0123456789abcdef"[hash >> (60 - 4 * i) & 15];
  return digits;
}

}  // namespace

std::string RuntimeFolder::Path() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && runtime[0] == '/') return std::string(runtime) + "/tolm-lpc";
  const char* temporary = std::getenv("TMPDIR");
  if (temporary == nullptr || temporary[0] != '/') temporary = "/tmp";
  return std::string(temporary) + "/tolm-lpc-" + std::to_string(::geteuid());
}

RuntimeFolder RuntimeFolder::Open(std::string& fault) {
  std::string path = Path();
  Descriptor folder;
  struct stat status {};
  fault.clear();
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    fault = SystemMessage("making " + path);
  } else {
    // A link is opened as such, and found out.
    folder = Descriptor(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!folder || ::fstat(folder.get(), &status) != 0) {
      fault = SystemMessage("looking at " + path);
    } else {
      fault = FaultOf(path, status);
    }
  }
  return {std::move(path), std::move(folder)};
}

std::string RuntimeFolder::Fault() {
  const std::string path = Path();
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) return FaultOf(path, status);
  return errno == ENOENT ? std::string() : SystemMessage("looking at " + path);
}

Descriptor RuntimeFolder::OpenFile(const std::string& name, int flags) const {
  return Descriptor(
      ::openat(folder_.get(), name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, S_IRUSR | S_IWUSR));
}

FilePlace RuntimeFolder::PlaceOf(const std::string& name, const Descriptor& file) const {
  struct stat opened {};
  struct stat there {};
  if (::fstat(file.get(), &opened) != 0) return FilePlace::kUnknown;
  if (::fstatat(folder_.get(), name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? FilePlace::kElsewhere : FilePlace::kUnknown;
  }
  return opened.st_ino == there.st_ino && opened.st_dev == there.st_dev ? FilePlace::kThere
                                                                        : FilePlace::kElsewhere;
}

bool RuntimeFolder::ClaimSocket(const std::string& name) const {
  struct stat there {};
  return ::fstatat(folder_.get(), name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISSOCK(there.st_mode) && ::fchmodat(folder_.get(), name.c_str(), S_IRUSR | S_IWUSR, 0) == 0;
}

bool RuntimeFolder::Remove(const std::string& name) const {
  return ::unlinkat(folder_.get(), name.c_str(), 0) == 0;
}

// '=' stands in no escaped name, so that a long name's file is never a short one's.
std::string RuntimeFileName(const std::string& name) {
  std::string escaped;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '_' || c == '-';
    if (plain) {
      escaped += c;
    } else {
      escaped += {'%', "0123456789ABCDEF"[byte >> 4], "0123456789ABCDEF"[byte & 15]};
    }
  }
  if (escaped.size() <= kMaxPlainName) return escaped;
  return "=" + Hash(name, 0xCBF29CE484222325) + Hash(name, 0x9E3779B97F4A7C15) + "-" +
         escaped.substr(escaped.size() - kKeptOfLongName);
}

}  // namespace os
