// Stands in the guard's place: the file "held" beside it keeps it from becoming the guard, which lies beside
// it as "TheGuard.exe", with what it was started with. That it waits is told by the file "reached".

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "support/System.h"

int main(int, char** argv) {
  const std::filesystem::path folder = tolm::test::ThisProgram().parent_path();
  if (std::filesystem::exists(folder / "held")) {
    std::ofstream(folder / "reached.part") << ::getpid() << std::endl;
    std::filesystem::rename(folder / "reached.part", folder / "reached");
    while (std::filesystem::exists(folder / "held")) tolm::test::Nap();
  }
  ::execv((folder / "TheGuard.exe").c_str(), argv);
  std::perror("TheGuard.exe");
  return 1;
}
