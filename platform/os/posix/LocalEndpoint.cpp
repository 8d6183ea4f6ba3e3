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

struct Fault {
  EndpointError error = EndpointError::kNone;
  std::string message;
};

/// Made before its files are, so that these go whatever fails.
class UnixListener final : public Listener {
 public:
  UnixListener(RuntimeFolder folder, std::string socket_name, std::string lock_name, Descriptor socket)
      : Listener(socket.get()),
        folder_(std::move(folder)),
        socket_name_(std::move(socket_name)),
        lock_name_(std::move(lock_name)),
        socket_(std::move(socket)) {}

  ~UnixListener() override {
    if (!lock_) return;
    folder_.Remove(socket_name_);
    folder_.Remove(lock_name_);
  }

  /// Takes the name and listens under it; what failed, if anything did.
  Fault Begin(const sockaddr_un& address) {
    if (Fault fault = TakeLock(); fault.error != EndpointError::kNone) return fault;
    // The lock is ours, so nobody alive listens there: what lies there was left by a killed process.
    if (!folder_.Remove(socket_name_) && errno != ENOENT) return Failed("replacing ", socket_name_);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    // A socket is bound by its path alone, and somebody else's folder may lie there by now.
    if (::bind(socket_.get(), generic, sizeof address) != 0 || !folder_.ClaimSocket(socket_name_) ||
        ::listen(socket_.get(), kBacklog) != 0) {
      return Failed("listening on ", socket_name_);
    }
    return {};
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
  Fault Failed(const char* doing, const std::string& name) const {
    const int error = errno;
    return {EndpointError::kFailed, SystemMessage(doing + folder_.PathOf(name), error)};
  }

  // A holder removes its file when it ends, so the file that was opened may not be the one that lies there by
  // the time it is locked.
  Fault TakeLock() {
    for (;;) {
      Descriptor lock = folder_.OpenFile(lock_name_, O_CREAT);
      if (!lock) return Failed("opening ", lock_name_);
      if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) return Failed("locking ", lock_name_);
        return {EndpointError::kInUse, folder_.PathOf(lock_name_) + " is held by a living process"};
      }
      switch (folder_.PlaceOf(lock_name_, lock)) {
        case FilePlace::kThere:
          lock_ = std::move(lock);
          return {};
        case FilePlace::kUnknown:
          return Failed("looking at ", lock_name_);
        case FilePlace::kElsewhere:
          break;
      }
    }
  }

  const RuntimeFolder folder_;
  const std::string socket_name_;
  const std::string lock_name_;
  Descriptor lock_;  // freed last: a successor may begin only when the files are gone
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
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) return Fail<Listener>(EndpointError::kFailed, SystemMessage("making a socket"));
    auto listener = std::make_unique<UnixListener>(std::move(folder), SocketName(name), name + ".lock",
                                                   std::move(socket));
    const Fault begun = listener->Begin(*address.value);
    if (begun.error != EndpointError::kNone) return Fail<Listener>(begun.error, begun.message);
    return {std::move(listener), EndpointError::kNone, {}};
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
