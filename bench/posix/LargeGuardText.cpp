// How much memory a large text of a guard takes while the frame reads it.

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "Measurements.h"
#include "Process.h"
#include "Samples.h"
#include "Stage.h"
#include "posix/GuardClient.h"
#include "posix/Loopback.h"

namespace bench {
namespace {

constexpr std::size_t kLargest = 60u << 20;
constexpr char kSmall[] = R"({"guid":"1","requestData":{"method":"GetProcessInitStateList"}})";

/// What the rest of a large question is made of: a member that the frame does not know.
struct Rest {
  const char* name;  ///< of the row
  const char* begin;
  std::string filling;
  const char* end;
};

std::string Question(const Rest& rest) {
  std::string text = R"({"guid":"2","requestData":{"method":"GetProcessInitStateList"},"rest":)";
  text.reserve(kLargest);
  text += rest.begin;
  const std::string tail = rest.end + std::string("}");
  while (text.size() + rest.filling.size() + tail.size() <= kLargest) text += rest.filling;
  text += tail;
  return text.append(kLargest - text.size(), ' ');
}

/// What is sent, and the guid of the answer that comes when all of it has been handled.
struct Message {
  std::string frame;
  const char* guid;
};

Message Large(const Rest& rest) {
  return {GuardClient::FrameOf(Question(rest)), "\"guid\":\"2\""};
}

Message NotJson() {
  return {GuardClient::FrameOf(std::string(kLargest, 'x')) + GuardClient::FrameOf(kSmall), "\"guid\":\"1\""};
}

/// By how much a host's resident memory rises at most, in copies of the text. Each time another host: one
/// that has freed memory may take it again without a rise.
double CopiesAtMost(const Stage& stage, const Message& message) {
  stage.WritePort("ServerPort", FreePort());
  Child host(stage.Host(), {"--role", "host", "--endpoint", "large-guard-text"});
  host.Do(Task::kStartFrame, 0, 1);
  GuardClient guard(stage.Port());
  guard.Ask(GuardClient::FrameOf(kSmall));  // what the first question alone needs
  const double before = host.Do(Task::kForgetPeak, 0, 0).at(0);
  const std::string answer = guard.Ask(message.frame);
  if (answer.find(message.guid) == answer.npos) throw std::runtime_error("not the answer: " + answer);
  return (host.Do(Task::kPeak, 0, 0).at(0) - before) * 1024 / static_cast<double>(kLargest);
}

Row CopiesRow(const char* name, const Stage& stage, const Message& message, int count) {
  Rounds copies;
  for (int i = 0; i < count; ++i) copies.Add(CopiesAtMost(stage, message));
  return MakeRow(name, "x", copies);
}

}  // namespace

std::vector<Row> MeasureLargeGuardText(const Settings& settings) {
  const int count = settings.Rounds(3);
  const Stage stage;
  std::vector<Row> rows{CopiesRow("large.no_json", stage, NotJson(), count)};
  for (const Rest& rest : {Rest{"large.one_text", "\"", "x", "\""},
                           Rest{"large.texts", "[", '"' + std::string(1024, 'x') + "\",", "\"\"]"},
                           Rest{"large.numbers", "[", "1234567,", "0]"}}) {
    rows.push_back(CopiesRow(rest.name, stage, Large(rest), count));
  }
  // A document of many small values takes what its values take, however it is read.
  Row& long_text = rows[1];
  WantAtMost(long_text, long_text.median, 2.0, "<= 2 copies");
  rows[0].note = "received, and dropped; resident memory beyond that before; no log line is wanted";
  rows[2].note = "of 1 KiB each";
  rows[3].note = "of 7 digits each";
  return rows;
}

}  // namespace bench
