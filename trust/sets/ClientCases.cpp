#include "ClientCases.h"

#include <map>
#include <utility>

#include "ScriptedServer.h"

namespace trust {
namespace {

using Frame = ServerFrame;

constexpr int kByteByByte = -1;

// What the library that the guard's connection is made of does, where the rule leaves the code to it.
constexpr std::string_view kTooLong = "a length with the highest bit is taken for one that is too large";
constexpr std::string_view kNoCode = "a close frame without a code is answered with 1000";
constexpr std::string_view kReason = "a reason that is not UTF-8 is answered with 1002";
constexpr std::string_view kNoMeaning = "a code above 4999, which has no meaning, is answered with itself";

/// An answer to the upgrade; `changes` give headers another value, or take them away when it is "-".
std::string Answer(const std::map<std::string, std::string>& changes = {},
                   const std::string& status = "HTTP/1.1 101 Switching Protocols") {
  std::map<std::string, std::string> headers{
      {"Upgrade", "websocket"}, {"Connection", "Upgrade"}, {"Sec-WebSocket-Accept", "{accept}"}};
  for (const auto& [name, value] : changes) headers[name] = value;
  std::string text = status + "\r\n";
  for (const auto& [name, value] : headers) {
    if (value != "-") text += name + ": " + value + "\r\n";
  }
  return text + "\r\n";
}

std::string Refusal(const std::string& status) {
  return "HTTP/1.1 " + status + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
}

class Table {
 public:
  std::vector<ClientCase> Take() { return std::move(cases_); }

  void Handshake(std::string_view section, std::string name, std::string expected, std::string answer,
                 std::vector<std::string> pieces = {}, int cut = 0) {
    cases_.push_back(
        {section, std::move(name), std::move(expected), std::move(answer), std::move(pieces), cut, {}});
  }

  /// What follows a proper answer: in one piece, and byte by byte.
  void Frames(std::string_view section, const std::string& name, const std::string& expected,
              const std::string& bytes, std::string_view why = {}) {
    const std::string whole = expected.empty() ? "connected" : "connected, " + expected;
    cases_.push_back({section, name, whole, Answer(), {bytes}, 0, why});
    if (bytes.size() < 2 || bytes.size() > 200) return;
    std::vector<std::string> single;
    for (const char c : bytes) single.emplace_back(1, c);
    cases_.push_back({section, name + ", byte by byte", whole, Answer(), std::move(single), 0, why});
  }

