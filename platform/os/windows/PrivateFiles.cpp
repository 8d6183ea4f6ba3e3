// Who may read a file follows from its folder here, and the user's own ones are for nobody else.

#include "os/PrivateFiles.h"

#include <system_error>

namespace os {

void MakePrivateFile(const std::filesystem::path& /*file*/) {}

void MakePrivateFolders(const std::filesystem::path& folder) {
  std::error_code told_by_the_next_use;
  std::filesystem::create_directories(folder, told_by_the_next_use);
}

}  // namespace os
