// Names of endpoints: where their sockets lie, who holds them, and what a killed holder left behind.
//
// <name>.sock is the socket, <name>.lock is locked (flock) by the process that listens for as long as it
// lives; the system frees the lock of a killed process. Whoever holds the lock may replace the socket.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <cstring>

#include "Descriptor.h"
#include "RuntimeFolder.h"
#include "UnixStream.h"
#include "os/LocalStream.h"

namespace os {
namespace {

constexpr int kBacklog = 256;

std::string SocketName(const std::string& name) {
  return name + ".sock";
}

EndpointResult<sockaddr_un> Address(const std::string& name) {
  if (!IsEndpointName(name)) {
    return {nullptr, EndpointError::kNameInvalid,
            "an endpoint name is 1 to 64 letters, digits, '.', '_' or '-' and does not begin with '.'"};
  }
  const std::string path = RuntimeFolder::Path() + "/" + SocketName(name);
  auto address = std::make_unique<sockaddr_un>();
  if (path.size() >= sizeof address->sun_path) {
    return {nullptr, EndpointError::kNameInvalid, path + " is too long for a socket"};
  }
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return {std::move(address), EndpointError::kNone, {}};
}

template <typename T>
EndpointResult<T> Fail(EndpointError error, std::string message) {
  return {nullptr, error, std::move(message)};
}

// The lock file, locked, or nothing. A holder removes its file when it ends, so the file that was
// opened may not be the one that lies there by the time it is locked.
EndpointResult<Descriptor> Lock(const RuntimeFolder& folder, const std::string& name) {
  const std::string path = folder.PathOf(name);
  for (;;) {
    Descriptor lock = folder.OpenFile(name, O_CREAT);
    if (!lock) return Fail<Descriptor>(EndpointError::kFailed, SystemMessage("opening " + path));
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
      return errno == EWOULDBLOCK
                 ? Fail<Descriptor>(EndpointError::kInUse, path + " is held by a living process")
                 : Fail<Descriptor>(EndpointError::kFailed, SystemMessage("locking " + path));
    }
    const FilePlace place = folder.PlaceOf(name, lock);
    if (place == FilePlace::kUnknown) {
      return Fail<Descriptor>(EndpointError::kFailed, SystemMessage("looking at " + folder.PathOf(name)));
    }
    if (place == FilePlace::kThere) {
      return {std::make_unique<Descriptor>(std::move(lock)), EndpointError::kNone, {}};
    }
  }
}

// Why nobody should connect to the socket at `path`, or nothing. A link, or a folder that somebody else
// has made, may lead to another endpoint of this user, which is as good as any to the check of who listens.
std::string FaultBefore(const std::string& path) {
  std::string fault = RuntimeFolder::Fault();
  struct stat status {};
  if (fault.empty() && ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
    fault = path + " is a link";
  }
  return fault;
}

class UnixListener final : public Listener {
 public:
  UnixListener(RuntimeFolder folder, std::string socket_name, std::string lock_name, Descriptor lock,
               Descriptor socket)
      : Listener(socket.get()),
        folder_(std::move(folder)),
        socket_name_(std::move(socket_name)),
        lock_name_(std::move(lock_name)),
        lock_(std::move(lock)),
        socket_(std::move(socket)) {}

  ~UnixListener() override {
    folder_.Remove(socket_name_);
    folder_.Remove(lock_name_);
  }

  Accepted Accept() override {
    Descriptor peer(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (peer) return {std::make_unique<UnixStream>(std::move(peer)), IoStatus::kDone, false, 0};
    const int error = errno;
    switch (error) {
      case EAGAIN:
      case EINTR:
      case ECONNABORTED:
        return {nullptr, IoStatus::kWouldBlock, false, error};
      case EMFILE:
      case ENFILE:
      case ENOBUFS:
      case ENOMEM:
        return {nullptr, IoStatus::kFailed, true, error};
      default:
        return {nullptr, IoStatus::kFailed, false, error};
    }
  }

 private:
  const RuntimeFolder folder_;
  const std::string socket_name_;
  const std::string lock_name_;
  const Descriptor lock_;  // freed last: a successor may begin only when the files are gone
  const Descriptor socket_;
};

class UnixTransport final : public LocalTransport {
 public:
  EndpointResult<Listener> Listen(const std::string& name) override {
    const auto address = Address(name);
    if (!address.value) return Fail<Listener>(address.error, address.message);
    std::string fault;
    RuntimeFolder folder = RuntimeFolder::Open(fault);
    if (!fault.empty()) return Fail<Listener>(EndpointError::kFailed, fault);
    const std::string socket_path = address.value->sun_path;
    const std::string socket_name = SocketName(name);
    const std::string lock_name = name + ".lock";
    auto lock = Lock(folder, lock_name);
    if (!lock.value) return Fail<Listener>(lock.error, lock.message);
    // The lock is ours, so nobody alive listens there: what lies there was left by a killed process.
    if (!folder.Remove(socket_name) && errno != ENOENT) {
      return Fail<Listener>(EndpointError::kFailed, SystemMessage("replacing " + socket_path));
    }
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) return Fail<Listener>(EndpointError::kFailed, SystemMessage("making a socket"));
    const auto* generic = reinterpret_cast<const sockaddr*>(address.value.get());
    if (::bind(socket.get(), generic, sizeof(sockaddr_un)) != 0) {
      return Fail<Listener>(EndpointError::kFailed, SystemMessage("listening on " + socket_path));
    }
    // A socket is bound by its path alone, and somebody else's folder may lie there by now.
    if (!folder.ClaimSocket(socket_name) || ::listen(socket.get(), kBacklog) != 0) {
      return Fail<Listener>(EndpointError::kFailed, SystemMessage("listening on " + socket_path));
    }
    return {std::make_unique<UnixListener>(std::move(folder), socket_name, lock_name, std::move(*lock.value),
                                           std::move(socket)),
            EndpointError::kNone,
            {}};
  }

  EndpointResult<Stream> Connect(const std::string& name) override {
    const auto address = Address(name);
    if (!address.value) return Fail<Stream>(address.error, address.message);
    const std::string path = address.value->sun_path;
    if (const std::string fault = FaultBefore(path); !fault.empty()) {
      return Fail<Stream>(EndpointError::kFailed, fault);
    }
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) return Fail<Stream>(EndpointError::kFailed, SystemMessage("making a socket"));
    const auto* generic = reinterpret_cast<const sockaddr*>(address.value.get());
    if (::connect(socket.get(), generic, sizeof(sockaddr_un)) != 0) {
      const int error = errno;
      const auto kind = error == ENOENT || error == ECONNREFUSED ? EndpointError::kNobodyListens
                        : error == EAGAIN                        ? EndpointError::kBusy
                                                                 : EndpointError::kFailed;
      return Fail<Stream>(kind, SystemMessage("connecting to " + path, error));
    }
    return {std::make_unique<UnixStream>(std::move(socket)), EndpointError::kNone, {}};
  }

  std::unique_ptr<Poller> CreatePoller() override { return CreateEpollPoller(); }
};

}  // namespace

LocalTransport& SystemTransport() {
  static UnixTransport& transport = *new UnixTransport;
  return transport;
}

}  // namespace os