 private:
  std::vector<ClientCase> cases_;
};

void AddHandshakes(Table& table) {
  const std::string open = "connected, open";
  const std::string refused = "refused, dropped";
  table.Handshake("4.1", "a proper answer", open, Answer());
  table.Handshake("4.1", "the same byte by byte", open, Answer(), {}, kByteByByte);
  for (const int cut : {1, 8, 12, 33, 34, 60}) {
    table.Handshake("4.1", "the same in two pieces, of which the first has " + std::to_string(cut), open,
                    Answer(), {}, cut);
  }
  table.Handshake("4.1", "values in other cases and in a list", open,
                  Answer({{"Upgrade", "WebSocket"}, {"Connection", "keep-alive, UPGRADE"}}));
  table.Handshake(
      "4.1", "names in other cases", open,
      Answer({{"Upgrade", "-"}, {"UPGRADE", "websocket"}, {"Connection", "-"}, {"connection", "upgrade"}}));
  table.Handshake("4.1", "other headers", open, Answer({{"Server", "x"}, {"Date", "today"}}));
  table.Handshake("4.1", "another phrase", open, Answer({}, "HTTP/1.1 101 Whatever"));
  table.Handshake("4.1", "a frame in the same piece", "connected, text now, open", Answer() + Frame{}("now"));
  for (const char* status :
       {"100 Continue", "200 OK", "204 No Content", "301 Moved Permanently", "400 Bad Request",
        "401 Unauthorized", "403 Forbidden", "404 Not Found", "426 Upgrade Required",
        "500 Internal Server Error", "503 Service Unavailable"}) {
    table.Handshake("4.1", status, refused, Refusal(status));
  }
  table.Handshake("4.1", "200 with all that belongs to 101", refused, Answer({}, "HTTP/1.1 200 OK"));
  for (const char* version : {"HTTP/1.0", "HTTP/2.0", "HTTP/0.9", "http/1.1", "HTP/1.1"}) {
    table.Handshake("4.1", version, refused, Answer({}, std::string(version) + " 101 Switching Protocols"));
  }
  for (const char* value : {"-", "", "h2c", "websocket2", "web socket"}) {
    table.Handshake("4.1", std::string("Upgrade: ") + value, refused, Answer({{"Upgrade", value}}));
  }
  for (const char* value : {"-", "", "close", "Upgraded", "keep-alive"}) {
    table.Handshake("4.1", std::string("Connection: ") + value, refused, Answer({{"Connection", value}}));
  }
  for (const char* value :
       {"-", "", "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=", "{accept}x", "x{accept}", "{accept} {accept}"}) {
    table.Handshake("4.1", std::string("Sec-WebSocket-Accept: ") + value, refused,
                    Answer({{"Sec-WebSocket-Accept", value}}));
  }
  table.Handshake("4.1", "Sec-WebSocket-Accept in small letters", refused,
                  Answer({{"Sec-WebSocket-Accept", "{accept in small letters}"}}));
  table.Handshake("4.1", "Sec-WebSocket-Accept with blanks around", open,
                  Answer({{"Sec-WebSocket-Accept", " \t {accept} \t "}}));
  table.Handshake("4.1", "an extension that nobody asked for", refused,
                  Answer({{"Sec-WebSocket-Extensions", "permessage-deflate"}}));
  table.Handshake("4.1", "an unknown extension", refused, Answer({{"Sec-WebSocket-Extensions", "x"}}));
  table.Handshake("4.1", "a subprotocol that nobody asked for", refused,
                  Answer({{"Sec-WebSocket-Protocol", "chat"}}));
  table.Handshake("4.1", "no HTTP", refused, "hello\r\n\r\n");
  table.Handshake("4.1", "a greeting of another protocol", refused,
                  std::string("\x16\x03\x01\x00\x05hello\r\n\r\n", 15));
  table.Handshake("4.1", "a frame and no answer", refused, Frame{}("x") + "\r\n\r\n");
  table.Handshake("4.1", "a header without a colon", refused, "HTTP/1.1 101 x\r\nUpgrade websocket\r\n\r\n");
  table.Handshake("4.1", "a NUL in a header", refused, Answer({{"X", std::string("a\0b", 3)}}));
  table.Handshake("4.1", "a status of two digits", refused, Answer({}, "HTTP/1.1 10 x"));
  table.Handshake("4.1", "a status of four digits", refused, Answer({}, "HTTP/1.1 1010 x"));
  table.Handshake("10.7", "a head of 100 KiB", refused, Answer({{"X", std::string(100 * 1024, 'x')}}));
  table.Handshake("10.7", "a head of many lines", refused, [] {
    std::string text = "HTTP/1.1 101 x\r\n";
    for (int i = 0; i < 10'000; ++i) text += "X: y\r\n";
    return text;
  }());
  table.Handshake("4.1", "the end instead of an answer", "refused, dropped", "{leave}");
  table.Handshake("4.1", "the end within the answer", "refused, dropped", "HTTP/1.1 101 Switch{leave}");
  table.Handshake("10.7", "no answer within 5 s", refused, "");
  table.Handshake("10.7", "half an answer within 5 s", refused, "HTTP/1.1 101 Switching");
}

void AddFraming(Table& table) {
  for (const std::size_t size : {0u, 1u, 125u, 126u, 127u, 65535u, 65536u, 1u << 20}) {
    const std::string payload(size, 'x');
    table.Frames("5.2", "text of " + std::to_string(size), "text " + payload + ", open", Frame{}(payload));
  }
  table.Frames("5.2", "three frames", "text 1, text , text 3, open",
               Frame{}("1") + Frame{}("") + Frame{}("3"));
  for (const int opcode : {1, 2, 8, 9, 10}) {
    table.Frames("5.1", "masked, opcode " + std::to_string(opcode), "lost, closed 1002",
                 Frame{.opcode = opcode, .masked = true}(opcode == 8 ? "\x03\xe8" : "x"));
  }
  table.Frames("5.1", "masked continuation", "lost, closed 1002",
               Frame{.fin = false}("a") + Frame{.opcode = 0, .masked = true}("b"));
  for (int bits = 1; bits <= 7; ++bits) {
    table.Frames("5.2", "reserved bits " + std::to_string(bits), "lost, closed 1002",
                 Frame{.reserved = bits}("x"));
  }
  for (const int opcode : {2, 8, 9, 10}) {
    table.Frames("5.2", "a reserved bit, opcode " + std::to_string(opcode), "lost, closed 1002",
                 Frame{.opcode = opcode, .reserved = 4}(""));
  }
  table.Frames("5.2", "a reserved bit on a continuation", "lost, closed 1002",
               Frame{.fin = false}("a") + Frame{.opcode = 0, .reserved = 4}("b"));
  for (const int opcode : {3, 4, 5, 6, 7, 11, 12, 13, 14, 15}) {
    table.Frames("5.2", "opcode " + std::to_string(opcode), "lost, closed 1002",
                 Frame{.opcode = opcode}("x"));
  }
  table.Frames("5.2", "125 in two bytes", "lost, closed 1002", Frame{.width = 2}(std::string(125, 'x')));
  table.Frames("5.2", "0 in two bytes", "lost, closed 1002", Frame{.width = 2}(""));
  table.Frames("5.2", "0 in eight bytes", "lost, closed 1002", Frame{.width = 8}(""));
  table.Frames("5.2", "65535 in eight bytes", "lost, closed 1002",
               Frame{.width = 8}(std::string(65535, 'x')));
  table.Frames("5.2", "length with the highest bit", "lost, closed 1009",
               Frame{}.Header(std::uint64_t{1} << 63), kTooLong);
  table.Frames("5.2", "the greatest length", "lost, closed 1009", Frame{}.Header(~std::uint64_t{0}),
               kTooLong);
  table.Frames("10.4", "length of 2^62", "lost, closed 1009", Frame{}.Header(std::uint64_t{1} << 62));
  table.Frames("10.4", "length of 64 MiB and one", "lost, closed 1009", Frame{}.Header((64U << 20) + 1));
  table.Frames("10.4", "fragments of more than 64 MiB", "lost, closed 1009",
               Frame{.fin = false}("x") + Frame{.opcode = 0}.Header(64U << 20));
  table.Frames("5.6", "binary, which the frame does not send", "text a, open",
               Frame{.opcode = 2}("\xff") + Frame{}("a"));
}

void AddFragments(Table& table) {
  const auto first = [](std::string_view payload) { return Frame{.fin = false}(payload); };
  const auto more = [](std::string_view payload) { return Frame{.opcode = 0, .fin = false}(payload); };
  const auto last = [](std::string_view payload) { return Frame{.opcode = 0}(payload); };
  table.Frames("5.4", "two fragments", "text abcde, open", first("ab") + last("cde"));
  table.Frames("5.4", "five fragments", "text 12345, open",
               first("1") + more("2") + more("3") + more("4") + last("5"));
  table.Frames("5.4", "empty fragments", "text , open", first("") + more("") + last(""));
  table.Frames("5.4", "a ping between fragments", "text ab, pong 1, open",
               first("a") + Frame{.opcode = 9}("p") + last("b"));
  table.Frames("5.4", "a pong between fragments", "text ab, open",
               first("a") + Frame{.opcode = 10}("p") + last("b"));
  table.Frames("5.4", "a close between fragments", "lost, closed 1000",
               first("a") + CloseFrame(1000) + last("b"));
  table.Frames("5.4", "continuation of nothing", "lost, closed 1002", last("x"));
  table.Frames("5.4", "continuation of nothing, not final", "lost, closed 1002", more("x"));
  table.Frames("5.4", "continuation behind a whole text", "text x, lost, closed 1002",
               Frame{}("x") + last("y"));
  table.Frames("5.4", "text within a message", "lost, closed 1002", first("x") + Frame{}("y"));
  table.Frames("5.4", "binary within a message", "lost, closed 1002", first("x") + Frame{.opcode = 2}("y"));
}

void AddControl(Table& table) {
  for (const std::size_t size : {0u, 1u, 125u}) {
    table.Frames("5.5.2", "ping of " + std::to_string(size), "pong " + std::to_string(size) + ", open",
                 Frame{.opcode = 9}(std::string(size, '\xff')));
  }
  table.Frames("5.5.3", "a pong that nobody asked for", "open", Frame{.opcode = 10}("x"));
  for (const int opcode : {8, 9, 10}) {
    const std::string name = ", opcode " + std::to_string(opcode);
    table.Frames("5.5", "126 bytes" + name, "lost, closed 1002",
                 Frame{.opcode = opcode}("\x03\xe8" + std::string(124, 'x')));
    table.Frames("5.5", "in fragments" + name, "lost, closed 1002",
                 Frame{.opcode = opcode, .fin = false}(""));
    table.Frames("5.5", "125 bytes written in two" + name, "lost, closed 1002",
                 Frame{.opcode = opcode, .width = 2}("\x03\xe8" + std::string(123, 'x')));
  }
}

void AddClosing(Table& table) {
  table.Frames("5.5.1", "close without a code", "lost, closed 1000", Frame{.opcode = 8}(""), kNoCode);
  table.Frames("5.5.1", "close with half a code", "lost, closed 1002", Frame{.opcode = 8}("\x03"));
  table.Frames("5.5.1", "close with a reason", "lost, closed 1000", CloseFrame(1000, "bye"));
  table.Frames("5.5.1", "close with the longest reason", "lost, closed 1000",
               CloseFrame(1000, std::string(123, 'x')));
  table.Frames("8.1", "close with a reason that is not UTF-8", "lost, closed 1002", CloseFrame(1000, "\xc3("),
               kReason);
  table.Frames("5.5.1", "text behind a close", "lost, closed 1000", CloseFrame(1000) + Frame{}("late"));
  table.Frames("5.5.1", "two closes", "lost, closed 1001", CloseFrame(1001) + CloseFrame(1000));
  for (const int code : {1000, 1001, 1002, 1003, 1007, 1008, 1009, 1010, 1011, 3000, 3999, 4000, 4999}) {
    table.Frames("7.4", "close " + std::to_string(code), "lost, closed " + std::to_string(code),
                 CloseFrame(code));
  }
  for (const int code : {0, 1, 999, 1004, 1005, 1006, 1015, 1016, 1100, 2000, 2999}) {
    table.Frames("7.4", "close " + std::to_string(code), "lost, closed 1002", CloseFrame(code));
  }
  for (const int code : {5000, 65535}) {
    table.Frames("7.4", "close " + std::to_string(code), "lost, closed " + std::to_string(code),
                 CloseFrame(code), kNoMeaning);
  }
}

void AddUtf8(Table& table) {
  for (const char* good : {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                           "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    table.Frames("8.1", std::string("good ") + good, std::string("text ") + good + ", open", Frame{}(good));
  }
  for (const char* bad : {"\x80", "\xc0\x80", "\xc1\xbf", "\xc3", "\xc3(", "\xe0\x9f\xbf", "\xe2\x82",
                          "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf0\x9f\x98",
                          "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xfe", "\xff", "good until \xff here"}) {
    table.Frames("8.1", std::string("bad ") + bad, "lost, closed 1007", Frame{}(bad));
  }
  table.Frames("8.1", "a character in two fragments", "text \xc3\xa4, open",
               Frame{.fin = false}("\xc3") + Frame{.opcode = 0}("\xa4"));
  table.Frames("8.1", "a character that the last fragment leaves half", "lost, closed 1007",
               Frame{.fin = false}("a") + Frame{.opcode = 0}("\xe2\x82"));
  table.Frames("8.1", "a wrong byte in the second fragment", "lost, closed 1007",
               Frame{.fin = false}("\xe2") + Frame{.opcode = 0}("("));
}

}  // namespace

std::vector<ClientCase> ClientCases() {
  Table table;
  AddHandshakes(table);
  AddFraming(table);
  AddFragments(table);
  AddControl(table);
  AddClosing(table);
  AddUtf8(table);
  return table.Take();
}

}  // namespace trust
