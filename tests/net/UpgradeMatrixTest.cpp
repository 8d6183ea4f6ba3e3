// Requests of all kinds, and the status that each has to get (RFC 6455, section 4.2, and who may come).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ServerEnd.h"
#include "support/Rows.h"

namespace tolm::test {
namespace {

struct Row {
  const char* what;
  int status;
  std::string request;
};

std::string Changed(std::initializer_list<std::string_view> changes) {
  return UpgradeRequestBytes(changes);
}

std::string Asked(std::string_view line) {
  return UpgradeRequestBytes({}, line);
}

std::string WithHost(std::string_view host) {
  return UpgradeRequestBytes({"Host: " + std::string(host)});
}

/// The lines as they stand, without those that a guard would send.
std::string Lines(std::initializer_list<std::string_view> lines) {
  std::string request;
  for (const std::string_view line : lines) request.append(line).append("\r\n");
  return request + "\r\n";
}

constexpr char kKey[] = "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==";

std::vector<Row> RequestLines() {
  return {
      {"as a guard asks", 101, Asked("GET / HTTP/1.1")},
      {"another path", 101, Asked("GET /guard HTTP/1.1")},
      {"a path with a query", 101, Asked("GET /guard?x=1&y=%20 HTTP/1.1")},
      {"an absolute address of this machine", 101, Asked("GET http://127.0.0.1:1/x HTTP/1.1")},
      {"an absolute address, capital letters", 101, Asked("GET HTTP://LOCALHOST/ HTTP/1.1")},
      {"an absolute address of another machine", 403, Asked("GET http://example.org/ HTTP/1.1")},
      {"an absolute address, https, another machine", 403, Asked("GET https://example.org HTTP/1.1")},
      {"an absolute address with a user", 403, Asked("GET http://127.0.0.1@example.org/ HTTP/1.1")},
      {"an absolute address without a host", 403, Asked("GET http:///x HTTP/1.1")},
      {"an address of another kind", 400, Asked("GET ws://127.0.0.1/ HTTP/1.1")},
      {"a target without a slash", 400, Asked("GET guard HTTP/1.1")},
      {"the target of OPTIONS", 400, Asked("GET * HTTP/1.1")},
      {"the target of CONNECT", 400, Asked("CONNECT 127.0.0.1:1 HTTP/1.1")},
      {"HEAD", 400, Asked("HEAD / HTTP/1.1")},
      {"POST", 400, Asked("POST / HTTP/1.1")},
      {"OPTIONS, as before a request of a page", 400, Asked("OPTIONS / HTTP/1.1")},
      {"method in small letters", 400, Asked("get / HTTP/1.1")},
      {"a method that is no word", 400, Asked("G=T / HTTP/1.1")},
      {"HTTP/1.0", 400, Asked("GET / HTTP/1.0")},
      {"HTTP/0.9", 400, Asked("GET /")},
      {"HTTP/2.0", 400, Asked("GET / HTTP/2.0")},
      {"HTTP in small letters", 400, Asked("GET / http/1.1")},
      {"no target", 400, Asked("GET  HTTP/1.1")},
      {"two blanks", 400, Asked("GET /  HTTP/1.1")},
      {"a tab for a blank", 400, Asked("GET\t/ HTTP/1.1")},
      {"a blank in front", 400, Asked(" GET / HTTP/1.1")},
      {"a control character in the target", 400, Asked("GET /\x01 HTTP/1.1")},
      {"an empty line in front", 400, "\r\n" + Asked("GET / HTTP/1.1")},
  };
}

std::vector<Row> Hosts() {
  std::vector<Row> rows = {
      {"no Host", 403, Changed({"Host:"})},
      {"an empty Host", 403, Changed({"Host: "})},
      {"two equal Hosts", 403, Changed({"HOST: 127.0.0.1"})},
      {"a second Host, foreign", 403, Changed({"host: example.org"})},
      {"blanks around the Host", 101, Changed({"Host: \t 127.0.0.1 \t "})},
      {"no blank before the Host", 101, Changed({"Host:127.0.0.1"})},
      {"a blank behind the name", 400, Changed({"Host : 127.0.0.1"})},
      {"a NUL in the Host", 400, WithHost(std::string("127.0.0.1\0.example.org", 22))},
      {"a line feed in the Host", 400, WithHost("127.0.0.1\n.example.org")},
      {"a carriage return in the Host", 400, WithHost("127.0.0.1\r.example.org")},
      // What a name server of the page's owner can be made to say; the browser puts the name here.
      {"a name that leads here", 403, WithHost("127.0.0.1.rebind.example.org")},
      {"a name that leads here, with a port", 403, WithHost("rebind.example.org:8080")},
      {"a name below localhost", 403, WithHost("evil.localhost")},
      {"localhost below a name", 403, WithHost("localhost.example.org")},
      {"localhost with a dot", 403, WithHost("localhost.")},
      {"a name with a list", 403, WithHost("127.0.0.1, example.org")},
      {"a name with a blank", 403, WithHost("127.0.0.1 example.org")},
      {"a user in front", 403, WithHost("127.0.0.1@example.org")},
      {"a user in front of ours", 403, WithHost("example.org@127.0.0.1")},
      {"a path behind", 403, WithHost("127.0.0.1/example.org")},
      {"an encoded dot", 403, WithHost("127.0.0.1%2eexample.org")},
      // Other ways to write this machine, which no guard uses.
      {"the address as a number", 403, WithHost("2130706433")},
      {"the address in hex", 403, WithHost("0x7f.0.0.1")},
      {"the short address", 403, WithHost("127.1")},
      {"another address of loopback", 403, WithHost("127.0.0.2")},
      {"the address of everything", 403, WithHost("0.0.0.0")},
      {"IPv6 without brackets", 403, WithHost("::1")},
      {"IPv4 in IPv6", 403, WithHost("[::ffff:127.0.0.1]")},
      {"IPv6 with a zone", 403, WithHost("[::1%25lo]")},
      {"IPv6, bracket not closed", 403, WithHost("[::1")},
      {"a colon without a port", 403, WithHost("localhost:")},
      {"a port that is none", 403, WithHost("localhost:80x")},
      {"a port with a sign", 403, WithHost("localhost:+80")},
      {"a port of too many digits", 403, WithHost("localhost:123456")},
      {"two ports", 403, WithHost("localhost:80:81")},
  };
  for (const char* host : {"127.0.0.1", "127.0.0.1:1", "localhost", "LOCALHOST:80", "[::1]", "[::1]:65535"}) {
    rows.push_back({host, 101, WithHost(host)});
  }
  return rows;
}

std::vector<Row> Headers() {
  return {
      {"Origin of another site", 403, Changed({"Origin: https://example.org"})},
      {"Origin of this machine", 403, Changed({"Origin: http://127.0.0.1"})},
      {"Origin of localhost and a port", 403, Changed({"Origin: http://localhost:8080"})},
      {"Origin of a file or a sandbox", 403, Changed({"Origin: null"})},
      {"an empty Origin", 403, Changed({"Origin: "})},
      {"Origin in small letters", 403, Changed({"origin: http://127.0.0.1"})},
      {"Origin in capital letters", 403, Changed({"ORIGIN: http://127.0.0.1"})},
      {"two Origins", 403, Changed({"Origin: null", "origin: http://127.0.0.1"})},
      {"Origin of an extension", 403, Changed({"Origin: chrome-extension://abcdefghijklmnop"})},
      {"Origin with a blank behind its name", 400, Changed({"Origin : http://127.0.0.1"})},
      {"Origin in a folded line", 400, Changed({"X: y\r\n Origin: http://127.0.0.1"})},
      {"a folded line with a tab", 400, Changed({"X: y\r\n\tz"})},
      {"a header without a name", 400, Changed({": x"})},
      {"a header without a colon", 400, Changed({"nonsense and nothing"})},
      {"a name with a blank", 400, Changed({"Bad Name: x"})},
      {"a name that is no word", 400, Changed({"Bad(Name): x"})},
      {"a name of other bytes", 400,
       Changed({"B\xC3\xA4"
                "d: x"})},
      {"a value of other bytes", 101, Changed({"X: \xC3\xA4"})},
      {"a control character in a value", 400, Changed({"X: a\x1B[31m"})},
      {"no Upgrade", 404, Changed({"Upgrade:"})},
      {"an Upgrade to something else", 404, Changed({"Upgrade: h2c"})},
      {"an Upgrade that begins like ours", 404, Changed({"Upgrade: websockets"})},
      {"an Upgrade with a version", 404, Changed({"Upgrade: websocket/13"})},
      {"Upgrade, capital letters", 101, Changed({"Upgrade: WEBSOCKET"})},
      {"Upgrade among others", 101, Changed({"Upgrade: h2c, websocket"})},
      {"the Upgrade of a second line", 101, Changed({"Upgrade: h2c", "upgrade: websocket"})},
      {"no Connection", 400, Changed({"Connection:"})},
      {"Connection without upgrade", 400, Changed({"Connection: keep-alive"})},
      {"Connection, capital letters", 101, Changed({"Connection: UPGRADE"})},
      {"Connection among others", 101, Changed({"Connection: keep-alive,Upgrade"})},
      {"Connection that begins like ours", 400, Changed({"Connection: upgrades"})},
      {"no key", 400, Changed({"Sec-WebSocket-Key:"})},
      {"an empty key", 400, Changed({"Sec-WebSocket-Key: "})},
      {"a key of 15 bytes", 400, Changed({"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZ"})},
      {"a key of 17 bytes", 400, Changed({"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZXM="})},
      {"a key that is no Base64", 400, Changed({"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25j!Q=="})},
      {"a key twice", 400, Changed({"sec-websocket-key: dGhlIHNhbXBsZSBub25jZQ=="})},
      {"a key's name in other letters", 101,
       Changed({"Sec-WebSocket-Key:", "sEC-wEBSOCKET-kEY: dGhlIHNhbXBsZSBub25jZQ=="})},
      {"no version", 426, Changed({"Sec-WebSocket-Version:"})},
      {"version 8", 426, Changed({"Sec-WebSocket-Version: 8"})},
      {"version 14", 426, Changed({"Sec-WebSocket-Version: 14"})},
      {"version 013", 426, Changed({"Sec-WebSocket-Version: 013"})},
      {"versions in a list", 426, Changed({"Sec-WebSocket-Version: 13, 8"})},
      {"version twice", 400, Changed({"sec-websocket-version: 13"})},
      {"two versions", 400, Changed({"sec-websocket-version: 8"})},
      {"subprotocols and extensions, which are not taken", 101,
       Changed({"Sec-WebSocket-Protocol: chat", "Sec-WebSocket-Extensions: permessage-deflate"})},
      {"a body announced", 400, Changed({"Content-Length: 5"})},
      {"a body of no bytes", 101, Changed({"Content-Length: 0"})},
      {"a body in chunks", 400, Changed({"Transfer-Encoding: chunked"})},
      {"16 KiB", 101, Changed({"X: " + std::string(16000, 'x')})},
      {"more than 16 KiB", 431, Changed({"X: " + std::string(20000, 'x')})},
      {"more than 16 KiB of short lines", 431,
       [] {
         std::string many = Changed({});
         many.resize(many.size() - 2);
         for (int i = 0; i < 5000; ++i) many += "A: b\r\n";
         return many + "\r\n";
       }()},
      {"a name of more than 16 KiB", 431, Changed({std::string(20000, 'x') + ": x"})},
  };
}

/// What browsers send, header by header, when a page opens a WebSocket here; and other things that they do.
std::vector<Row> Browsers() {
  return {
      {"Firefox, a page of another site", 403,
       Lines({"GET / HTTP/1.1", "Host: 127.0.0.1:4711",
              "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0",
              "Accept: */*", "Accept-Language: en-US,en;q=0.5", "Accept-Encoding: gzip, deflate, br, zstd",
              "Sec-WebSocket-Version: 13", "Origin: https://example.org",
              "Sec-WebSocket-Extensions: permessage-deflate", kKey, "DNT: 1",
              "Connection: keep-alive, Upgrade", "Sec-Fetch-Dest: empty", "Sec-Fetch-Mode: websocket",
              "Sec-Fetch-Site: cross-site", "Pragma: no-cache", "Cache-Control: no-cache",
              "Upgrade: websocket"})},
      {"Chrome, a page of another site", 403,
       Lines({"GET / HTTP/1.1", "Host: localhost:4711", "Connection: Upgrade", "Pragma: no-cache",
              "Cache-Control: no-cache",
              "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
              "Chrome/126.0.0.0 Safari/537.36",
              "Upgrade: websocket", "Origin: https://example.org", "Sec-WebSocket-Version: 13",
              "Accept-Encoding: gzip, deflate, br, zstd", "Accept-Language: en-US,en;q=0.9", kKey,
              "Sec-WebSocket-Extensions: permessage-deflate; client_max_window_bits"})},
      {"Safari, a page of another site", 403,
       Lines({"GET / HTTP/1.1", "Host: 127.0.0.1:4711", "Origin: https://example.org", "Pragma: no-cache",
              "Accept: */*", kKey, "Sec-Fetch-Site: cross-site", "Sec-WebSocket-Version: 13",
              "Sec-WebSocket-Extensions: permessage-deflate", "Cache-Control: no-cache",
              "Sec-Fetch-Mode: websocket", "Accept-Language: en-GB,en;q=0.9",
              "User-Agent: Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like "
              "Gecko) "
              "Version/17.5 Safari/605.1.15",
              "Connection: Upgrade", "Accept-Encoding: gzip, deflate", "Sec-Fetch-Dest: websocket",
              "Upgrade: websocket"})},
      {"Chrome, a page behind a name that leads here", 403,
       Lines({"GET / HTTP/1.1", "Host: rebind.example.org:4711", "Connection: Upgrade", "Upgrade: websocket",
              "Origin: http://rebind.example.org:4711", "Sec-WebSocket-Version: 13", kKey})},
      {"the same, if it sent no Origin", 403,
       Lines({"GET / HTTP/1.1", "Host: rebind.example.org:4711", "Connection: Upgrade", "Upgrade: websocket",
              "Sec-WebSocket-Version: 13", kKey})},
      {"a page that is opened here", 404,
       Lines({"GET / HTTP/1.1", "Host: 127.0.0.1:4711", "Connection: keep-alive",
              "Upgrade-Insecure-Requests: 1", "Accept: text/html", "Sec-Fetch-Site: none",
              "Sec-Fetch-Mode: navigate"})},
      {"a request of a page, without asking first", 404,
       Lines({"POST / HTTP/1.1", "Host: 127.0.0.1:4711", "Origin: https://example.org",
              "Content-Type: text/plain", "Content-Length: 0"})},
      {"the question before a request of a page", 404,
       Lines({"OPTIONS / HTTP/1.1", "Host: 127.0.0.1:4711", "Origin: https://example.org",
              "Access-Control-Request-Method: POST", "Access-Control-Request-Private-Network: true"})},
      {"an old draft's handshake", 404,
       Lines({"GET / HTTP/1.1", "Host: 127.0.0.1", "Connection: Upgrade", "Upgrade: WebSocket76",
              "Sec-WebSocket-Key1: 12998 5 Y3 1  .P00", "Sec-WebSocket-Key2: 4 @1  46546xW%0l 1 5"})},
      {"an old draft's Origin", 426,
       Lines({"GET / HTTP/1.1", "Host: 127.0.0.1", "Connection: Upgrade", "Upgrade: websocket", kKey,
              "Sec-WebSocket-Origin: http://example.org", "Sec-WebSocket-Version: 8"})},
      {"TLS", 400, std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xFC\x03\x03\r\n\r\n", 15)},
  };
}

class NetUpgradeMatrix : public testing::Test {
 protected:
  void GoThrough(const std::vector<Row>& table) {
    Rows rows("upgrade");
    for (const Row& row : table) {
      const std::size_t before = server_.CountOf(Tolm::Net::kWebsocketHandshake);
      RawClient client(server_.port());
      client.Send(row.request);
      const std::string head = client.ReadHead();
      // "HTTP/1.1 403 Forbidden"
      const int status = head.starts_with("HTTP/1.1 ") ? std::atoi(head.c_str() + 9) : 0;
      rows.Expect(row.status, status, row.what);
      const bool is_in = row.status == 101;
      EXPECT_TRUE(is_in ? server_.WaitCount(Tolm::Net::kWebsocketHandshake, before + 1) : client.ReadToEnd())
          << row.what;
      EXPECT_EQ(server_.CountOf(Tolm::Net::kWebsocketHandshake), before + (is_in ? 1 : 0)) << row.what;
      EXPECT_EQ(server_.CountOf(Tolm::Net::kWebsocketText), 0U) << row.what;
    }
  }

  ServerEnd server_;
};

TEST_F(NetUpgradeMatrix, OfRequestLines) {
  GoThrough(RequestLines());
}

TEST_F(NetUpgradeMatrix, OfHosts) {
  GoThrough(Hosts());
}

TEST_F(NetUpgradeMatrix, OfHeaders) {
  GoThrough(Headers());
}

TEST_F(NetUpgradeMatrix, OfWhatBrowsersSend) {
  GoThrough(Browsers());
}

}  // namespace
}  // namespace tolm::test
