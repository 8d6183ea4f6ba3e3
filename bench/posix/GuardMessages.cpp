// How soon, and how often, the frame answers a guard.

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Measurements.h"
#include "Process.h"
#include "Samples.h"
#include "Stage.h"
#include "posix/GuardClient.h"
#include "posix/Loopback.h"

namespace bench {
namespace {

constexpr std::size_t kPlugins = 10;
constexpr std::size_t kPerRound = 2000;
constexpr std::size_t kBurst = 2000;
constexpr char kQuestion[] = R"({"guid":"4711","requestData":{"method":"GetProcessInitStateList"}})";

std::string ReadAnswer(Channel& channel, std::size_t size) {
  std::string answer(size, '\0');
  if (!channel.Read(answer.data(), size)) throw std::runtime_error("the other side ended");
  return answer;
}

std::vector<double> RoundTrips(Channel& channel, const std::string& there, const std::string& back,
                               std::size_t count) {
  std::vector<double> samples;
  samples.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    std::string answer;
    samples.push_back(Microseconds([&] {
      channel.Write(there.data(), there.size());
      answer = ReadAnswer(channel, back.size());
    }));
    if (answer != back) throw std::runtime_error("another answer than before");
  }
  return samples;
}

double AnswersPerSecond(Channel& channel, const std::string& there, const std::string& back) {
  std::string burst;
  for (std::size_t i = 0; i < kBurst; ++i) burst += there;
  const auto begin = Clock::now();
  // Nobody has to wait for somebody who waits in turn, however little fits in between.
  std::thread writer([&] { channel.Write(burst.data(), burst.size()); });
  const std::string answers = ReadAnswer(channel, kBurst * back.size());
  const double seconds = SecondsSince(begin);
  writer.join();
  for (std::size_t i = 0; i < kBurst; ++i) {
    if (answers.compare(i * back.size(), back.size(), back) != 0) {
      throw std::runtime_error("another answer than before");
    }
  }
  return kBurst / seconds;
}

}  // namespace

std::vector<Row> MeasureGuardMessages(const Settings& settings) {
  const Stage stage;
  stage.WritePort("ServerPort", FreePort());
  Child host(stage.Host(), {"--role", "host", "--endpoint", "guard-messages"});
  host.Do(Task::kStartFrame, 0, kPlugins);
  GuardClient guard(stage.Port());
  const std::string question = GuardClient::FrameOf(kQuestion);
  // The same each time, so that the bare socket's other end can send as much.
  const std::string answer = guard.Ask(question);
  if (answer.find("\"total\":10") == answer.npos || answer.find("4711") == answer.npos) {
    throw std::runtime_error("not the answer to the question: " + answer);
  }
  LoopbackPeer raw(question.size(), answer.size());
  const std::string raw_answer(answer.size(), 'x');

  const std::size_t count = settings.Samples(kPerRound);
  const auto ask = [&] { return RoundTrips(guard.channel(), question, answer, count); };
  const auto ask_raw = [&] { return RoundTrips(raw.channel(), question, raw_answer, count); };
  ask();
  ask_raw();
  Rounds raw_trips;
  Rounds trips;
  Alternate(
      settings.Rounds(10), [&] { raw_trips.Add(ask_raw()); }, [&] { trips.Add(ask()); });
  Row trip = MakeRow("guard.round_trip", "us", trips, raw_trips);
  trip.note = std::to_string(question.size()) + " bytes there, " + std::to_string(answer.size()) +
              " back, of 10 plugins";
  WantAtMost(trip, trip.ratio, 4.0, "<= 4.0x");

  Rounds raw_bursts;
  Rounds bursts;
  Alternate(
      settings.Rounds(10), [&] { raw_bursts.Add(AnswersPerSecond(raw.channel(), question, raw_answer)); },
      [&] { bursts.Add(AnswersPerSecond(guard.channel(), question, answer)); });
  Row burst = MakeRow("guard.burst", "1/s", bursts, raw_bursts);
  burst.p99 = burst.raw_p99 = kNone;
  burst.note = "2,000 of them at once";
  return {trip, burst};
}

}  // namespace bench
