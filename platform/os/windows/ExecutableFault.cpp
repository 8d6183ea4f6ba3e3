#include "os/ExecutableFault.h"

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "WideText.h"

namespace os {
namespace {

std::string HeadOf(const std::string& path) {
  constexpr std::size_t kEnough = 4096;
  std::ifstream file(std::filesystem::path(FromUtf8(path)), std::ios::binary);
  std::string head(kEnough, '\0');
  file.read(head.data(), static_cast<std::streamsize>(head.size()));
  head.resize(static_cast<std::size_t>(file.gcount()));
  return head;
}

template <typename T>
bool ReadAt(std::string_view bytes, std::size_t offset, T& value) {
  if (offset > bytes.size() || bytes.size() - offset < sizeof value) return false;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return true;
}

std::string MachineName(WORD machine) {
  switch (machine) {
    case IMAGE_FILE_MACHINE_AMD64:
      return "x86_64";
    case IMAGE_FILE_MACHINE_I386:
      return "i386";
    case IMAGE_FILE_MACHINE_ARM64:
      return "aarch64";
    default:
      return "number " + std::to_string(machine);
  }
}

#if defined(__x86_64__)
constexpr WORD kThisMachine = IMAGE_FILE_MACHINE_AMD64;
#else
#error "The number of this machine is to be added here"
#endif

/// Empty for what has the form of a program of this machine.
std::string FormatFault(std::string_view head) {
  if (head.starts_with("\x7f"
                       "ELF")) {
    return "it is made for another system";
  }
  if (!head.starts_with("MZ")) return "it is no program";
  std::uint32_t header = 0;
  WORD machine = 0;
  constexpr std::size_t kMachineBehindSignature = 4;
  if (!ReadAt(head, offsetof(IMAGE_DOS_HEADER, e_lfanew), header) ||
      !ReadAt(head, std::size_t{header} + kMachineBehindSignature, machine)) {
    return "it is cut off";
  }
  return machine == kThisMachine ? "" : "it is made for another machine (" + MachineName(machine) + ")";
}

std::string MissingFolder(const std::string& path) {
  std::error_code ignored;
  std::filesystem::path missing;
  for (std::filesystem::path folder = std::filesystem::path(FromUtf8(path)).parent_path();
       !folder.empty() && !std::filesystem::exists(folder, ignored); folder = folder.parent_path()) {
    missing = folder;
    if (folder == folder.parent_path()) break;
  }
  return missing.empty() ? std::string() : "the folder " + ToUtf8(missing.native()) + " is missing";
}

}  // namespace

std::string ExecutableFault(const std::string& path) {
  const DWORD attributes = ::GetFileAttributesW(FromUtf8(path).c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const std::string folder = MissingFolder(path);
    return folder.empty() ? "it does not exist" : folder;
  }
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return "it is a directory";
  const std::string head = HeadOf(path);
  return head.empty() ? "it is empty or cannot be read" : FormatFault(head);
}

std::string ExecutableFault(const std::string& path, int error) {
  const DWORD attributes = ::GetFileAttributesW(FromUtf8(path).c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return MissingFolder(path);
  if (error != ERROR_BAD_EXE_FORMAT && error != ERROR_EXE_MACHINE_TYPE_MISMATCH &&
      (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    return {};
  }
  const std::string fault = ExecutableFault(path);
  return fault.empty() ? "it is damaged" : fault;
}

}  // namespace os
