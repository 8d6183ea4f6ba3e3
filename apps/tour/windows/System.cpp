#include "System.h"

// Before windows.h, which would bring an older one of it.
#include <winsock2.h>

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace tour {

namespace fs = std::filesystem;

namespace {

constexpr DWORD kLongestPath = 32768;

/// The temporary directory without abbreviated names: the system tells of running programs without them.
fs::path TemporaryDirectory() {
  std::wstring given(kLongestPath, L'\0');
  given.resize(::GetTempPathW(kLongestPath, given.data()));
  std::wstring whole(kLongestPath, L'\0');
  whole.resize(::GetLongPathNameW(given.c_str(), whole.data(), kLongestPath));
  std::error_code error;
  if (whole.empty() || !fs::is_directory(whole, error)) {
    throw std::runtime_error("no temporary directory " + fs::path(given).string());
  }
  return whole;
}

}  // namespace

std::string LibraryOf(const void* function) {
  HMODULE library = nullptr;
  std::wstring path(kLongestPath, L'\0');
  if (!::GetModuleHandleExW(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          static_cast<const wchar_t*>(function), &library)) {
    return {};
  }
  path.resize(::GetModuleFileNameW(library, path.data(), kLongestPath));
  return fs::path(path).string();
}

fs::path MakeTemporaryFolder(const std::string& front) {
  const fs::path temporary = TemporaryDirectory();
  constexpr int kTries = 1000;
  for (int i = 0; i < kTries; ++i) {
    LARGE_INTEGER now{};
    ::QueryPerformanceCounter(&now);
    const fs::path folder = temporary / (front + std::to_string(::GetCurrentProcessId()) + "-" +
                                         std::to_string(now.QuadPart + i));
    // The folder of the user's own files lets nobody else in, and so do those that are made in it.
    std::error_code taken;
    if (fs::create_directory(folder, taken)) return folder;
  }
  throw std::runtime_error("cannot make a folder in " + temporary.string());
}

int FreePort() {
  WSADATA data;
  if (::WSAStartup(MAKEWORD(2, 2), &data) != 0) throw std::runtime_error("no sockets");
  const SOCKET probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  int size = sizeof address;
  const bool bound = ::bind(probe, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
                     ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  const int port = ::ntohs(address.sin_port);
  ::closesocket(probe);
  ::WSACleanup();
  if (!bound) throw std::runtime_error("no free port");
  return port;
}

// The runtime's copy of the environment and the system's.
void SetVariable(const char* name, const std::string& value) {
  ::_putenv_s(name, value.c_str());
}

// The quotes keep the blank before the command out of the value.
std::string WithVariable(const std::string& name, const std::string& value, const fs::path& program,
                         const std::string& arguments) {
  // A slash in the name of the program would begin an option.
  return "set \"" + name + "=" + value + "\" && " + fs::path(program).make_preferred().string() + " " +
         arguments;
}

void PrintInUtf8() {
  DWORD mode = 0;
  if (!::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode)) return;  // files and pipes take any bytes
  ::SetConsoleOutputCP(CP_UTF8);
  // As it stands: the runtime reads texts for a console in a code page of its own. And in whole lines, since
  // a console shows a character only when all of its bytes come in one piece.
  ::_setmode(::_fileno(stdout), _O_BINARY);
  std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
}

bool ShowsColours() {
  const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  return ::GetConsoleMode(output, &mode) &&
         ::SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

}  // namespace tour
