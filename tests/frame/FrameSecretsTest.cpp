// Session ids in urls, wherever an url goes through the frame: none is in a line of the log.

#include <string>
#include <vector>

#include "FrameScript.h"
#include "TolmBase/StringUtil.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;

/// Ways in which an url may carry session ids.
std::vector<std::string> UrlsWithSecrets() {
  const std::string sid = std::string("SID=") + kSid;
  std::string mixed = std::string("sId=") + kSid;
  return {"/b?" + sid,
          "/b?x=1&" + mixed + "&y=2",
          "/b?" + sid + "&" + mixed,
          "/b/" + sid + "/c",
          "/" + sid,
          sid,
          "/b?MT=" + sid,
          "/b/" + std::string(5000, 'x') + "?" + sid,
          "/b?" + sid + std::string(5000, 'x'),
          "/b?" + sid + "0123",
          "/b;" + sid + "#" + sid};
}

class FrameSecrets : public FrameTest {
 protected:
  FrameSecrets() {
    RegisterHost();
    FromNowOn();
  }

  /// Whether a line was logged, and none of them shows a session id.
  void ExpectNoSecret(const std::string& doing) {
    const std::vector<LogLine> lines = log_.Lines();
    EXPECT_FALSE(lines.empty()) << doing;
    // A registered url is in small letters.
    using Tolm::Base::StringUtil::LowerCase;
    for (const LogLine& line : lines) {
      EXPECT_EQ(LowerCase(line.whole).find(LowerCase(kSid)), std::string::npos) << doing << ": " << line;
    }
    FromNowOn();
  }
};

TEST_F(FrameSecrets, AreNotInWhatIsLoggedOfAHostsUrls) {
  for (const std::string& url : UrlsWithSecrets()) {
    RegisterUrl({url});
    int time_out = 0;
    IsPluginURL(time_out, url);
    ExpectNoSecret("RegisterUrl and IsPluginURL " + url);
  }
}

TEST_F(FrameSecrets, AreNotInWhatIsLoggedOfAPluginsRegistration) {
  for (const std::string& url : UrlsWithSecrets()) {
    Registry().PluginURLRegister(
        Registration("B", R"({"RegisterInfo":{"SupportUrlList":[{"Url":")" + url + R"("}]}})"));
    ExpectNoSecret("a registration of " + url);
  }
}

TEST_F(FrameSecrets, AreNotInWhatIsLoggedOfWhatArrives) {
  for (const std::string& url : UrlsWithSecrets()) {
    Manager().LPCServerCallback(Message().From("A").Url(url).Body("text"), nullptr);
    ExpectNoSecret("an arrival of " + url);
    Registry().URLCallBackEIT(url, "", Message().From("A").Url(url).Body("text").Record());
    ExpectNoSecret("a decision about " + url);
    Registry().URLCallBackEIT("/x", url, Message().From("A").Url(url).Record());
    ExpectNoSecret("a decision with the method " + url);
    Registry().URLTaskEIT(0, url, Message().From("A").Url(url).Record());
    ExpectNoSecret("a call of the host with " + url);
  }
}

TEST_F(FrameSecrets, AreNotInWhatIsLoggedOfAForward) {
  for (const std::string& url : UrlsWithSecrets()) {
    Registry().PluginURLAddressForward(url, Message().From("A").Url(url).WantsReply(9).Record());
    ExpectNoSecret("a forward to nobody, " + url);
    Serve("B", url.substr(0, url.find('?')));
    FromNowOn();
    const std::string served = url.substr(0, url.find('?'));
    Registry().PluginURLAddressForward(served, Message().From("A").Url(url).WantsReply(9).Record());
    ExpectNoSecret("a forward, " + url);
    transport_.send_and_wait = false;
    Registry().PluginURLAddressForward(served, Message().From("A").Url(url).WantsReply(9).Record());
    ExpectNoSecret("a forward that fails, " + url);
    transport_.notify = false;
    Registry().PluginURLAddressForward(served, Message().From("A").Url(url).Record());
    ExpectNoSecret("a notification that fails, " + url);
    transport_.Reset();
  }
}

TEST_F(FrameSecrets, AreNotInWhatIsLoggedOfASend) {
  for (const std::string& url : UrlsWithSecrets()) {
    LPCData data;
    data.url = url;
    for (const int type : {0, 1, 2, 9}) {
      data.msg_type = type;
      for (const char* destination : {"", "B"}) {
        data.dst_id = destination;
        std::uint64_t id = 0;
        AsyncSend(id, data);
        ExpectNoSecret("AsyncSend " + url);
        LPCData answer;
        SyncSend(answer, data, 10);
        ExpectNoSecret("SyncSend " + url);
      }
    }
  }
}

TEST_F(FrameSecrets, ButTheHostAndTheOtherEndGetUrlsAsTheyAre) {
  const std::string url = std::string("/nobody?SID=") + kSid;
  Registry().URLTaskEIT(0, url, Message().From("A").Url(url).Record());
  EXPECT_EQ(host_.Only().lpc_data.url.find('*'), std::string::npos);
  LPCData data;
  data.url = url;
  data.dst_id = "B";
  std::uint64_t id = 0;
  AsyncSend(id, data);
  EXPECT_EQ(transport_.Requests().back().params.at("url"), url);
}

}  // namespace
}  // namespace tolm::test
