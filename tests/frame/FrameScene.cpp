#include "FrameScene.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>

#include "InitLogical.h"
#include "RegistryInside.h"

namespace TolmLPCFrame {

bool operator==(const MimePart& a, const MimePart& b) {
  const auto fields = [](const MimePart& p) {
    return std::tie(p.content_type, p.disposition, p.name, p.file_name, p.encoding, p.description,
                    p.body_data);
  };
  return fields(a) == fields(b);
}

bool operator==(const LPCData& a, const LPCData& b) {
  const auto fields = [](const LPCData& d) {
    return std::tie(d.msg_type, d.dst_id, d.dst_type, d.src_id, d.url, d.method, d.msg_id, d.push_msg_tag,
                    d.http_headers, d.http_mime, d.body, d.schema);
  };
  return fields(a) == fields(b);
}

}  // namespace TolmLPCFrame

namespace tolm::test {
namespace {

constexpr char kRegisterUrl[] = "/QOMI/Vantrel/Integration/V1/Register";

bool g_was_started = false;

std::array<Tolm::Base::CMessageLoopDyThreadPool*, 4> AllPools() {
  using Tolm::Base::CSingleton;
  return {&CSingleton<TolmLPCFrame::CMessageLoopForNetCallBack>::Instance(),
          &CSingleton<TolmLPCFrame::CMessageLoopForMainFrameWork>::Instance(),
          &CSingleton<TolmLPCFrame::CMessageLoopForPlugins>::Instance(),
          &CSingleton<TolmLPCFrame::CMessageLoopForWebSocket>::Instance()};
}

Message ConnectionEvent(const std::string& id, const std::string& status) {
  return Message().From(id).Body(R"({"method":"connectionStatusChanged","status":")" + status +
                                 R"(","componentID":")" + id + R"("})");
}

}  // namespace

LogLine Line(int level, const std::string& tag, const std::string& function, const std::string& text) {
  LogLine line;
  line.level = level;
  line.tag = tag;
  line.function = "TolmLPCFrame::" + function;
  line.text = text;
  return line;
}

LogLine Trace(const std::string& function, const std::string& text) {
  return Line(2, "LPCFrameTrace", function, text);
}

LogLine Info(const std::string& function, const std::string& text) {
  return Line(3, "LPCFrameInfo", function, text);
}

LogLine Error(const std::string& function, const std::string& text) {
  return Line(5, "LPCFrameError", function, text);
}

bool Host::Receive(const FrameCallBackData& data, void* user) {
  Host& host = *static_cast<Host*>(user);
  Journal::Note("host " + std::to_string(data.LpcMsgType) + " " + data.lpc_data.src_id);
  {
    const std::lock_guard lock(host.mutex_);
    host.calls_.push_back({data, std::this_thread::get_id()});
  }
  return host.answer(data);
}

std::vector<Host::Call> Host::Calls() const {
  const std::lock_guard lock(mutex_);
  return calls_;
}

std::size_t Host::Count() const {
  const std::lock_guard lock(mutex_);
  return calls_.size();
}

std::size_t Host::Count(std::int32_t kind) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      calls_.begin(), calls_.end(), [kind](const Call& call) { return call.data.LpcMsgType == kind; }));
}

FrameCallBackData Host::Only() const {
  const std::vector<Call> calls = Calls();
  if (calls.size() == 1) return calls.front().data;
  ADD_FAILURE() << "the host was called " << calls.size() << " times";
  FrameCallBackData none;
  none.LpcMsgType = -1;
  return none;
}

void Host::Clear() {
  const std::lock_guard lock(mutex_);
  calls_.clear();
}

Message& Message::From(const std::string& id) {
  data_.src_id = id;
  data_.dst_id = "0";
  return *this;
}

Message& Message::To(const std::string& id) {
  data_.dst_id = id;
  return *this;
}

Message& Message::Param(const std::string& key, const std::string& value) {
  data_.params[key] = value;
  return *this;
}

Message& Message::Body(const std::string& body) {
  data_.body = body;
  return *this;
}

Message& Message::WantsReply(std::uint64_t id) {
  data_.need_reply = true;
  data_.msg_id = id;
  return *this;
}

Message& Message::Answers(std::uint64_t id) {
  data_.is_reply = true;
  data_.msg_id = id;
  return *this;
}

Message Connected(const std::string& id) {
  return ConnectionEvent(id, "connected");
}

Message Disconnected(const std::string& id) {
  return ConnectionEvent(id, "disconnected");
}

Message InitFinish(const std::string& id) {
  return Message().From(id).Body(R"({"method":"InitFinish","Data":{"InitCostTime":12}})");
}

Message UninitFinish(const std::string& id) {
  return Message().From(id).Body(R"({"method":"UninitFinish"})");
}

Message Registration(const std::string& id, const std::string& body) {
  return Message().From(id).Url(kRegisterUrl).Body(body);
}

PlatformInfo Plugins(std::initializer_list<std::string> ids, std::int32_t frame_type) {
  PlatformInfo info;
  for (const std::string& id : ids) info.plugin_map[id].plugin_id = id;
  info.frame_type = frame_type;
  return info;
}

FrameScene::FrameScene() : log_(1, [](const LogLine& line) { Journal::Note("log " + line.text); }) {
  Journal::Clear();
  transport_.Reset();
  clock_.Reset();
  ForgetEverything(Registry());
}

void FrameScene::TearDown() {
  // Every script that refers to the case's own variables goes first.
  transport_.Reset();
  clock_.Reset();
  host_.answer = true;
  if (TolmLPCFrame::TolmLPCFrameUnInit() == 0) g_was_started = true;
  Manager().SetCallBack(nullptr, nullptr);
  transport_.SetInvokeCallBack(nullptr, nullptr);
  // What a case posted without starting the pools is not for the next one.
  for (Tolm::Base::CMessageLoopDyThreadPool* pool : AllPools()) {
    pool->Stop(false);
    pool->Reopen();
  }

  for (const LogLine& line : log_.Lines()) {
    EXPECT_TRUE(line.function.starts_with("Tolm") && !line.file.empty() && line.line > 0) << line.whole;
  }
}

bool FrameScene::WasStartedByAnEarlierCase() {
  return g_was_started;
}

TolmLPCFrame::CLpcServerManager& FrameScene::Manager() {
  return Tolm::Base::CSingleton<TolmLPCFrame::CLpcServerManager>::Instance();
}

std::vector<std::size_t> FrameScene::ThreadsOfPools() {
  std::vector<std::size_t> counts;
  for (const Tolm::Base::CMessageLoopDyThreadPool* pool : AllPools()) counts.push_back(pool->ThreadCount());
  return counts;
}

void FrameScene::RegisterHost() {
  TolmLPCFrame::RegisterLpcMsgCallback(&Host::Receive, &host_);
}

int FrameScene::Start(const PlatformInfo& info) {
  RegisterHost();
  return TolmLPCFrame::TolmLPCFrameInit("endpoint", info);
}

void FrameScene::List(const PlatformInfo& info) {
  Registry().Init(info);
}

void FrameScene::Serve(const std::string& id, const std::string& url, int time_out) {
  Registry().PluginURLRegister(Registration(id, R"({"RegisterInfo":{"SupportUrlList":[{"Url":")" + url +
                                                    R"(","Timeout":)" + std::to_string(time_out) + "}]}}"));
}

void FrameScene::FromNowOn() {
  log_.Clear();
  Journal::Clear();
  host_.Clear();
}

}  // namespace tolm::test
