#include "System.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace tour {

namespace fs = std::filesystem;

std::string LibraryOf(const void* function) {
  Dl_info library{};
  return ::dladdr(function, &library) != 0 ? library.dli_fname : std::string();
}

fs::path MakeTemporaryFolder(const std::string& front) {
  std::error_code error;
  const fs::path temporary = fs::temp_directory_path(error);
  const char* const chosen = std::getenv("TMPDIR");
  if (error)
    throw std::runtime_error(std::string("no temporary directory ") + (chosen != nullptr ? chosen : ""));
  std::string folder = (temporary / (front + "XXXXXX")).string();
  if (::mkdtemp(folder.data()) == nullptr) throw std::runtime_error("cannot make " + folder);
  return folder;
}

int FreePort() {
  const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const bool bound = ::bind(probe, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
                     ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  ::close(probe);
  if (!bound) throw std::runtime_error("no free port");
  return ntohs(address.sin_port);
}

void SetVariable(const char* name, const std::string& value) {
  ::setenv(name, value.c_str(), 1);
}

std::string WithVariable(const std::string& name, const std::string& value, const fs::path& program,
                         const std::string& arguments) {
  return name + "=" + value + " " + program.string() + " " + arguments;
}

void PrintInUtf8() {}  // terminals do

bool ShowsColours() {
  return ::isatty(STDOUT_FILENO) != 0;
}

}  // namespace tour
