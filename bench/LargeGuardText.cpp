// How much memory a large text of a guard takes while the frame reads it.

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "GuardClient.h"
#include "Loopback.h"
#include "Measurements.h"
#include "Process.h"
#include "Samples.h"
#include "Stage.h"

namespace bench {
namespace {

constexpr std::size_t kLargest = 60u << 20;
constexpr char kSmall[] = R"({"guid":"1","requestData":{"method":"GetProcessInitStateList"}})";

/// What the rest of a large question is made of: a member that the frame does not know.
struct Shape {
  const char* name;
  const char* begin;
  std::string filling;
  const char* end;
};

std::string Question(const Shape& shape) {
  std::string text = R"({"guid":"2","requestData":{"method":"GetProcessInitStateList"},"rest":)";
  text.reserve(kLargest);
  text += shape.begin;
  const std::string tail = shape.end + std::string("}");
  while (text.size() + shape.filling.size() + tail.size() <= kLargest) text += shape.filling;
  text += tail;
  return text.append(kLargest - text.size(), ' ');
}

/// By how much a host's resident memory rises at most, in copies of the text. Each time another host: one
/// that has freed memory may take it again without a rise.
double CopiesAtMost(const Stage& stage, const std::string& frame) {
  stage.WritePort("ServerPort", FreePort());
  Child host(stage.Host(), {"--role", "host", "--endpoint", "large-guard-text"});
  host.Do(Task::kStartFrame, 0, 1);
  GuardClient guard(stage.Port());
  guard.Ask(GuardClient::FrameOf(kSmall));  // what the first question alone needs
  const double before = host.Do(Task::kForgetPeak, 0, 0).at(0);
  const std::string answer = guard.Ask(frame);
  if (answer.find("\"guid\":\"2\"") == answer.npos) throw std::runtime_error("not the answer: " + answer);
  return (host.Do(Task::kPeak, 0, 0).at(0) - before) * 1024 / static_cast<double>(kLargest);
}

}  // namespace

std::vector<Row> MeasureLargeGuardText(const Settings& settings) {
  const Shape shapes[] = {{"with one long text in it", "\"", "x", "\""},
                          {"with texts of 1 KiB in it", "[", '"' + std::string(1024, 'x') + "\",", "\"\"]"},
                          {"with numbers of 7 digits in it", "[", "1234567,", "0]"}};
  const Stage stage;
  std::vector<Row> rows;
  for (const Shape& shape : shapes) {
    const std::string frame = GuardClient::FrameOf(Question(shape));
    Rounds copies;
    for (int i = 0; i < settings.Rounds(3); ++i) copies.Add(CopiesAtMost(stage, frame));
    rows.push_back(MakeRow(shape.name, "x", copies));
  }
  // A document of many small values takes what its values take, however it is read.
  Row& row = rows.front();
  WantAtMost(row, row.median, 2.0, "<= 2 copies");
  row.note = "resident memory beyond that before, no log line wanted";
  return rows;
}

}  // namespace bench
