// Names of endpoints: pipes whose names hold the user's, so that two users may use one name. Processes that
// have another XDG_RUNTIME_DIR have other endpoints, as on systems where these lie in that folder. A pipe
// exists as long as one of its instances, and the listener always has some that wait: nobody else can take
// the name, before the first connection or between two. That the first instance is the first of all is asked
// of the system; for systems that do not look (Wine), a lock and a question beforehand say the same.

#include <cstdlib>
#include <utility>
#include <vector>

#include "Job.h"
#include "NameHash.h"
#include "PipePoller.h"
#include "PipeSecurity.h"
#include "PipeStream.h"
#include "ProcessUser.h"
#include "WideText.h"
#include "os/ChildProcess.h"
#include "os/LocalStream.h"
#include "os/Mutex.h"

namespace os {
namespace {

// Instances that wait: so many may connect before the first is accepted.
constexpr std::size_t kWaiting = 8;
constexpr DWORD kPipeBytes = 64u << 10;
// How long somebody who connects waits for an instance when all of them are being accepted.
constexpr DWORD kBusyWaitMs = 50;
constexpr int kBusyTries = 20;

template <typename T>
EndpointResult<T> Fail(EndpointError error, std::string message) {
  return {nullptr, error, std::move(message)};
}

std::wstring PipeName(const std::string& name) {
  std::wstring pipe = L"\\\\.\\pipe\\tolm-lpc-" + OwnUserText() + L"-";
  if (const char* const folder = std::getenv("XDG_RUNTIME_DIR"); folder != nullptr && *folder != '\0') {
    pipe += Widen(NameHash(folder)) + L"-";
  }
  return pipe + FromUtf8(name);
}

EndpointError CheckName(const std::string& name, std::string& message) {
  if (!IsEndpointName(name)) {
    message = "an endpoint name is 1 to 64 letters, digits, '.', '_' or '-' and does not begin with '.'";
    return EndpointError::kNameInvalid;
  }
  if (OwnUserText().empty()) {
    message = "the system does not tell as which user this process runs";
    return EndpointError::kFailed;
  }
  return EndpointError::kNone;
}

PeerIdentity IdentityOf(ULONG process_id) {
  const Handle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process_id));
  const std::vector<char> user = UserOf(process);
  return {!user.empty() && user == OwnUser(), static_cast<long>(process_id)};
}

/// An instance of a pipe, with the system's answer to whether somebody has connected.
class Instance {
 public:
  explicit Instance(Handle pipe) : end_{std::move(pipe), Port::NewKey(), nullptr} {}
  Instance(Instance&&) = default;
  Instance& operator=(Instance&&) = default;
  ~Instance() {
    if (!connect_) return;
    ::CancelIoEx(end_.handle.get(), &connect_->overlapped);
    if (end_.port) end_.port->Keep(end_.key, std::move(connect_));
    while (connect_ && !connect_->IsCompleted()) ::SwitchToThread();
  }

  PipeEnd& end() { return end_; }

  /// Whether somebody has connected; waits for him, in the background, as long as nobody has.
  bool IsConnected() {
    if (connected_) return true;
    // A wait ends without anybody when the thread that began it does.
    while (!connect_ || connect_->IsCompleted()) {
      if (connect_) {
        DWORD ignored = 0;
        connected_ =
            ::GetOverlappedResult(end_.handle.get(), &connect_->overlapped, &ignored, FALSE) != FALSE;
        connect_.reset();
        if (connected_) return true;
      }
      if (!Begin()) return connected_;
    }
    return false;
  }

  /// What was begun before the handle is bound to a port tells no port of its end.
  void CancelBeforeBinding() {
    if (end_.port != nullptr || !connect_) return;
    ::CancelIoEx(end_.handle.get(), &connect_->overlapped);
    while (!connect_->IsCompleted()) ::SwitchToThread();
    IsConnected();
  }

