// From the host to the agent, to the guard and to a plugin: what each has open that the one before it has
// open, too.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "GuardedTest.h"
#include "support/Rows.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

namespace fs = std::filesystem;
using Inheritance = GuardedTest;

/// The sockets and pipes that a process has open, by number. Of nothing else does the system tell whether two
/// have the same one, or each has its own.
std::map<int, std::string> Open(ProcessId id) {
  std::map<int, std::string> open;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(id) + "/fd", gone)) {
    const std::string what = fs::read_symlink(entry.path(), gone).string();
    if (what.starts_with("socket:") || what.starts_with("pipe:")) {
      open[std::stoi(entry.path().filename().string())] = what;
    }
  }
  return open;
}

/// "SigBlk: 0000000000000000", without the value's other lines.
std::string StatusOf(ProcessId id, const std::string& field) {
  std::ifstream file("/proc/" + std::to_string(id) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(field + ":")) return line.substr(field.size() + 2);
  }
  return "none";
}

TEST_F(Inheritance, IsNothingButTheOutputFromTheHostToThePlugin) {
  Rows rows("inherited");
  folder_.AddPlugin("a");
  ChildProcess& host = StartAll();
  const std::vector<ProcessId> chain = {host.id(), OnlyProcessOf(folder_.Agent()),
                                        OnlyProcessOf(folder_.Guard()), PluginProcess("a")};
  const char* const names[] = {"the host", "the agent", "the guard", "the plugin"};
  for (std::size_t i = 1; i < chain.size(); ++i) {
    ASSERT_GT(chain[i], 0);
    std::vector<std::string> shared;
    // All that came before it, so that nothing skips a generation.
    for (std::size_t above = 0; above < i; ++above) {
      for (const auto& [number, what] : Open(chain[i])) {
        for (const auto& [theirs, same] : Open(chain[above])) {
          // Two ends of one pipe: what a process prints goes to the one that has started it.
          const bool is_output = (number == 1 || number == 2) && above == i - 1 && what.starts_with("pipe:");
          if (what == same && !is_output) shared.push_back(what);
        }
      }
    }
    rows.Expect(std::vector<std::string>{}, shared, names[i]);
    // They block none themselves but those of os::OnStopSignal, which the plugin has, too.
    rows.Expect(std::string("0000000000000000"), StatusOf(chain[i], "SigIgn").substr(0, 16),
                std::string(names[i]) + ", ignored signals");
    std::error_code gone;
    const fs::path folder = fs::read_symlink("/proc/" + std::to_string(chain[i]) + "/cwd", gone);
    const fs::path expected = i == 3 ? fs::canonical(folder_.path() / "plugins" / "a") : fs::current_path();
    rows.Expect(expected.string(), folder.string(), std::string(names[i]) + ", the folder");
  }
  StopHost(host);
}

}  // namespace
}  // namespace tolm::test
