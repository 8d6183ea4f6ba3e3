#include "TolmLPCServer/LpcError.h"

namespace lpc {

const char* ErrorText(int error) noexcept {
  switch (error) {
    case kOk:
      return "no error";
    case kNotInitialised:
      return "not initialised";
    case kAlreadyListening:
      return "already listening under another name";
    case kEndpointInUse:
      return "a living process listens under this name";
    case kEndpointNameInvalid:
      return "endpoint name not valid";
    case kEndpointFailed:
      return "the system refused the endpoint";
    case kNoSuchPeer:
      return "nobody with this id is connected";
    case kPeerGone:
      return "the connection ended";
    case kTimeOut:
      return "no answer in time";
    case kQueueFull:
      return "the peer does not take what is queued for it";
    case kMessageTooLarge:
      return "message too large";
    case kRefused:
      return "refused by the other side";
    case kNotConnected:
      return "not connected";
    case kProtocol:
      return "the other side does not speak this protocol";
    default:
      return "failed";
  }
}

}  // namespace lpc
