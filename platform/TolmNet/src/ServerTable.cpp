#include "ServerTable.h"

#include <utility>

namespace Tolm::Net {

// Never destroyed: a process may exit while servers run.
ServerTable& ServerTable::Instance() {
  static ServerTable& instance = *new ServerTable;
  return instance;
}

int ServerTable::Start(std::int32_t& handle, const std::string& ip, std::uint16_t port,
                       HttpServerCallBack callback, const ServerOptions& options) {
  SocketAddress address;
  address.port = port;
  // With port 0 the system would choose one, and nobody could tell which.
  if (!callback || port == 0 || !ParseIp(ip, address.ip)) return kNetBadArgument;
  const auto server = std::make_shared<ServerThread>(std::move(callback), options);
  const auto entry = [&] {
    const os::MutexLock lock(mutex_);
    // Kept free before the thread runs, so that a server that runs has a handle.
    servers_[last_handle_ + 1] = nullptr;
    return ++last_handle_;
  }();
  int result = kNetCannotListen;
  try {
    result = server->Start(address);
  } catch (...) {
    const os::MutexLock lock(mutex_);
    servers_.erase(entry);
    throw;
  }
  const os::MutexLock lock(mutex_);
  if (result != kNetOk) {
    servers_.erase(entry);
    return result;
  }
  servers_[entry] = server;
  handle = entry;
  return kNetOk;
}

int ServerTable::SetCallback(std::int32_t handle, WebSocketServerCallBack callback) {
  if (!callback) return kNetBadArgument;
  std::shared_ptr<ServerThread> server;
  {
    const os::MutexLock lock(mutex_);
    const auto found = servers_.find(handle);
    if (found == servers_.end() || found->second == nullptr) return kNetNoSuchHandle;
    server = found->second;
  }
  server->SetCallback(std::move(callback));
  return kNetOk;
}

int ServerTable::Stop(std::int32_t handle) {
  std::shared_ptr<ServerThread> server;
  {
    const os::MutexLock lock(mutex_);
    const auto found = servers_.find(handle);
    if (found == servers_.end() || found->second == nullptr) return kNetNoSuchHandle;
    server = std::move(found->second);
    servers_.erase(found);
  }
  server->Stop();
  return kNetOk;
}

}  // namespace Tolm::Net
