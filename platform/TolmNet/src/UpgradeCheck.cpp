#include "UpgradeCheck.h"

#include <libwebsockets.h>

#include <algorithm>

namespace Tolm::Net {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kBlanks = " \t";

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsSame(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return Lower(x) == Lower(y); });
}

std::string_view Trim(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool HasToken(std::string_view list, std::string_view token) {
  while (!list.empty()) {
    const std::size_t comma = std::min(list.find(','), list.size());
    if (IsSame(Trim(list.substr(0, comma)), token)) return true;
    list.remove_prefix(std::min(comma + 1, list.size()));
  }
  return false;
}

bool IsTokenChar(char c) {
  constexpr std::string_view kOthers = "!#$%&'*+-.^_`|~";
  return (c >= '0' && c <= '9') || (Lower(c) >= 'a' && Lower(c) <= 'z') ||
         kOthers.find(c) != std::string_view::npos;
}

bool IsToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsTokenChar);
}

bool IsControlChar(char c) {
  return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
}

bool HasControlChar(std::string_view text) {
  return std::any_of(text.begin(), text.end(), IsControlChar);
}

// Sixteen bytes in Base64: 22 characters, of which the last has four bits to spare, and "==".
bool IsKey(std::string_view key) {
  const auto is_base64 = [](char c) {
    return (c >= '0' && c <= '9') || (Lower(c) >= 'a' && Lower(c) <= 'z') || c == '+' || c == '/';
  };
  return key.size() == 24 && key.substr(22) == "==" && std::all_of(key.begin(), key.begin() + 22, is_base64);
}

// Of what comes behind 1.1, all that we need means the same.
bool IsVersionOne(std::string_view version) {
  return version.size() == 8 && version.starts_with("HTTP/1.") && version.back() >= '0' &&
         version.back() <= '9';
}

bool ParseRequestLine(std::string_view line, UpgradeRequest& request) {
  const std::size_t first = line.find(' ');
  if (first == std::string_view::npos) return false;
  const std::size_t second = line.find(' ', first + 1);
  if (second == std::string_view::npos) return false;
  request.method = line.substr(0, first);
  request.target = line.substr(first + 1, second - first - 1);
  request.version = line.substr(second + 1);
  return IsToken(request.method) && !request.target.empty() && !HasControlChar(request.target) &&
         IsVersionOne(request.version);
}

bool ParseHeader(std::string_view line, UpgradeRequest& request) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = Trim(line.substr(colon + 1));
  // A name with blanks, or a line that continues the one before, is how filters are passed by.
  if (!IsToken(name) || HasControlChar(value)) return false;
  if (IsSame(name, "Host")) {
    ++request.host_count;
    request.host = value;
  } else if (IsSame(name, "Origin")) {
    request.has_origin = true;
  } else if (IsSame(name, "Upgrade")) {
    request.wants_websocket |= HasToken(value, "websocket");
  } else if (IsSame(name, "Connection")) {
    request.has_connection_upgrade |= HasToken(value, "upgrade");
  } else if (IsSame(name, "Sec-WebSocket-Key")) {
    ++request.key_count;
    request.key = value;
  } else if (IsSame(name, "Sec-WebSocket-Version")) {
    ++request.version_count;
    request.websocket_version = value;
  } else if (IsSame(name, "Transfer-Encoding") || (IsSame(name, "Content-Length") && value != "0")) {
    request.has_body = true;
  }
  return true;
}

}  // namespace

std::optional<UpgradeRequest> ParseRequest(std::string_view head) {
  UpgradeRequest request;
  bool is_first = true;
  while (true) {
    const std::size_t end = head.find(kLineEnd);
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view line = head.substr(0, end);
    head.remove_prefix(end + kLineEnd.size());
    if (line.empty() && !is_first) return request;
    if (!(is_first ? ParseRequestLine(line, request) : ParseHeader(line, request))) return std::nullopt;
    is_first = false;
  }
}

bool IsLoopbackHost(std::string_view host) {
  for (const std::string_view name : {"127.0.0.1", "localhost", "[::1]"}) {
    if (host.size() < name.size() || !IsSame(host.substr(0, name.size()), name)) continue;
    std::string_view rest = host.substr(name.size());
    if (rest.empty()) return true;
    if (rest.front() != ':') continue;
    rest.remove_prefix(1);
    return !rest.empty() && rest.size() <= 5 &&
           std::all_of(rest.begin(), rest.end(), [](char c) { return c >= '0' && c <= '9'; });
  }
  return false;
}

std::optional<std::string_view> HostOfTarget(std::string_view target) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (target.size() < scheme.size() || !IsSame(target.substr(0, scheme.size()), scheme)) continue;
    target.remove_prefix(scheme.size());
    return target.substr(0, target.find_first_of("/?#"));
  }
  return std::nullopt;
}

const char* WhyForbidden(const UpgradeRequest& request) {
  if (request.has_origin) return "it sends an Origin, as browsers do";
  if (request.host_count == 0) return "it sends no Host";
  if (request.host_count > 1) return "it sends several Hosts";
  if (!IsLoopbackHost(request.host)) return "its Host is not loopback";
  if (!IsLoopbackHost(HostOfTarget(request.target).value_or(request.host))) {
    return "it asks for another host";
  }
  return nullptr;
}

bool IsProperUpgrade(const UpgradeRequest& request, std::string_view& status) {
  status = "400 Bad Request";
  if (request.method != "GET" || request.version == "HTTP/1.0" || !request.has_connection_upgrade)
    return false;
  // What lies behind the head is read as frames.
  if (request.has_body) return false;
  if (!request.target.starts_with('/') && !HostOfTarget(request.target)) return false;
  if (request.version_count > 1) return false;
  if (request.version_count == 0 || request.websocket_version != "13") {
    status = "426 Upgrade Required\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13";
    return false;
  }
  return request.key_count == 1 && IsKey(request.key);
}

std::string UpgradeAnswer(const UpgradeRequest& request) {
  const std::string salted = request.key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
  unsigned char digest[20];
  lws_SHA1(reinterpret_cast<const unsigned char*>(salted.data()), salted.size(), digest);
  char accept[32] = {};
  lws_b64_encode_string(reinterpret_cast<const char*>(digest), sizeof digest, accept, sizeof accept);
  return std::string(
             "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
             "Sec-WebSocket-Accept: ") +
         accept + "\r\n\r\n";
}

std::string ErrorAnswer(std::string_view status) {
  return "HTTP/1.1 " + std::string(status) + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
}

}  // namespace Tolm::Net
