// In the place of a command: notes beside its own file how it was started.

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>

int main() {
  wchar_t path[4096];
  const DWORD length = ::GetModuleFileNameW(nullptr, path, 4096);
  const std::filesystem::path self(std::wstring(path, length));
  STARTUPINFOW start{};
  ::GetStartupInfoW(&start);
  const auto unfinished = self.parent_path() / "started.new";
  std::ofstream(unfinished, std::ios::binary)
      << ::GetCommandLineA() << '\n'
      << ((start.dwFlags & STARTF_USESHOWWINDOW) != 0 ? start.wShowWindow : -1) << '\n';
  std::filesystem::rename(unfinished, self.parent_path() / "started");
  return 0;
}
