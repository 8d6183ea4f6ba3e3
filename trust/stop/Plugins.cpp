#include "Plugins.h"

#include <chrono>
#include <string>
#include <thread>

#include "Stage.h"

namespace trust {
namespace {

using TolmPlugin::Message;
using TolmPlugin::Request;

std::string UrlOf(int plugin, const char* last) {
  return "/p" + std::to_string(plugin) + "/" + last;
}

}  // namespace

EagerPlugin::EagerPlugin(int number, int plugins) : plugin_("p" + std::to_string(number)) {
  plugin_.Serve(UrlOf(number, "fast"),
                [](Request&& request) { return Message{.body = request.message.body}; });
  plugin_.Serve(UrlOf(number, "slow"), [](const Request&) {
    LetPass(std::chrono::milliseconds(5));
    return Message{};
  });
  plugin_.Serve(UrlOf(number, "never"), [this](const Request&) {
    const long life = lives_;
    while (lives_ == life) LetPass(std::chrono::milliseconds(1));
    return Message{};
  });
  plugin_.Serve(UrlOf(number, "back"), [this](const Request&) {
    Call("/host/answers");
    return Message{};
  });
  plugin_.Serve(UrlOf(number, "hop"), [this, next = UrlOf((number + 1) % plugins, "fast")](const Request&) {
    Call(next);
    return Message{};
  });
  plugin_.OnReady([this] { plugin_.Push("ready", {}); });
  plugin_.OnUninit([this] { Call("/host/answers", 1); });
  plugin_.OnLost([this](const std::string&) { ++lives_; });
  plugin_.Start(kEndpointOfStage);
}

EagerPlugin::~EagerPlugin() {
  ++lives_;
  plugin_.Stop();
}

bool EagerPlugin::Call(const std::string& url, int time_out_ms) {
  Message answer;
  return plugin_.Call(answer, Message{.url = url, .body = "question"}, time_out_ms) ||
         TolmPlugin::Plugin::LastError() != lpc::kOk;
}

MutePlugin::MutePlugin() {
  lpcclient::Settings settings;
  settings.id = "mute";
  settings.endpoint = kEndpointOfStage;
  settings.on_connected = [this] {
    if (owes_.exchange(false)) Finish();
  };
  settings.on_message = [this](tag_LPCCallBackData&& data, const lpcclient::InboundInfo&) {
    if (data.body.find("Uninit") == std::string::npos) return;
    if (answers_) {
      Finish();
    } else {
      owes_ = true;
    }
  };
  client_ = std::make_unique<lpcclient::CLpcClient>(std::move(settings));
  client_->Start();
}

void MutePlugin::Finish() {
  tag_LPCNotifyData finished;
  finished.dst_id = "0";
  finished.body = R"({"method":"UninitFinish"})";
  client_->Notify(std::move(finished));
}

}  // namespace trust
