// Documents that are nested too deep for any recursion, sent through a whole frame by a plugin and a guard,
// with stacks that a recursion would overrun. After each the frame has to answer as ever.
//
// usage: trust_sets_frame

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "Deep.h"
#include "StackUse.h"
#include "TolmBase/Encrypt.h"
#include "TolmLPCFrame.h"
#include "TolmLPCServer/LpcClient.h"
#include "Verdicts.h"
#include "support/Figures.h"
#include "support/LogCapture.h"
#include "support/System.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace fs = std::filesystem;

using trust::kDeep;
using trust::Times;

constexpr int kPatienceMs = 60'000;
constexpr char kEndpoint[] = "deep";
constexpr char kHostUrl[] = "/host/echo";
constexpr char kPluginUrl[] = "/plugin/echo";

struct Shape {
  const char* name;
  const char* open;
  const char* close;
  std::string Text() const { return Times(kDeep, open) + "0" + Times(kDeep, close); }
};
constexpr Shape kShapes[] = {{"arrays", "[", "]"},
                             {"objects", "{\"a\":", "}"},
                             {"arrays and objects", "[{\"a\":", "}]"},
                             {"arrays without an end", "[", ""},
                             {"objects without an end", "{\"a\":", ""}};

std::atomic<bool> plugin_is_ready{false};

/// Answers what a plugin asks for with what it has sent.
bool OnEvent(const TolmLPCFrame::FrameCallBackData& event, void*) {
  const TolmLPCFrame::LPCData& data = event.lpc_data;
  if (event.LpcMsgType == TolmLPCFrame::kLpcMsgPluginInited) plugin_is_ready = true;
  if (event.LpcMsgType != TolmLPCFrame::kLpcMsgLpcData || data.url != kHostUrl) return true;
  TolmLPCFrame::LPCData reply;
  reply.msg_type = TolmLPCFrame::kMsgTypeReply;
  reply.dst_id = data.src_id;
  reply.msg_id = data.msg_id;
  reply.body = data.body;
  reply.method = std::to_string(data.http_headers.size() + data.http_mime.size());
  std::uint64_t id = 0;
  TolmLPCFrame::AsyncSend(id, reply);
  return true;
}

LpcParams Documents(const std::string& deep) {
  using Tolm::Base::Encrypt::Base64Encode;
  return {{"httpHeaders", Base64Encode("{\"httpHeaders\":" + deep + "}")},
          {"httpMime", Base64Encode("{\"httpMine\":[{\"name\":" + deep + "}]}")}};
}

class Plugin {
 public:
  Plugin() : client_(Settings()) {}

  bool Start() {
    if (!client_.Start() || !client_.WaitConnected(kPatienceMs)) return false;
    const bool told =
        Notify({{"url", "/QOMI/Vantrel/Integration/V1/Register"}},
               std::string(R"({"RegisterInfo":{"SupportUrlList":[{"Url":")") + kPluginUrl + "\"}]}}") &&
        Notify({}, R"({"method":"InitFinish"})");
    int time_out = 0;
    return told && tolm::test::WaitFor(
                       [&] { return plugin_is_ready && TolmLPCFrame::IsPluginURL(time_out, kPluginUrl); });
  }
  void Stop() { client_.Stop(); }

  bool Notify(LpcParams params, std::string body) {
    tag_LPCNotifyData notify;
    notify.dst_id = "0";
    notify.params = std::move(params);
    notify.body = std::move(body);
    return client_.Notify(std::move(notify));
  }

  /// Whether the host gives back what it is sent; it has to see no header and no part.
  bool Ask(LpcParams params, const std::string& body) {
    params["url"] = kHostUrl;
    tag_LPCRequestData request;
    request.dst_id = "0";
    request.params = std::move(params);
    request.body = body;
    tag_LPCResponseData response;
    return client_.Send(response, std::move(request), kPatienceMs) && response.body == body &&
           response.params["method"] == "0";
  }

