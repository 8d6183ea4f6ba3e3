#include "RuntimeFolder.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
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
