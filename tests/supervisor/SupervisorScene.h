#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "FakeProcesses.h"
#include "Supervisor.h"
#include "TolmProto/RapidJsonProto.h"
#include "VirtualScheduler.h"
#include "support/LogCapture.h"
#include "support/TempDirectory.h"

namespace guard::test {

/// A frame that keeps what it is sent, and answers questions for the states at once.
class FakeFrame : public FrameChannel {
 public:
  /// `say` brings a text to the guard, later.
  explicit FakeFrame(std::function<void(std::string text)> say) : say_(std::move(say)) {}

  struct Sent {
    std::string method;
    std::string guid;
    std::string process_id;  ///< of an end that is told
    std::string text;
  };

  bool Send(std::string text) override {
    if (!connected) return false;
    proto::CRapidJsonProto json;
    EXPECT_TRUE(json.set_str(text));
    sent.push_back({json.get_v("/requestData/method", ""), json.get_v("/guid", ""),
                    json.get_v("/requestData/processId", ""), text});
    if (sent.back().method == "NotifyProcessState" && notes_ends) Note(sent.back().process_id);
    if (sent.back().method == "GetProcessInitStateList" && answers) Answer(sent.back().guid);
    return true;
  }

  /// Handles a notice of an end.
  void Note(const std::string& plugin) {
    if (const auto state = states.find(plugin); state != states.end()) state->second = 0;
  }
  /// Answers the question that carried `guid`.
  void Answer(const std::string& guid) {
    std::string list;
    for (const auto& [id, state] : states) {
      list += (list.empty() ? R"({"processName":")" : R"(,{"processName":")") + id + R"(","initState":)" +
              std::to_string(state) + "}";
    }
    say_(R"({"code":"0","msg":"","guid":")" + guid + R"(","responseData":{"initInfoList":[)" + list +
         R"(],"total":)" + std::to_string(states.size()) + "}}");
  }
  /// Answers the latest question.
  void Answer() {
    for (auto one = sent.rbegin(); one != sent.rend(); ++one) {
      if (one->method == "GetProcessInitStateList") return Answer(one->guid);
    }
    ADD_FAILURE() << "nothing was asked";
  }

  std::vector<std::string> Methods() const {
    std::vector<std::string> methods;
    for (const Sent& one : sent) methods.push_back(one.method);
    return methods;
  }
  std::vector<std::string> Ends() const {
    std::vector<std::string> ends;
    for (const Sent& one : sent) {
      if (one.method == "NotifyProcessState") ends.push_back(one.process_id);
    }
    return ends;
  }

  bool connected = false;
  bool answers = true;
  bool notes_ends = true;
  std::map<std::string, int> states{{"clock", 0}, {"relay", 0}, {"shop", 0}};  // of those that are listed
  std::vector<Sent> sent;

 private:
  const std::function<void(std::string text)> say_;
};

/// A supervisor between a frame that the test plays and processes that are none, with real manifests.
class SupervisorScene : public testing::Test {
 protected:
  SupervisorScene() {
    for (const char* id : {"clock", "relay", "shop"}) AddManifest(id);
  }

  void AddManifest(const std::string& id, const std::string& more = "") {
    AddManifestIn(plugins_folder(), id, more);
  }
  static void AddManifestIn(const std::filesystem::path& folder, const std::string& id,
                            const std::string& more = "") {
    std::filesystem::create_directories(folder / id);
    std::ofstream(folder / id / "plugin.json") << "{\"program\": \"" << id << "\"" << more << "}";
  }
  std::filesystem::path plugins_folder() const { return directory_.path() / "plugins"; }

  // What the frame does.
  void Connect() {
    frame_.connected = true;
    supervisor_->OnFrameConnected();
  }
  void LoseFrame() {
    frame_.connected = false;
    supervisor_->OnFrameLost();
  }
  void Say(const std::string& text) {
    supervisor_->OnFrameText(text);
    clock_.RunPosted();
  }
  void SayMethod(const std::string& method, const std::string& more = "") {
    Say(R"({"guid":"g-)" + method + R"(","requestData":{"method":")" + method + "\"" + more + "}}");
  }
  void Start(const std::vector<std::string>& plugins, const std::string& command_line = "--endpoint e") {
    std::string list;
    for (const std::string& plugin : plugins) list += (list.empty() ? "\"" : ",\"") + plugin + "\"";
    SayMethod("NotifyFrameInitState",
              R"(,"initState":1,"cmdline":")" + command_line + R"(","PluginList":[)" + list + "]");
  }
  void Protect(const std::vector<std::pair<std::string, int>>& plugins) {
    std::string list;
    for (const auto& [plugin, type] : plugins) {
      list += std::string(list.empty() ? "" : ",") + R"({"processName":")" + plugin + R"(","type":)" +
              std::to_string(type) + "}";
    }
    SayMethod("SetProcessGuardStateList",
              ",\"guardInfoList\":[" + list + "],\"total\":" + std::to_string(plugins.size()));
  }

  // What the plugins do.
  std::size_t Runs(const std::string& id) const { return processes_.RunsOf(ProgramEnd(id)).size(); }
  FakeRun& Run(const std::string& id) const { return *processes_.RunsOf(ProgramEnd(id)).back(); }
  static std::string ProgramEnd(const std::string& id) {
    return std::filesystem::path("/" + id + "/" + id).make_preferred().string();
  }
  bool IsRunning(const std::string& id) const {
    const PluginSupervisor* const plugin = supervisor_->plugin(id);
    return plugin != nullptr && plugin->state() == PluginSupervisor::State::kRunning;
  }
  void End(const std::string& id, int status, int signal = 0) {
    Run(id).Ends(status, signal);
    clock_.RunPosted();
  }

  std::size_t CountInLog(const std::string& text) const {
    std::size_t count = 0;
    for (const auto& line : capture_.Lines()) count += line.text.find(text) != std::string::npos ? 1 : 0;
    return count;
  }

  void MakeSupervisor(bool plugins_may_move) {
    SupervisorOptions options;
    options.plugins = plugins_folder();
    options.plugins_may_move = plugins_may_move;
    options.logs = directory_.path() / "log";
    supervisor_ =
        std::make_unique<Supervisor>(options, clock_, frame_, processes_.Starter(), [] { return 0.5; });
  }

  const tolm::test::TempDirectory directory_;
  tolm::test::LogCapture capture_{3};
  VirtualScheduler clock_;
  FakeFrame frame_{[this](std::string text) {
    clock_.Post([this, text = std::move(text)] { supervisor_->OnFrameText(text); });
  }};
  FakeProcesses processes_;
  std::unique_ptr<Supervisor> supervisor_;
};

}  // namespace guard::test
