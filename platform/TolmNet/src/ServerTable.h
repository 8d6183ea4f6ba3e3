#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "ServerOptions.h"
#include "ServerThread.h"
#include "TolmNet/HttpServer.h"
#include "os/Mutex.h"

namespace Tolm::Net {

/// The process's servers by handle. As the functions of CHttpServer, with options, and may throw.
class ServerTable {
 public:
  static ServerTable& Instance();

  int Start(std::int32_t& handle, const std::string& ip, std::uint16_t port, HttpServerCallBack callback,
            const ServerOptions& options);
  int SetCallback(std::int32_t handle, WebSocketServerCallBack callback);
  int Stop(std::int32_t handle);

 private:
  os::Mutex mutex_;  // not held while a server starts or stops
  std::int32_t last_handle_ TOLM_GUARDED_BY(mutex_) = 0;
  std::unordered_map<std::int32_t, std::shared_ptr<ServerThread>> servers_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace Tolm::Net
