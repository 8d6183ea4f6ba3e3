#include "GuardScene.h"

#include <cjson/cJSON.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <utility>

#include "TolmBase/FileUtil.h"
#include "TolmProto/RapidJsonProto.h"

namespace tolm::test {
namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

Json Parse(const std::string& text) {
  return {cJSON_ParseWithLength(text.data(), text.size()), &cJSON_Delete};
}

bool IsAnswered(const std::string& method) {
  return method == "NotifyLPCFrameInit" || method == "SetProcessGuardStateList";
}

}  // namespace

::testing::AssertionResult IsJson(const std::string& text, const std::string& expected) {
  const Json actual = Parse(text);
  const Json wanted = Parse(expected);
  if (!wanted) return ::testing::AssertionFailure() << "expected, but not JSON: " << expected;
  if (!actual) return ::testing::AssertionFailure() << "not JSON: " << text;
  if (const cJSON* guid = cJSON_GetObjectItemCaseSensitive(wanted.get(), "guid");
      guid != nullptr && std::string(guid->valuestring) == "*") {
    const cJSON* actual_guid = cJSON_GetObjectItemCaseSensitive(actual.get(), "guid");
    if (!cJSON_IsString(actual_guid) || std::string(actual_guid->valuestring).size() != 36) {
      return ::testing::AssertionFailure() << "no guid: " << text;
    }
    cJSON_ReplaceItemInObjectCaseSensitive(wanted.get(), "guid", cJSON_Duplicate(actual_guid, 1));
  }
  if (cJSON_Compare(actual.get(), wanted.get(), 1) != 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "is " << text << "\ninstead of " << expected;
}

std::string GuidOf(const std::string& message) {
  proto::CRapidJsonProto json;
  json.set_str(message);
  return json.get_v("/guid", "");
}

std::string Asks(const std::string& method, const std::string& guid) {
  return R"({"guid":")" + guid + R"(","requestData":{"method":")" + method + R"("}})";
}

std::string Answers(const std::string& method, const std::string& guid) {
  return R"({"guid":")" + guid + R"(","requestData":{"method":")" + method +
         R"("},"responseData":{"from":"the guard"}})";
}

std::string ProcessState(const std::string& members) {
  return R"({"requestData":{"method":"NotifyProcessState")" + (members.empty() ? "" : "," + members) + "}}";
}

GuardTest::GuardTest() {
  net_.Reset();
  system_.Reset();
  waits_.Reset();
  system_.directory = [folder = Folder()] { return folder; };
  Tolm::Base::FileUtil::InitCurExeDirUtf8(Folder());
  ForgetEverything(Endpoint());
  ForgetEverything(Guard());
}

void GuardTest::TearDown() {
  // Every script that refers to the case's own variables goes first.
  JoinAnswers();
  net_.Reset();
  system_.Reset();
  waits_.Reset();
  FrameScene::TearDown();
  JoinAnswers();
}

TolmLPCFrame::CTolmGuardConnectManager& GuardTest::Endpoint() {
  return Tolm::Base::CSingleton<TolmLPCFrame::CTolmGuardConnectManager>::Instance();
}

TolmLPCFrame::CLPCCommunicateWithTolmGuard& GuardTest::Guard() {
  return TolmLPCFrame::CLPCCommunicateWithTolmGuard::GetInstance();
}

void GuardTest::WriteFile(const std::string& name, const std::string& content) const {
  std::ofstream file(Folder() + name, std::ios::binary | std::ios::trunc);
  file << content;
  ASSERT_TRUE(file.flush());
}

void GuardTest::WriteConfig(const std::string& elements) const {
  WriteFile("LpcFrame.xml", "<Config>" + elements + "</Config>\n");
}

std::string GuardTest::ReadFile(const std::string& name) const {
  std::ifstream file(Folder() + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool GuardTest::FileExists(const std::string& name) const {
  return std::filesystem::exists(Folder() + name);
}

int GuardTest::StartWithPort(const PlatformInfo& info) {
  WriteConfig("<ServerPort>8123</ServerPort><ClientPort>8124</ClientPort>");
  return Start(info);
}

void GuardTest::Connect(std::int32_t socket_id) {
  const LogLine handled = Info("CTolmGuardConnectManager::TolmGuardOnRawMsgEIT",
                               "Get client info:socket id :" + std::to_string(socket_id) + ", ip =127.0.0.1");
  const std::size_t before = log_.CountOf(handled);
  net_.Handshake(socket_id);
  EXPECT_TRUE(WaitFor([&] { return log_.CountOf(handled) > before; }));
}

void GuardTest::Register(std::int32_t socket_id) {
  Endpoint().TolmGuardOnRawMsgEIT(socket_id, Tolm::Net::kWebsocketHandshake, 0, {});
}

void GuardTest::AnswerDirectly() {
  WaitForAnswers();
  net_.send = [this](const SentFrame& frame) {
    const std::string method = MethodOf(frame.data);
    if (IsAnswered(method)) {
      const std::lock_guard lock(answers_mutex_);
      answers_.emplace_back([socket_id = frame.socket_id, reply = Answers(method, GuidOf(frame.data))] {
        Endpoint().DealMessage(socket_id, reply);
      });
    }
    return 0;
  };
}

void GuardTest::AnswerOverTheWire() {
  WaitForAnswers();
  net_.send = [this](const SentFrame& frame) {
    const std::string method = MethodOf(frame.data);
    if (IsAnswered(method)) net_.Text(frame.socket_id, Answers(method, GuidOf(frame.data)));
    return 0;
  };
}

void GuardTest::JoinAnswers() {
  std::vector<std::jthread> answers;
  {
    const std::lock_guard lock(answers_mutex_);
    answers.swap(answers_);
  }
  for (std::jthread& answer : answers) answer.join();
}

void GuardTest::WaitForAnswers() {
  waits_.how_long = [](std::int32_t) { return 20000; };
}

SentFrame GuardTest::OnlySent() const {
  const std::vector<SentFrame> sent = net_.Sent();
  if (sent.size() == 1) return sent.front();
  ADD_FAILURE() << sent.size() << " frames were sent";
  return {};
}

std::map<std::int32_t, int> GuardTest::NoticesByConnection() const {
  std::map<std::int32_t, int> notices;
  for (const SentFrame& frame : net_.Sent("NotifyFrameInitState")) ++notices[frame.socket_id];
  return notices;
}

}  // namespace tolm::test
