// What may lie in an endpoint's place, row by row, for the end that listens and for the one that connects.

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Descriptor.h"
#include "os/LocalStream.h"
#include "support/Rows.h"
#include "support/TempDirectory.h"
#include "support/posix/Stranger.h"

namespace os {

std::ostream& operator<<(std::ostream& out, EndpointError error) {
  return out << "error " << static_cast<int>(error);
}

namespace {

namespace fs = std::filesystem;
using tolm::test::EnvironmentValue;
using tolm::test::Rows;
using tolm::test::Stranger;

constexpr auto kFine = EndpointError::kNone;
constexpr auto kFailed = EndpointError::kFailed;
constexpr auto kNobody = EndpointError::kNobodyListens;

/// A fresh place for each row: a folder for everything, XDG_RUNTIME_DIR in it, and the folder of endpoints in
/// that one.
class Place {
 public:
  explicit Place(const fs::path& own) : base(own), runtime(own / "run"), folder(runtime / "tolm-lpc") {
    fs::create_directory(runtime);
  }

  void MakeFolder(mode_t mode) const {
    fs::create_directory(folder);
    ::chmod(folder.c_str(), mode);
  }
  void Occupy(const fs::path& path, const std::string& content = {}) const { std::ofstream(path) << content; }
  /// A socket that is bound there, and listens if that is wanted.
  void Bind(const fs::path& path, bool listens) {
    Descriptor bound(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ::bind(bound.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    if (listens) ::listen(bound.get(), 1);
    sockets_.push_back(std::move(bound));
  }

  const fs::path base;
  const fs::path runtime;
  const fs::path folder;
  const fs::path socket = folder / "name.sock";
  const fs::path lock = folder / "name.lock";
  std::optional<std::string> variable = runtime;  ///< XDG_RUNTIME_DIR
  std::optional<std::string> temporary;           ///< TMPDIR

 private:
  std::vector<Descriptor> sockets_;
};

struct Row {
  std::string what;
  EndpointError listen;   ///< what the end that listens gets
  EndpointError connect;  ///< what a plugin gets before anybody of ours listens
  std::function<void(Place&)> prepare;
};

void AddModes(std::vector<Row>& rows) {
  // Set-user-ID, set-group-ID and the sticky bit let nobody in.
  for (const mode_t mode : {00700u, 01700u, 02700u, 04700u}) {
    rows.push_back({"folder of mode " + std::to_string(mode), kFine, kNobody,
                    [mode](Place& place) { place.MakeFolder(mode); }});
  }
  for (const mode_t mode :
       {00755u, 00777u, 01777u, 00750u, 00710u, 00701u, 00770u, 00704u, 00740u, 00720u, 00702u}) {
    rows.push_back({"folder of mode " + std::to_string(mode), kFailed, kFailed,
                    [mode](Place& place) { place.MakeFolder(mode); }});
  }
}

void AddFolders(std::vector<Row>& rows) {
  rows.push_back({"no folder", kFine, kNobody, [](Place&) {}});
  rows.push_back({"folder is a link to a good one", kFailed, kFailed, [](Place& place) {
                    fs::create_directory(place.base / "good");
                    ::chmod((place.base / "good").c_str(), 0700);
                    fs::create_directory_symlink(place.base / "good", place.folder);
                  }});
  rows.push_back({"folder is a link to nothing", kFailed, kFailed,
                  [](Place& place) { fs::create_directory_symlink(place.base / "nothing", place.folder); }});
  rows.push_back({"folder is a file", kFailed, kFailed, [](Place& place) { place.Occupy(place.folder); }});
  rows.push_back(
      {"folder is a pipe", kFailed, kFailed, [](Place& place) { ::mkfifo(place.folder.c_str(), 0700); }});
  rows.push_back(
      {"folder is a socket", kFailed, kFailed, [](Place& place) { place.Bind(place.folder, true); }});
  rows.push_back({"a link above what is ours", kFine, kNobody, [](Place& place) {
                    fs::create_directory_symlink(place.runtime, place.base / "link");
                    place.variable = place.base / "link";
                  }});
}

void AddSockets(std::vector<Row>& rows) {
  const auto with = [](auto act) {
    return [act](Place& place) {
      place.MakeFolder(0700);
      act(place);
    };
  };
  rows.push_back({"socket is a file", kFine, kNobody, with([](Place& p) { p.Occupy(p.socket, "text"); })});
  rows.push_back({"socket is a directory", kFailed, kNobody,
                  with([](Place& p) { fs::create_directories(p.socket / "inside"); })});
  rows.push_back(
      {"socket is a pipe", kFine, kNobody, with([](Place& p) { ::mkfifo(p.socket.c_str(), 0600); })});
  rows.push_back(
      {"socket of a killed process", kFine, kNobody, with([](Place& p) { p.Bind(p.socket, false); })});
  rows.push_back({"socket is a link to one that listens", kFine, kFailed, with([](Place& p) {
                    p.Bind(p.base / "another", true);
                    fs::create_symlink(p.base / "another", p.socket);
                  })});
  rows.push_back({"socket is a link to nothing", kFine, kFailed,
                  with([](Place& p) { fs::create_symlink(p.base / "nothing", p.socket); })});
  rows.push_back({"lock is a link to a file", kFailed, kNobody, with([](Place& p) {
                    p.Occupy(p.base / "precious", "content");
                    fs::create_symlink(p.base / "precious", p.lock);
                  })});
  rows.push_back({"lock is a link to nothing", kFailed, kNobody,
                  with([](Place& p) { fs::create_symlink(p.base / "nothing", p.lock); })});
  rows.push_back(
      {"lock is a directory", kFailed, kNobody, with([](Place& p) { fs::create_directory(p.lock); })});
  rows.push_back({"lock is a socket", kFailed, kNobody, with([](Place& p) { p.Bind(p.lock, true); })});
  rows.push_back(
      {"lock that a killed process left", kFine, kNobody, with([](Place& p) { p.Occupy(p.lock); })});
}

void AddVariables(std::vector<Row>& rows) {
  const auto temporary = [](std::optional<std::string> variable) {
    return [variable](Place& place) {
      place.variable = variable;
      place.temporary = place.base;
    };
  };
  rows.push_back({"XDG_RUNTIME_DIR missing", kFine, kNobody, temporary(std::nullopt)});
  rows.push_back({"XDG_RUNTIME_DIR empty", kFine, kNobody, temporary("")});
  rows.push_back({"XDG_RUNTIME_DIR relative", kFine, kNobody, temporary("run")});
  rows.push_back({"XDG_RUNTIME_DIR relative, with a dot", kFine, kNobody, temporary("./run")});
  rows.push_back({"XDG_RUNTIME_DIR with a slash at its end", kFine, kNobody,
                  [](Place& place) { place.variable = place.runtime.string() + "/"; }});
  rows.push_back({"XDG_RUNTIME_DIR with two slashes", kFine, kNobody,
                  [](Place& place) { place.variable = place.base.string() + "//run//"; }});
  rows.push_back({"XDG_RUNTIME_DIR with dots", kFine, kNobody,
                  [](Place& place) { place.variable = place.runtime.string() + "/../run/."; }});
  rows.push_back({"XDG_RUNTIME_DIR too long", EndpointError::kNameInvalid, EndpointError::kNameInvalid,
                  [](Place& place) {
                    place.variable = place.base / std::string(100, 'd');
                    fs::create_directory(*place.variable);
                  }});
  rows.push_back({"XDG_RUNTIME_DIR that is not there", kFailed, kNobody,
                  [](Place& place) { place.variable = place.base / "missing"; }});
  rows.push_back({"XDG_RUNTIME_DIR that is a file", kFailed, kFailed, [](Place& place) {
                    place.variable = place.base / "file";
                    place.Occupy(*place.variable);
                  }});
  rows.push_back({"TMPDIR that is not there", kFailed, kNobody, [](Place& place) {
                    place.variable = std::nullopt;
                    place.temporary = place.base / "missing";
                  }});
}

/// Root is not kept out by modes, so these are for others only.
void AddModesThatKeepOut(std::vector<Row>& rows) {
  rows.push_back({"XDG_RUNTIME_DIR that is not writable", kFailed, kNobody,
                  [](Place& place) { ::chmod(place.runtime.c_str(), 0500); }});
  rows.push_back({"XDG_RUNTIME_DIR that may not be entered", kFailed, kFailed,
                  [](Place& place) { ::chmod(place.runtime.c_str(), 0600); }});
  rows.push_back({"folder that is not writable", kFailed, kNobody, [](Place& p) { p.MakeFolder(0500); }});
  rows.push_back({"folder that may not be entered", kFailed, kFailed, [](Place& p) { p.MakeFolder(0600); }});
  rows.push_back({"lock that may not be opened", kFailed, kNobody, [](Place& place) {
                    place.MakeFolder(0700);
                    place.Occupy(place.lock);
                    ::chmod(place.lock.c_str(), 0000);
                  }});
}

/// Only root can make what belongs to others.
void AddOwners(std::vector<Row>& rows) {
  for (const mode_t mode : {0700u, 0777u}) {
    rows.push_back({"folder of somebody else", kFailed, kFailed, [mode](Place& place) {
                      place.MakeFolder(mode);
                      ASSERT_EQ(::chown(place.folder.c_str(), Stranger::kUser, Stranger::kUser), 0);
                    }});
  }
  rows.push_back({"socket of somebody else", kFine, kNobody, [](Place& place) {
                    place.MakeFolder(0700);
                    place.Bind(place.socket, false);
                    ASSERT_EQ(::chown(place.socket.c_str(), Stranger::kUser, Stranger::kUser), 0);
                  }});
}

mode_t ModeOf(const fs::path& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

void GoThrough(const std::vector<Row>& table, const fs::path& base, Rows& rows) {
  for (const Row& row : table) {
    const fs::path own = base / "row";
    fs::create_directory(own);
    {
      Place place(own);
      row.prepare(place);
      const EnvironmentValue runtime("XDG_RUNTIME_DIR", place.variable);
      const EnvironmentValue temporary("TMPDIR", place.temporary);
      rows.Expect(row.connect, SystemTransport().Connect("name").error, row.what + ", connecting");
      const auto listening = SystemTransport().Listen("name");
      rows.Expect(row.listen, listening.error, row.what + ", listening (" + listening.message + ")");
      if (listening.value) {
        const fs::path folder = place.temporary
                                    ? *place.temporary / fs::path("tolm-lpc-" + std::to_string(::geteuid()))
                                    : place.folder;
        rows.Expect(mode_t{0600}, ModeOf(folder / "name.sock"), row.what + ", the socket's mode");
        rows.Expect(mode_t{0700}, ModeOf(folder) & 0777, row.what + ", the folder's mode");
        rows.Expect(kFine, SystemTransport().Connect("name").error, row.what + ", connecting then");
      }
      const fs::path precious = own / "precious";
      if (fs::exists(precious))
        rows.Expect(std::uintmax_t{7}, fs::file_size(precious), row.what + ", its target");
      // Whatever the row has forbidden.
      ::chmod(place.runtime.c_str(), 0700);
      if (!fs::is_symlink(place.folder)) ::chmod(place.folder.c_str(), 0700);
    }
    fs::remove_all(own);
  }
}

std::vector<Row> CommonRows() {
  std::vector<Row> rows;
  AddModes(rows);
  AddFolders(rows);
  AddSockets(rows);
  AddVariables(rows);
  return rows;
}

TEST(OsEndpointAccess, HoldsForWhateverLiesThere) {
  const tolm::test::TempDirectory base;
  Rows rows("endpoint");
  std::vector<Row> table = CommonRows();
  if (Stranger::IsPossible()) {
    AddOwners(table);
  } else {
    AddModesThatKeepOut(table);
  }
  GoThrough(table, base.path(), rows);
}

TEST(OsEndpointAccess, HoldsForAUserWhoIsNotRoot) {
  if (!Stranger::IsPossible()) GTEST_SKIP() << "not root, so the case above has had all rows";
  const tolm::test::TempDirectory base;
  ASSERT_EQ(::chown(base.path().c_str(), Stranger::kUser, Stranger::kUser), 0);
  Stranger user([&](std::string_view) {
    std::vector<Row> table = CommonRows();
    AddModesThatKeepOut(table);
    Rows rows("endpoint");
    GoThrough(table, base.path(), rows);
    return std::to_string(rows.rows()) + " " + std::to_string(rows.wrong());
  });
  const std::string answer = user.Ask("go through it");
  const std::size_t blank = answer.find(' ');
  ASSERT_NE(blank, std::string::npos) << answer;
  Rows rows("endpoint");
  rows.Add(std::stoi(answer.substr(0, blank)), std::stoi(answer.substr(blank)));
}

TEST(OsEndpointAccess, LeavesNoMoreRightsToOthersWhateverTheUmask) {
  Rows rows("endpoint");
  for (const mode_t mask : {0000u, 0002u, 0022u, 0027u, 0077u, 0177u}) {
    const tolm::test::RuntimeDirectory runtime;
    const mode_t before = ::umask(mask);
    const auto listening = SystemTransport().Listen("name");
    ::umask(before);
    const std::string row = "umask " + std::to_string(mask);
    // A umask that takes rights from the user itself makes a folder that cannot be used.
    const bool possible = (mask & 0700) == 0;
    rows.Expect(possible || Stranger::IsPossible() ? kFine : kFailed, listening.error, row);
    if (!listening.value) continue;
    rows.Expect(mode_t{0700} & ~mask, ModeOf(runtime.endpoints()), row + ", folder");
    rows.Expect(mode_t{0600}, ModeOf(runtime.endpoints() / "name.sock"), row + ", socket");
    rows.Expect(mode_t{0600} & ~mask, ModeOf(runtime.endpoints() / "name.lock"), row + ", lock");
  }
}

}  // namespace
}  // namespace os
