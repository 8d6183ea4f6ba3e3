#include "PluginScripts.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <thread>

#include "TolmLPCServer/LpcClient.h"
#include "support/System.h"

namespace trust::death {
namespace {

namespace fs = std::filesystem;

constexpr char kRegisterUrl[] = "/QOMI/Vantrel/Integration/V1/Register";
/// More than any reply but the big one leaves in a socket.
constexpr int kMuch = 65536;
constexpr int kMostDescriptors = 64;

// docs/wire/lpc-endpoint.md: HELLO for versions 1 to 1.
std::string Hello(const std::string& id) {
  using namespace std::string_view_literals;
  const auto size = static_cast<char>(id.size());
  std::string hello;
  hello += static_cast<char>(14 + id.size());
  hello += "\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0TLPC\1\0\1\0\0\0\0\0"sv;
  hello += size;
  hello += '\0';
  return hello + id;
}

}  // namespace

std::optional<std::string> TakeScript() {
  std::error_code none;
  fs::rename("script", "script.taken", none);
  if (none) return std::nullopt;
  std::ifstream file("script.taken");
  std::string word;
  file >> word;
  return word;
}

void SayReached(const std::string& what) {
  std::ofstream(what + ".part") << ::getpid() << std::endl;
  fs::rename(what + ".part", what);
}

void WaitForGo() {
  while (!fs::exists("go")) tolm::test::Nap();
}

void SendHello(const std::string& id, bool whole) {
  const int stream = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = std::string(std::getenv("XDG_RUNTIME_DIR")) + "/tolm-lpc/host.sock";
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const std::string hello = Hello(id);
  const std::size_t size = whole ? hello.size() : hello.size() / 2;
  if (::connect(stream, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::send(stream, hello.data(), size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) {
    std::_Exit(1);
  }
  SayReached();
  tolm::test::WaitForever();
}

void RegisterOnly(const std::string& id, const std::string& endpoint) {
  lpcclient::Settings settings;
  settings.id = id;
  settings.endpoint = endpoint;
  settings.on_message = [](tag_LPCCallBackData&&, const lpcclient::InboundInfo&) {};
  lpcclient::CLpcClient client(std::move(settings));
  client.Start();
  while (!client.IsConnected()) tolm::test::Nap();
  tag_LPCNotifyData registration;
  registration.dst_id = "0";
  registration.params["url"] = kRegisterUrl;
  registration.body = R"({"RegisterInfo":{"SupportUrlList":[{"Url":"/)" + id + R"(/echo","Timeout":5000}]}})";
  if (!client.Notify(std::move(registration))) std::_Exit(1);
  SayReached();
  tolm::test::WaitForever();
}

void SayWhenInTheMiddle() {
  std::thread([] {
    for (;;) {
      for (int descriptor = 3; descriptor < kMostDescriptors; ++descriptor) {
        int unsent = 0;
        if (::ioctl(descriptor, SIOCOUTQ, &unsent) != 0 || unsent < kMuch) continue;
        SayReached("middle");
        return;
      }
      tolm::test::Nap();
    }
  }).detach();
}

}  // namespace trust::death
