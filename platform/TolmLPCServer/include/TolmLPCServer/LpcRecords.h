#pragma once

// The records that cross the transport's interface. All texts are byte strings, NUL bytes allowed in
// the values of `params` and in `body`.

#include <cstdint>
#include <map>
#include <memory>
#include <string>

/// Named values that travel with a message.
using LpcParams = std::map<std::string, std::string>;

/// An outgoing request.
struct tag_LPCRequestData {
  std::string dst_id;
  LpcParams params;
  std::string body;
};

/// The answer to a waiting send.
struct tag_LPCResponseData {
  std::string src_id;  ///< who answered
  LpcParams params;
  std::string body;
};

/// An outgoing reply.
struct tag_LPCReplyData {
  std::uint64_t msg_id = 0;  ///< id of the request that is answered
  std::string dst_id;
  LpcParams params;
  std::string body;
};

/// An outgoing notification.
struct tag_LPCNotifyData {
  std::string dst_id;
  LpcParams params;
  std::string body;
};

/// An inbound message. Copies are as good as the original.
struct tag_LPCCallBackData {
  std::uint64_t msg_id = 0;
  bool is_reply = false;    ///< answers an earlier request
  bool need_reply = false;  ///< the sender awaits a reply
  std::string src_id;
  std::string dst_id;
  LpcParams params;
  std::string body;
  /// Keeps the message counted as "being worked on" against its sender, until the last copy of the
  /// record is gone; a sender with too much of that is not read from meanwhile. May be empty.
  std::shared_ptr<const void> lease;
};
