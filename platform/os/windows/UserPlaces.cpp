#include "os/UserPlaces.h"

#include <filesystem>

#include "WideText.h"
#include "os/HiddenProcess.h"

namespace os {
namespace {

bool IsFile(const std::string& path) {
  const DWORD attributes = ::GetFileAttributesW(FromUtf8(path).c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

}  // namespace

// The C runtime has turned main's words into the user's code page, in which not every letter has a place.
std::vector<std::string> OwnArguments(int, const char* const*) {
  return SplitCommandLine(ToUtf8(::GetCommandLineW()));
}

std::string UserStateFolder() {
  constexpr DWORD kLongestValue = 32767;
  std::wstring value(kLongestValue, L'\0');
  value.resize(::GetEnvironmentVariableW(L"LOCALAPPDATA", value.data(), kLongestValue));
  return std::filesystem::path(value).is_absolute() ? ToUtf8(value) : std::string();
}

std::string ProgramFile(const std::string& program) {
  const std::string with_ending = program + ".exe";
  return !IsFile(program) && IsFile(with_ending) ? with_ending : program;
}

}  // namespace os
