#include "os/PrivateFiles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "Descriptor.h"

namespace os {

void MakePrivateFile(const std::filesystem::path& file) {
  const Descriptor made(::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
}

void MakePrivateFolders(const std::filesystem::path& folder) {
  std::filesystem::path made;
  for (const std::filesystem::path& part : folder) {
    made /= part;
    ::mkdir(made.c_str(), S_IRWXU);  // those that are there stay as they are
  }
}

}  // namespace os