 private:
  lpcclient::Settings Settings() {
    lpcclient::Settings settings;
    settings.id = "deep";
    settings.endpoint = kEndpoint;
    settings.on_message = [this](const tag_LPCCallBackData& data, const lpcclient::InboundInfo&) {
      Answer(data);
    };
    return settings;
  }

  /// With documents as deep as the request's text says.
  void Answer(const tag_LPCCallBackData& data) {
    if (!data.need_reply) return;
    tag_LPCReplyData reply;
    reply.msg_id = data.msg_id;
    reply.dst_id = data.src_id;
    reply.params = Documents(data.body);
    reply.body = data.body;
    client_.Reply(std::move(reply));
  }

  lpcclient::CLpcClient client_;
};

/// A guard as far as it talks. Whatever takes longer than there is patience for fails, and all that comes
/// behind it: a frame that no longer answers is what is looked for here.
class Guard {
 public:
  explicit Guard(std::uint16_t port) : stream_(context_) {
    stream_.next_layer().connect({asio::ip::address_v4::loopback(), port});
    stream_.text(true);
    stream_.auto_fragment(false);
    InTime([this](auto done) { stream_.async_handshake("127.0.0.1", "/", done); });
  }
  bool Say(const std::string& text) {
    return InTime([&](auto done) { stream_.async_write(asio::buffer(text), done); });
  }
  bool Ask() {
    Say(R"({"guid":"still there?","requestData":{"method":"GetMianProcessPath"}})");
    // What the frame says by itself comes in between.
    for (int i = 0; i < 100; ++i) {
      beast::flat_buffer buffer;
      if (!InTime([&](auto done) { stream_.async_read(buffer, done); })) return false;
      if (beast::buffers_to_string(buffer.data()).find("still there?") != std::string::npos) return true;
    }
    return false;
  }

 private:
  /// Whether what `begin` begins is done without an error, within the time.
  template <typename Begin>
  bool InTime(Begin begin) {
    std::optional<boost::system::error_code> result;
    begin([&](boost::system::error_code error, std::size_t = 0) { result = error; });
    context_.restart();
    context_.run_for(std::chrono::milliseconds(kPatienceMs));
    if (!result) {
      std::printf("the guard waits in vain\n");
      boost::system::error_code ignored;
      stream_.next_layer().close(ignored);
      context_.run();  // what was begun ends, before what it uses goes
    }
    return result == boost::system::error_code();
  }

  asio::io_context context_;
  beast::websocket::stream<asio::ip::tcp::socket> stream_;
};

bool AskPlugin(const std::string& body) {
  TolmLPCFrame::LPCData request;
  TolmLPCFrame::LPCData answer;
  request.url = kPluginUrl;
  request.body = body;
  return TolmLPCFrame::SyncSend(answer, request, kPatienceMs) && answer.body == body &&
         answer.http_headers.empty();
}

void SendAll(trust::Verdicts& verdicts, Plugin& plugin, Guard& guard) {
  const auto alive = [&] { return plugin.Ask({}, "x") && guard.Ask() && AskPlugin("[]"); };
  const auto expect = [&](bool right, const char* what, const Shape& shape) {
    verdicts.Expect(right && alive(), std::string(what) + ": " + shape.name, "an answer afterwards");
  };
  const LpcParams registers{{"url", "/QOMI/Vantrel/Integration/V1/Register"}};
  for (const Shape& shape : kShapes) {
    const std::string deep = shape.Text();
    expect(plugin.Notify(registers, deep), "registration", shape);
    expect(plugin.Notify(registers, "{\"RegisterInfo\":{\"SupportUrlList\":" + deep + "}}"), "list of urls",
           shape);
    expect(plugin.Notify({}, deep), "method", shape);
    expect(plugin.Notify({}, "{\"method\":" + deep + "}"), "method's name", shape);
    expect(plugin.Ask({}, deep), "body", shape);
    expect(plugin.Ask(Documents(deep), "x"), "headers and parts", shape);
    LpcParams push = Documents(deep);
    push["pushMsgTag"] = "tag";
    expect(plugin.Notify(push, deep), "push", shape);
    expect(AskPlugin(deep), "headers and parts of an answer", shape);
    expect(guard.Say(deep), "text of the guard", shape);
    expect(guard.Say("{\"guid\":\"g\",\"requestData\":{\"method\":" + deep + "}}"), "method of the guard",
           shape);
    expect(guard.Say("{\"guid\":" + deep + ",\"responseData\":" + deep + "}"), "answer of the guard", shape);
  }
}

