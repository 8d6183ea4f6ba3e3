#include "HostLoad.h"

#include <utility>

#include "support/System.h"

namespace trust::death {
namespace {

using TolmLPCFrame::LPCData;

/// Long: a call of a plugin that dies ends at once, so only one that got lost takes it.
constexpr std::chrono::milliseconds kTimeOut{10000};
constexpr int kNapsBetweenReviews = 50;

LPCData Message(std::int32_t type, const std::string& url, std::string body) {
  LPCData message;
  message.msg_type = type;
  message.url = url;
  message.body = std::move(body);
  return message;
}

}  // namespace

HostLoad::HostLoad(Tally& tally, HostEvents& events, std::vector<std::string> plugins)
    : tally_(tally), plugins_(std::move(plugins)), later_(tally, events) {}

HostLoad::~HostLoad() {
  Join();
}

void HostLoad::Start(int threads) {
  for (int i = 0; i < threads; ++i) {
    threads_.emplace_back([this, i] { Run(static_cast<unsigned>(i) + 1); });
  }
  threads_.emplace_back([this] {
    while (!tally_.quiet) {
      later_.Review();
      for (int i = 0; i < kNapsBetweenReviews && !tally_.quiet; ++i) tolm::test::Nap();
    }
  });
}

void HostLoad::Join() {
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void HostLoad::Run(unsigned seed) {
  Caller caller(tally_);
  Random random(seed);
  // What the frame refuses leaves a thread's code as it was: after each failure another thread goes on,
  // whose code is 0.
  while (!tally_.quiet) {
    std::thread([&] {
      while (!tally_.quiet && Act(caller, random)) tolm::test::Nap();
    }).join();
    tolm::test::Nap();
  }
}

bool HostLoad::Act(Caller& caller, Random& random) {
  const std::size_t plugin = random() % plugins_.size();
  const std::string own = "/" + plugins_[plugin];
  std::uint64_t id = 0;
  switch (random() % 10) {
    case 0:
      later_.Send(plugin, [&] {
        const bool sent =
            TolmLPCFrame::AsyncSend(id, Message(TolmLPCFrame::kMsgTypeRequest, own + "/echo", "later"));
        return sent ? id : 0;
      });
      return TolmLPCFrame::GetLPCLastError() == 0;
    case 1:
      ++tally_.notices;
      if (!TolmLPCFrame::AsyncSend(id, Message(TolmLPCFrame::kMsgTypeNotify, own + "/note", "note"))) {
        ++tally_.notices_failed;
        return false;
      }
      return true;
    case 2:
      return Call(caller, plugin, own + "/slow", "slow");
    case 3:
      return Call(caller, plugin, own + "/echo", std::string(random() % 600000, 'b'));
    default:
      return Call(caller, plugin, own + "/echo", std::to_string(random()));
  }
}

bool HostLoad::Call(Caller& caller, std::size_t plugin, const std::string& url, const std::string& body) {
  const Outcome outcome = caller.Judge(kTimeOut, false, {plugin}, [&] {
    LPCData answer;
    if (!TolmLPCFrame::SyncSend(answer, Message(TolmLPCFrame::kMsgTypeRequest, url, body),
                                static_cast<int>(kTimeOut.count()))) {
      const int code = TolmLPCFrame::GetLPCLastError();
      return code == 0 ? Outcome::kNotServed : OutcomeOf(code);
    }
    return answer.body == body && answer.src_id == plugins_[plugin] ? Outcome::kAnswered
                                                                    : Outcome::kWrongAnswer;
  });
  if (outcome == Outcome::kAnswered) ++tally_.served[plugin];
  return outcome == Outcome::kAnswered;
}

}  // namespace trust::death