 private:
  // False when there is nothing to wait for.
  bool Begin() {
    auto connect = std::make_unique<PipeOperation>();
    if (::ConnectNamedPipe(end_.handle.get(), &connect->overlapped)) {
      connected_ = true;
      return false;
    }
    switch (::GetLastError()) {
      case ERROR_IO_PENDING:
        connect_ = std::move(connect);
        return true;
      case ERROR_NO_DATA:  // somebody came and went
        ::DisconnectNamedPipe(end_.handle.get());
        return Again();
      default:  // ERROR_PIPE_CONNECTED; what else it may be, reading will tell
        connected_ = true;
        return false;
    }
  }

  bool Again() {
    auto connect = std::make_unique<PipeOperation>();
    connected_ =
        ::ConnectNamedPipe(end_.handle.get(), &connect->overlapped) || ::GetLastError() != ERROR_IO_PENDING;
    if (!connected_) connect_ = std::move(connect);
    return !connected_;
  }

  PipeEnd end_;
  bool connected_ = false;
  std::unique_ptr<PipeOperation> connect_;
};

Handle CreateInstance(const std::wstring& name, bool first) {
  return Handle(::CreateNamedPipeW(
      name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0),
      PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, PIPE_UNLIMITED_INSTANCES,
      kPipeBytes, kPipeBytes, 0, OwnerOnly()));
}

/// Whether somebody has made a pipe of this name.
bool Exists(const std::wstring& pipe) {
  // No instance waits, and none comes within this millisecond; or there is none.
  return ::WaitNamedPipeW(pipe.c_str(), 1) || ::GetLastError() != ERROR_FILE_NOT_FOUND;
}

/// The instances that wait.
class Door final : public PipeSource, public std::enable_shared_from_this<Door> {
 public:
  Door(std::unique_ptr<ProcessLock> lock, std::wstring name, std::vector<Instance> instances)
      : lock_(std::move(lock)), name_(std::move(name)), instances_(std::move(instances)) {}

  Listener::Accepted Accept() {
    const MutexLock lock(mutex_);
    for (Instance& instance : instances_) {
      if (!instance.IsConnected()) continue;
      // The next one first, so that there is one at any time.
      Handle next = CreateInstance(name_, false);
      if (!next) return {nullptr, IoStatus::kFailed, true, static_cast<int>(::GetLastError())};
      ULONG process_id = 0;
      ::GetNamedPipeClientProcessId(instance.end().handle.get(), &process_id);
      PipeEnd end = std::move(instance.end());
      if (end.port) end.port->Forget(end.key);
      instance = Instance(std::move(next));
      return {MakePipeStream(std::move(end), IdentityOf(process_id)), IoStatus::kDone, false, 0};
    }
    return {};
  }

  void Close() {
    Disarm();
    const MutexLock lock(mutex_);
    instances_.clear();
    lock_.reset();  // last: a successor may begin only when the pipe is gone
  }

  bool Arm(const std::shared_ptr<Port>& port, std::uint64_t token, unsigned interest) override {
    const MutexLock lock(mutex_);
    armed_ = (interest & Poller::kRead) != 0;
    token_ = token;
    for (Instance& instance : instances_) {
      instance.CancelBeforeBinding();
      if (!port->Watch(port, instance.end(), shared_from_this())) return false;
    }
    if (SomebodyCameLocked()) port->Hint(instances_.front().end().key);
    return true;
  }

  void Disarm() override {
    const MutexLock lock(mutex_);
    armed_ = false;
    for (Instance& instance : instances_) {
      if (instance.end().port) instance.end().port->Forget(instance.end().key);
    }
  }

  std::optional<Readiness> Take(const OVERLAPPED*) override {
    const MutexLock lock(mutex_);
    if (!armed_ || !SomebodyCameLocked()) return std::nullopt;
    armed_ = false;
    return Readiness{token_, true, false};
  }

 private:
  bool SomebodyCameLocked() TOLM_REQUIRES(mutex_) {
    bool somebody = false;
    for (Instance& instance : instances_) somebody |= instance.IsConnected();  // all are to wait
    return somebody;
  }

  std::unique_ptr<ProcessLock> lock_;
  const std::wstring name_;
  Mutex mutex_;
  std::vector<Instance> instances_ TOLM_GUARDED_BY(mutex_);
  bool armed_ TOLM_GUARDED_BY(mutex_) = false;
  std::uint64_t token_ TOLM_GUARDED_BY(mutex_) = 0;
};

