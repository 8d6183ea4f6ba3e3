#include "os/ExecutableFault.h"

#include <elf.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>

namespace os {
namespace {

#if defined(__x86_64__)
constexpr unsigned kThisMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kThisMachine = EM_AARCH64;
#else
#error "The number of this machine is to be added here"
#endif

std::string MachineName(unsigned machine) {
  switch (machine) {
    case EM_X86_64:
      return "x86_64";
    case EM_386:
      return "i386";
    case EM_AARCH64:
      return "aarch64";
    case EM_ARM:
      return "arm";
    case EM_RISCV:
      return "riscv";
    case EM_PPC64:
      return "ppc64";
    case EM_S390:
      return "s390";
    case EM_MIPS:
      return "mips";
    default:
      return "number " + std::to_string(machine);
  }
}

/// The first bytes of a file; an interpreter's name stands in them.
std::string HeadOf(const std::string& path) {
  constexpr std::size_t kEnough = 4096;
  std::ifstream file(path, std::ios::binary);
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

bool IsElf(std::string_view head) {
  return head.substr(0, SELFMAG) == ELFMAG;
}

std::string ElfInterpreter(std::string_view head) {
  Elf64_Ehdr header;
  if (!ReadAt(head, 0, header) || header.e_ident[EI_CLASS] != ELFCLASS64) return {};
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    if (!ReadAt(head, header.e_phoff + std::size_t{i} * sizeof segment, segment)) return {};
    if (segment.p_type != PT_INTERP || segment.p_offset >= head.size()) continue;
    const std::string_view name = head.substr(segment.p_offset, segment.p_filesz);
    return std::string(name.substr(0, name.find('\0')));
  }
  return {};
}

std::string ScriptInterpreter(std::string_view head) {
  std::string_view line = head.substr(0, head.find('\n'));
  line.remove_prefix(2);
  const std::size_t begin = line.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  line.remove_prefix(begin);
  return std::string(line.substr(0, line.find_first_of(" \t")));
}

std::string InterpreterFault(std::string_view head) {
  const std::string interpreter = IsElf(head)              ? ElfInterpreter(head)
                                  : head.starts_with("#!") ? ScriptInterpreter(head)
                                                           : std::string();
  if (interpreter.empty() || ::access(interpreter.c_str(), F_OK) == 0) return {};
  // A carriage return at the end of the first line belongs to the name, and cannot be seen in a log.
  const bool foreign_line_end = interpreter.ends_with('\r');
  return "its interpreter " + interpreter.substr(0, interpreter.size() - (foreign_line_end ? 1 : 0)) +
         " is missing" + (foreign_line_end ? " (the first line ends with a carriage return)" : "");
}

/// Empty for what has the form of a program of this machine, or of a script.
std::string FormatFault(std::string_view head) {
  if (head.starts_with("#!")) return {};
  if (head.starts_with("MZ")) return "it is made for another system (Windows)";
  if (!IsElf(head)) return "it is neither a program nor a script whose first line names an interpreter";
  Elf64_Half machine = 0;
  if (!ReadAt(head, offsetof(Elf64_Ehdr, e_machine), machine)) return "it is cut off";
  if (head[EI_DATA] == ELFDATA2MSB) machine = static_cast<Elf64_Half>((machine >> 8) | (machine << 8));
  return machine == kThisMachine ? "" : "it is made for another machine (" + MachineName(machine) + ")";
}

std::string MissingFolder(const std::string& path) {
  std::error_code ignored;
  std::filesystem::path missing;
  for (std::filesystem::path folder = std::filesystem::path(path).parent_path();
       !folder.empty() && !std::filesystem::exists(folder, ignored); folder = folder.parent_path()) {
    missing = folder;
    if (folder == folder.parent_path()) break;
  }
  return missing.empty() ? std::string() : "the folder " + missing.string() + " is missing";
}

std::string AccessFault(const std::string& path, const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return "it is not a file";
  if (::access(path.c_str(), X_OK) != 0) return "it is not executable";
  struct statvfs system {};
  if (::statvfs(path.c_str(), &system) == 0 && (system.f_flag & ST_NOEXEC) != 0) {
    return "its file system allows no programs";
  }
  return {};
}

}  // namespace

std::string ExecutableFault(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    const bool is_missing = errno == ENOENT;
    std::string folder = MissingFolder(path);
    if (!folder.empty()) return folder;
    return is_missing ? "it does not exist" : "it cannot be looked at";
  }
  if (S_ISDIR(status.st_mode)) return "it is a directory";
  if (std::string fault = AccessFault(path, status); !fault.empty()) return fault;
  if (status.st_size == 0) return "it is empty";
  const std::string head = HeadOf(path);
  if (head.empty()) return {};  // it may be executed all the same
  const std::string fault = InterpreterFault(head);
  return fault.empty() ? FormatFault(head) : fault;
}

std::string ExecutableFault(const std::string& path, int error) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return MissingFolder(path);
  if (S_ISDIR(status.st_mode)) return "it is a directory";
  switch (error) {
    case EACCES:
      return AccessFault(path, status);
    case ENOENT:
      return InterpreterFault(HeadOf(path));
    case ENOEXEC: {
      const std::string head = HeadOf(path);
      if (head.empty()) return "it is empty or cannot be read";
      const std::string fault = FormatFault(head);
      return fault.empty() ? "it is damaged" : fault;
    }
    default:
      return {};
  }
}

}  // namespace os
