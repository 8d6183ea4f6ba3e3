#include "PluginLoad.h"

#include <unistd.h>

#include <utility>

#include "support/System.h"

namespace trust::death {
namespace {

/// The frame does not say that a forward has failed: such a call takes all of its time.
constexpr std::chrono::milliseconds kForwardTimeOut{2000};
constexpr std::chrono::milliseconds kTimeOut{5000};
constexpr int kNaps = 3;

}  // namespace

PluginLoad::PluginLoad(TolmPlugin::Plugin& plugin, Tally& tally, std::vector<std::string> plugins,
                       std::size_t own)
    : plugin_(plugin), tally_(tally), plugins_(std::move(plugins)), own_(own) {}

PluginLoad::~PluginLoad() {
  ends_ = true;
  for (std::thread& thread : threads_) thread.join();
}

void PluginLoad::Start(int threads) {
  for (int i = 0; i < threads; ++i) {
    threads_.emplace_back([this, i] { Run(static_cast<unsigned>(::getpid() + i)); });
  }
}

void PluginLoad::Run(unsigned seed) {
  Caller caller(tally_);
  Random random(seed);
  while (!ends_) {
    if (!tally_.quiet) Act(caller, random);
    for (int i = 0; i < kNaps; ++i) tolm::test::Nap();
  }
}

void PluginLoad::Act(Caller& caller, Random& random) {
  const std::size_t other = (own_ + 1 + random() % (plugins_.size() - 1)) % plugins_.size();
  const std::string theirs = "/" + plugins_[other];
  switch (random() % 8) {
    case 0:
      ++tally_.notices;
      if (!plugin_.Notify({.url = theirs + "/note"})) ++tally_.notices_failed;
      break;
    case 1:
      ++tally_.notices;
      if (!plugin_.Notify({.url = "/host/note"})) ++tally_.notices_failed;
      break;
    case 2:
      ++tally_.notices;
      if (!plugin_.Push("state", {.body = "pushed"})) ++tally_.notices_failed;
      break;
    case 3:
      plugin_.CallLater({.url = theirs + "/echo", .body = "later"});
      break;
    case 4:
    case 5:
      if (Call(caller, {own_}, "/host/echo", std::string(random() % 200000, 'u'), kTimeOut) ==
          Outcome::kAnswered) {
        ++tally_.upward[own_];
      }
      break;
    default:
      if (Call(caller, {own_, other}, theirs + "/echo", std::to_string(random()), kForwardTimeOut) ==
          Outcome::kAnswered) {
        ++tally_.forwarded[own_];
      }
  }
}

Outcome PluginLoad::Call(Caller& caller, std::initializer_list<std::size_t> plugins, const std::string& url,
                         const std::string& body, std::chrono::milliseconds time_out) {
  return caller.Judge(time_out, true, plugins, [&] {
    TolmPlugin::Message answer;
    if (!plugin_.Call(answer, {.url = url, .body = body}, static_cast<int>(time_out.count()))) {
      return OutcomeOf(TolmPlugin::Plugin::LastError());
    }
    return answer.body == body ? Outcome::kAnswered : Outcome::kWrongAnswer;
  });
}

}  // namespace trust::death