int RunHost(std::uint16_t port) {
  const tolm::test::LogCapture quiet(6);
  trust::Verdicts verdicts("frame_path");
  TolmLPCFrame::PlatformInfo info;
  info.plugin_map["deep"].plugin_id = "deep";
  info.frame_full_path = "/host";
  TolmLPCFrame::RegisterLpcMsgCallback(OnEvent, nullptr);
  TolmLPCFrame::RegisterUrl({kHostUrl});
  const bool started = TolmLPCFrame::TolmLPCFrameInit(kEndpoint, info) == TolmLPCFrame::kFrameOk;
  verdicts.Expect(started, "a start with a deep LpcFrame.xml");
  if (started) {
    Plugin plugin;
    verdicts.Expect(plugin.Start(), "a plugin");
    Guard guard(port);
    verdicts.Expect(guard.Ask(), "a guard that finds the port in the file");
    SendAll(verdicts, plugin, guard);
    plugin.Stop();
    verdicts.Expect(TolmLPCFrame::TolmLPCFrameUnInit() == TolmLPCFrame::kFrameOk, "a stop");
  }
  verdicts.Print(55);
  return trust::AllKept() ? 0 : 1;
}

/// Every thread of the process has a small stack, the first one aside, which does nothing.
int RunOnSmallStacks(std::uint16_t port) {
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  const bool set = ::pthread_attr_setstacksize(&attributes, trust::kStackBytes) == 0 &&
                   ::pthread_setattr_default_np(&attributes) == 0;
  ::pthread_attr_destroy(&attributes);
  if (!set) return 1;
  int status = 1;
  std::thread([&] {
    try {
      status = RunHost(port);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "trust_sets_frame: %s\n", error.what());
    }
  }).join();
  return status;
}

/// The frame's file lies beside the program, so the program runs in a folder of its own.
int RunElsewhere() {
  const tolm::test::RuntimeDirectory runtime;
  const tolm::test::TempDirectory folder;
  const fs::path program = folder.path() / "host";
  const fs::path self = fs::read_symlink("/proc/self/exe");
  std::error_code other_file_system;
  fs::create_hard_link(self, program, other_file_system);
  if (other_file_system) fs::copy_file(self, program);
  const std::string port = std::to_string(tolm::test::FreePort());
  std::ofstream(folder.path() / "LpcFrame.xml") << "<Config>" << Times(kDeep, "<a>") << Times(kDeep, "</a>")
                                                << "<ServerPort>" << port << "</ServerPort></Config>\n";
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child == 0) {
    // It must not be left when this process is killed, which it may have been already.
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) ::_exit(127);
    ::execl(program.c_str(), program.c_str(), port.c_str(), nullptr);
    ::_exit(127);
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child) return 1;
  if (WIFSIGNALED(status)) std::printf("the frame was ended by signal %d\n", WTERMSIG(status));
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

int main(int argc, char** argv) try {
  return argc > 1 ? RunOnSmallStacks(static_cast<std::uint16_t>(std::stoi(argv[1]))) : RunElsewhere();
} catch (const std::exception& error) {
  std::fprintf(stderr, "trust_sets_frame: %s\n", error.what());
  return 1;
}
