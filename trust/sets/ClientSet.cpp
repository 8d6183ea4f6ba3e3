#include <fstream>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ClientCases.h"
#include "FrameLink.h"
#include "ScriptedServer.h"
#include "Sets.h"
#include "Verdicts.h"
#include "support/LogCapture.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace trust {
namespace {

constexpr std::string_view kLeave = "{leave}";

/// What a link tells of, in a row.
class Story {
 public:
  void Add(const std::string& event) {
    const std::lock_guard lock(mutex_);
    text_ += event + ", ";
  }
  std::string text() const {
    const std::lock_guard lock(mutex_);
    return text_;
  }

 private:
  mutable std::mutex mutex_;
  std::string text_;
};

void Replace(std::string& text, std::string_view mark, const std::string& with) {
  for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + with.size())) {
    text.replace(at, mark.size(), with);
  }
}

std::vector<std::string> Pieces(const ClientCase& one, const std::string& accept) {
  std::string answer = one.answer;
  std::string small = accept;
  for (char& c : small) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  Replace(answer, "{accept}", accept);
  Replace(answer, "{accept in small letters}", small);
  std::vector<std::string> pieces;
  if (one.cut == 0) {
    pieces.push_back(answer);
  } else if (one.cut > 0) {
    pieces = {answer.substr(0, static_cast<std::size_t>(one.cut)),
              answer.substr(static_cast<std::size_t>(one.cut))};
  } else {
    for (const char c : answer) pieces.emplace_back(1, c);
  }
  pieces.insert(pieces.end(), one.pieces.begin(), one.pieces.end());
  return pieces;
}

/// What the server sees of the connection in the end.
std::string Tell(ScriptedServer& server, const ClientCase& one) {
  for (std::string& piece : Pieces(one, server.AcceptKey())) {
    const std::size_t leave = piece.find(kLeave);
    if (leave == std::string::npos) {
      server.Say({piece});
    } else {
      server.Say({piece.substr(0, leave)});
      return "dropped";
    }
  }
  // Who refuses the answer gets no further bytes.
  if (one.expected.starts_with("refused")) return server.ReadToEnd() ? "dropped" : "not ended";
  return server.State();
}

std::string Play(const ClientCase& one, const std::filesystem::path& config) {
  ScriptedServer server;
  std::ofstream(config, std::ios::trunc)
      << "<Config><ClientPort>" << server.port() << "</ClientPort></Config>\n";
  Story story;
  guard::FrameLink link({.config = config},
                        {.on_connected = [&] { story.Add("connected"); },
                         .on_text = [&](const std::string& text) { story.Add("text " + text); },
                         .on_lost = [&] { story.Add("lost"); }});
  link.Start();
  if (!server.Take()) return "nobody came";
  const std::string state = Tell(server, one);
  const bool stays = state.ends_with("open");
  if (!stays) server.Leave();
  // What the link tells follows its acts.
  const auto told = [&] {
    const std::string events = story.text();
    return (events.empty() ? "refused, " : events) + state;
  };
  tolm::test::WaitFor([&] { return told() == one.expected; }, std::chrono::seconds(stays ? 5 : 10));
  link.Stop();
  return told();
}

/// RFC 6455, section 1.3.
bool IsProofRight() {
  return ScriptedServer::Proof("dGhlIHNhbXBsZSBub25jZQ==") == "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";
}

}  // namespace

void RunWebSocketClient() {
  const tolm::test::TempDirectory folder;
  // What the link says of each of these would fill the screen.
  const tolm::test::LogCapture quiet(5);
  Verdicts verdicts("websocket_client");
  verdicts.Expect(IsProofRight(), "the test itself");
  for (const ClientCase& one : ClientCases()) {
    const std::string got = Play(one, folder.path() / "LpcFrame.xml");
    verdicts.Expect(got == one.expected, std::string(one.section) + " " + one.name, one.expected, got);
    if (!one.why.empty()) verdicts.Deviates(one.why);
  }
  verdicts.Print(40);
}

}  // namespace trust
