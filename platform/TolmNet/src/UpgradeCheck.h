#pragma once

// A client's request: what it wants, and what it gets for it.

#include <optional>
#include <string>
#include <string_view>

namespace Tolm::Net {

/// A request with more than this in front of its body is refused.
inline constexpr std::size_t kMaxRequestHead = 16U * 1024;

struct UpgradeRequest {
  std::string method;
  std::string target;
  std::string version;  ///< "HTTP/1.1", or another digit at the end
  bool wants_websocket = false;
  bool has_connection_upgrade = false;
  bool has_origin = false;
  bool has_body = false;
  int host_count = 0;
  int key_count = 0;
  int version_count = 0;
  std::string host;
  std::string key;
  std::string websocket_version;
};

/// `head` ends with its empty line. Nothing when it is not a request.
std::optional<UpgradeRequest> ParseRequest(std::string_view head);

/// Whether a Host header names this machine's loopback interface: 127.0.0.1, localhost or [::1], with or
/// without a port. Another name that leads here is what a foreign web page would use.
bool IsLoopbackHost(std::string_view host);

/// The host that the target names itself, which counts more than the header: "a" of "http://a/b". Nothing
/// when it names none, as a guard's does.
std::optional<std::string_view> HostOfTarget(std::string_view target);

/// Why a request for a WebSocket may not be granted to anybody that sends it: null when it may.
const char* WhyForbidden(const UpgradeRequest& request);

/// Whether it can be granted at all. Otherwise the answer is left in `status`, as "400 Bad Request".
bool IsProperUpgrade(const UpgradeRequest& request, std::string_view& status);

std::string UpgradeAnswer(const UpgradeRequest& request);
/// A whole answer that ends its connection.
std::string ErrorAnswer(std::string_view status);

}  // namespace Tolm::Net
