#pragma once

#include <memory>
#include <utility>

#include "Descriptor.h"
#include "os/LocalStream.h"

namespace os {

/// One end of a connected Unix stream socket.
class UnixStream final : public Stream {
 public:
  explicit UnixStream(Descriptor socket) : Stream(socket.get()), socket_(std::move(socket)) {}
  IoResult Read(const MutableBuffer* buffers, std::size_t count) override;
  IoResult Write(const ConstBuffer* buffers, std::size_t count) override;
  StreamState Wait(bool for_room, int timeout_ms) override;
  bool CanWaitForRoom() const override { return true; }
  void SetBulk(bool bulk) override;
  void Shutdown() noexcept override;
  PeerIdentity Peer() const override;

 private:
  const Descriptor socket_;
  int usual_room_ = 0;  // bytes that the socket holds on their way; 0: not known yet
};

std::unique_ptr<Poller> CreateEpollPoller();

}  // namespace os
