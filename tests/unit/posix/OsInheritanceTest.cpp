// What a process that is started here gets from the one that starts it: what is documented, and nothing else,
// also while other threads open files that are not closed on exec.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ProcessTree.h"
#include "os/ChildProcess.h"
#include "os/HiddenProcess.h"
#include "supervisor/Actor.h"
#include "support/Rows.h"
#include "support/System.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

extern char** environ;

namespace os {
namespace {

namespace fs = std::filesystem;
using tolm::test::Actor;
using tolm::test::Rows;
using tolm::test::ThisProgram;
using tolm::test::WaitFor;

/// Threads of a host that know nothing of O_CLOEXEC.
class CarelessThreads {
 public:
  CarelessThreads() {
    for (int i = 0; i < 4; ++i) {
      threads_.emplace_back([this] {
        while (!done_) Open();
      });
    }
    WaitFor([this] { return rounds_ > 100; });
  }
  ~CarelessThreads() {
    done_ = true;
    for (std::thread& thread : threads_) thread.join();
  }

 private:
  void Open() {
    int pipe[2] = {-1, -1};
    const int file = ::open("/dev/zero", O_RDONLY);
    const bool piped = ::pipe(pipe) == 0;
    const std::array<int, 3> others = {::fcntl(file, F_DUPFD, 300), ::socket(AF_UNIX, SOCK_STREAM, 0),
                                       ::dup(file)};
    for (const int descriptor : others) ::close(descriptor);
    if (piped) {
      ::close(pipe[0]);
      ::close(pipe[1]);
    }
    ::close(file);
    ++rounds_;
  }

  std::atomic<bool> done_{false};
  std::atomic<int> rounds_{0};
  std::vector<std::thread> threads_;
};

std::string Content(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> SortedLines(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::vector<std::string> OwnEnvironment() {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) entries.emplace_back(*entry);
  std::sort(entries.begin(), entries.end());
  return entries;
}

/// A program that is started hidden, and what it has written.
class Hidden {
 public:
  /// `shell`: what /bin/sh is to do.
  std::string Says(const std::string& shell) {
    return Run(R"("/bin/sh" "-c" "{ )" + shell + "; } > '" + output_.string() + ".new'; mv '" +
               output_.string() + ".new' '" + output_.string() + "'\"");
  }
  std::string SaysInRole(const std::string& role) {
    return Run("\"" + ThisProgram().string() + "\" --role into \"" + output_.string() + "\" " + role);
  }

 private:
  std::string Run(const std::string& command_line) {
    fs::remove(output_);
    const StartedProcess started = StartHidden(command_line);
    if (!started.started) return "not started, " + std::to_string(started.error);
    WaitFor([this] { return fs::exists(output_); });
    return Content(output_);
  }

  const tolm::test::TempDirectory folder_;
  const fs::path output_ = folder_.path() / "output";
};

std::string ChildSays(std::vector<std::string> role) {
  Actor actor(std::move(role));
  if (!actor.Start()) return actor.why();
  actor.WaitEnd();
  actor.WaitEndOfOutput();
  return actor.printed().Text();
}

constexpr int kStarts = 40;

TEST(OsInheritance, OfAChildHasNoDescriptorWhateverOtherThreadsOpen) {
  Rows rows("inherited");
  const CarelessThreads others;
  for (int i = 0; i < kStarts; ++i) {
    rows.Expect(std::string("open: 0 1 2\n"), ChildSays({"list-descriptors"}), std::to_string(i));
  }
}

TEST(OsInheritance, OfAHiddenProcessHasNoDescriptorWhateverOtherThreadsOpen) {
  Rows rows("inherited");
  const CarelessThreads others;
  Hidden hidden;
  for (int i = 0; i < kStarts; ++i) {
    rows.Expect(std::string("open: 0 1 2\n"), hidden.SaysInRole("list-descriptors"), std::to_string(i));
  }
}

TEST(OsInheritance, SignalsAreAsAtFirstWhateverThisThreadBlocksAndThisProcessIgnores) {
  Rows rows("inherited");
  const std::string at_first = "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n";
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  std::vector<std::pair<int, void (*)(int)>> handlers;
  for (const int signal : {SIGPIPE, SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD, SIGRTMIN}) {
    handlers.emplace_back(signal, std::signal(signal, signal == SIGCHLD ? SIG_DFL : SIG_IGN));
  }
  rows.Expect(at_first + "leads its group\n", ChildSays({"show-signals"}), "a child");
  Hidden hidden;
  rows.Expect(at_first + "is in a group\n", hidden.SaysInRole("show-signals"), "a hidden process");
  for (const auto& [signal, handler] : handlers) std::signal(signal, handler);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(OsInheritance, OfAHiddenProcessIsTheEnvironmentAndTheFolder) {
  Rows rows("inherited");
  const tolm::test::EnvironmentValue kept("TEST_KEPT", "with a blank, = and \xC3\xA4");
  const tolm::test::EnvironmentValue empty("TEST_EMPTY", "");
  std::vector<std::string> expected = OwnEnvironment();
  Hidden hidden;
  std::vector<std::string> seen = SortedLines(hidden.Says("/usr/bin/env"));
  // The shell's own.
  const auto is_shells = [](const std::string& entry) {
    return entry.starts_with("_=") || entry.starts_with("PWD=") || entry.starts_with("OLDPWD=") ||
           entry.starts_with("SHLVL=");
  };
  std::erase_if(expected, is_shells);
  std::erase_if(seen, is_shells);
  rows.Expect(expected, seen, "the environment");
  rows.Expect(fs::current_path().string() + "\n", hidden.Says("pwd"), "the folder");
}

TEST(OsInheritance, OfAChildIsTheEnvironmentWithWhatIsAddedAndItsMark) {
  Rows rows("inherited");
  const tolm::test::EnvironmentValue kept("TEST_KEPT", "kept");
  const tolm::test::EnvironmentValue replaced("TEST_REPLACED", "before");
  Actor actor({});
  actor.request() = {.program = "/usr/bin/env",
                     .environment = {{"TEST_REPLACED", "after"}, {"TEST_ADDED", ""}}};
  ASSERT_TRUE(actor.Start()) << actor.why();
  ASSERT_TRUE(actor.WaitEndOfOutput());
  std::vector<std::string> expected = OwnEnvironment();
  std::replace(expected.begin(), expected.end(), std::string("TEST_REPLACED=before"),
               std::string("TEST_REPLACED=after"));
  expected.emplace_back("TEST_ADDED=");
  std::sort(expected.begin(), expected.end());
  std::vector<std::string> seen = SortedLines(actor.printed().Text());
  const auto is_mark = [](const std::string& entry) { return entry.starts_with(kMarkVariable); };
  std::erase_if(expected, is_mark);
  rows.Expect(std::size_t{1}, std::erase_if(seen, is_mark), "the mark by which its tree is found");
  rows.Expect(expected, seen, "the environment");
}

TEST(OsInheritance, OfAChildIsTheFolderThatItIsGiven) {
  Rows rows("inherited");
  const tolm::test::TempDirectory folder;
  for (const std::string& wanted : {std::string(), fs::canonical(folder.path()).string()}) {
    Actor actor({});
    actor.request() = {.program = "/bin/pwd", .working_folder = wanted};
    ASSERT_TRUE(actor.Start()) << actor.why();
    ASSERT_TRUE(actor.WaitEndOfOutput());
    rows.Expect((wanted.empty() ? fs::current_path().string() : wanted) + "\n", actor.printed().Text(),
                wanted);
  }
}

}  // namespace
}  // namespace os