class PipeListener final : public Listener {
 public:
  explicit PipeListener(std::shared_ptr<Door> door)
      : Listener(reinterpret_cast<std::intptr_t>(static_cast<PipeSource*>(door.get()))),
        door_(std::move(door)) {}
  ~PipeListener() override { door_->Close(); }

  Accepted Accept() override { return door_->Accept(); }

 private:
  const std::shared_ptr<Door> door_;
};

class PipeTransport final : public LocalTransport {
 public:
  EndpointResult<Listener> Listen(const std::string& name) override {
    std::string message;
    if (const auto error = CheckName(name, message); error != EndpointError::kNone) {
      return Fail<Listener>(error, message);
    }
    if (OwnerOnly() == nullptr) {
      return Fail<Listener>(EndpointError::kFailed,
                            SystemMessage("describing who may connect", ::GetLastError()));
    }
    const std::wstring pipe = PipeName(name);
    std::string fault;
    auto lock = ProcessLock::TryTake("endpoint " + ToUtf8(pipe), fault);
    if (!lock && !fault.empty()) return Fail<Listener>(EndpointError::kFailed, fault);
    if (!lock || Exists(pipe)) {
      return Fail<Listener>(EndpointError::kInUse, ToUtf8(pipe) + " is held by a living process");
    }
    std::vector<Instance> instances;
    for (std::size_t i = 0; i < kWaiting; ++i) {
      Handle instance = CreateInstance(pipe, i == 0);
      if (!instance) {
        const DWORD error = ::GetLastError();
        if (i == 0 && (error == ERROR_ACCESS_DENIED || error == ERROR_PIPE_BUSY)) {
          return Fail<Listener>(EndpointError::kInUse, ToUtf8(pipe) + " is held by a living process");
        }
        return Fail<Listener>(EndpointError::kFailed, SystemMessage("creating " + ToUtf8(pipe), error));
      }
      instances.emplace_back(std::move(instance));
    }
    auto door = std::make_shared<Door>(std::move(lock), pipe, std::move(instances));
    return {std::make_unique<PipeListener>(std::move(door)), EndpointError::kNone, {}};
  }

  EndpointResult<Stream> Connect(const std::string& name) override {
    std::string message;
    if (const auto error = CheckName(name, message); error != EndpointError::kNone) {
      return Fail<Stream>(error, message);
    }
    const std::wstring pipe = PipeName(name);
    for (int tries = 0;; ++tries) {
      // A server that is not ours learns who we are, and cannot act as us.
      Handle end(::CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                               FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION,
                               nullptr));
      if (end) return MakeStream(std::move(end), pipe);
      const DWORD error = ::GetLastError();
      if (error == ERROR_PIPE_BUSY && tries < kBusyTries) {
        ::WaitNamedPipeW(pipe.c_str(), kBusyWaitMs);
        continue;
      }
      const auto kind = error == ERROR_FILE_NOT_FOUND ? EndpointError::kNobodyListens
                        : error == ERROR_PIPE_BUSY    ? EndpointError::kBusy
                                                      : EndpointError::kFailed;
      return Fail<Stream>(kind, SystemMessage("connecting to " + ToUtf8(pipe), error));
    }
  }

  std::unique_ptr<Poller> CreatePoller() override { return CreatePipePoller(); }

 private:
  static EndpointResult<Stream> MakeStream(Handle end, const std::wstring& pipe) {
    ULONG process_id = 0;
    ::GetNamedPipeServerProcessId(end.get(), &process_id);
    if (!IsOwnedByThisUser(end)) {
      return Fail<Stream>(EndpointError::kFailed, ToUtf8(pipe) + " belongs to another user");
    }
    return {MakePipeStream({std::move(end), Port::NewKey(), nullptr}, IdentityOf(process_id)),
            EndpointError::kNone,
            {}};
  }
};

}  // namespace

LocalTransport& SystemTransport() {
  static PipeTransport& transport = *new PipeTransport;
  return transport;
}

}  // namespace os
