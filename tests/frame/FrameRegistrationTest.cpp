#include <cstdint>
#include <string>
#include <vector>

#include "FrameScript.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class FrameRegistration : public FrameTest {
 protected:
  /// `id` sends this registration.
  static void Register(const std::string& id, const std::string& body) {
    Registry().PluginURLRegister(Registration(id, body));
  }

  /// `id` registers these entries of the url list.
  static void RegisterUrls(const std::string& id, const std::string& entries) {
    Register(id, R"({"RegisterInfo":{"SupportUrlList":[)" + entries + "]}}");
  }

  static void RegisterHeaders(const std::string& id, const std::string& entries) {
    Register(id, R"({"RegisterInfo":{"SupportHttpHeaderList":[)" + entries + "]}}");
  }

  /// The time-out that `url` is served with; 0 when nobody serves it.
  static std::int32_t TimeOutOf(const std::string& url) {
    std::int32_t time_out = 0;
    Registry().IsUrlFromPlugin(time_out, url);
    return time_out;
  }

  static std::string WhoServes(const std::string& url) {
    std::string id;
    return Registry().FindDstIdByUrl(id, url) ? id : "nobody";
  }

  static std::vector<std::string> Headers() {
    std::vector<std::string> headers;
    Registry().GetHttpHeaders(headers);
    return headers;
  }

  /// What the registration of `task_info` logs as the url's tasks.
  std::string TasksLogged(const std::string& task_info) {
    FromNowOn();
    RegisterUrls("A", R"({"Url":"/x","Extend":{"TaskInfo":)" + task_info + "}}");
    const std::string text = LinesOf("::PluginURLRegister").at(1).text;
    const std::string from = "method-exec_type = [";
    const std::size_t begin = text.find(from) + from.size();
    return text.substr(begin, text.find(']', begin) - begin);
  }

  static LogLine UrlLine(const std::string& url, int time_out, const std::string& id) {
    return Line(3, "LPCFrameTrace", "CLPCIntegrate::PluginURLRegister",
                "[/QOMI/Vantrel/Integration/V1/Register], SupportUrlList = " + url +
                    ", Timeout = " + std::to_string(time_out) + ",  plugin_id = " + id);
  }
  static LogLine TaskLine(const std::string& url, const std::string& tasks, const std::string& id) {
    return Line(3, "platform.MessageBusModule", "CLPCIntegrate::PluginURLRegister",
                "Plugin[" + id + "] add url = [" + url + "], method-exec_type = [" + tasks + "].");
  }
  static LogLine HeaderLine(int slot, const std::string& id) {
    return Trace("CLPCIntegrate::PluginURLRegister",
                 "[/QOMI/Vantrel/Integration/V1/Register], SupportHttpHeaderList = "
                 "/RegisterInfo/SupportHttpHeaderList[" +
                     std::to_string(slot) + "], plugin_id = " + id);
  }
};

TEST_F(FrameRegistration, AWholeRegistrationIsStoredAndLoggedUrlByUrlAndThenHeaderByHeader) {
  Register("A", R"({"RegisterInfo":{"SupportUrlList":[
      {"Url":"/Api/X","Timeout":6000,"Extend":{"TaskInfo":[{"Method":1,"TaskType":2},{"Method":3,"TaskType":4}]}},
      {"Url":"/api/y"}],"SupportHttpHeaderList":["X-One","X-Two"]}})");
  EXPECT_THAT(log_.Lines(), ElementsAre(UrlLine("/api/x", 6000, "A"), TaskLine("/api/x", "1-2,3-4,", "A"),
                                        UrlLine("/api/y", 5000, "A"), TaskLine("/api/y", "", "A"),
                                        HeaderLine(1, "A"), HeaderLine(2, "A")));
  EXPECT_EQ(WhoServes("/api/x?y=1"), "A");
  EXPECT_EQ(TimeOutOf("/api/x"), 6000);
  EXPECT_EQ(TimeOutOf("/api/y"), 5000);
  EXPECT_THAT(Headers(), ElementsAre("X-One", "X-Two"));
}

TEST_F(FrameRegistration, TheFrameAnswersNothing) {
  tag_LPCCallBackData record =
      Registration("A", R"({"RegisterInfo":{"SupportUrlList":[{"Url":"/x"}]}})").Record();
  record.need_reply = true;
  record.msg_id = 5;
  Registry().PluginURLRegister(record);
  EXPECT_EQ(WhoServes("/x"), "A");
  EXPECT_THAT(Journal::Of("lpc."), IsEmpty());
  EXPECT_THAT(Journal::Of("guard."), IsEmpty());
}

TEST_F(FrameRegistration, ATimeOutIsNeverBelow5000) {
  for (const char* time_out : {"0", "-7", "1", "4999", "5000", "-2147483648", "null", "\"9000\"", "true",
                               "[6000]", "2147483648", "1e30"}) {
    RegisterUrls("A", R"({"Url":"/x","Timeout":)" + std::string(time_out) + "}");
    EXPECT_EQ(TimeOutOf("/x"), 5000) << time_out;
  }
  RegisterUrls("A", R"({"Url":"/missing"})");
  EXPECT_EQ(TimeOutOf("/missing"), 5000);
}

TEST_F(FrameRegistration, ATimeOutAbove5000IsKeptAsGiven) {
  RegisterUrls("A", R"({"Url":"/x","Timeout":5001},{"Url":"/y","Timeout":2147483647})");
  EXPECT_EQ(TimeOutOf("/x"), 5001);
  EXPECT_EQ(TimeOutOf("/y"), 2147483647);
}

TEST_F(FrameRegistration, AUrlIsStoredInLowerCase) {
  RegisterUrls("A", R"({"Url":"/Api/X"})");
  EXPECT_EQ(WhoServes("/api/x?y=1"), "A");
}

TEST_F(FrameRegistration, AUrlIsNeitherCutNorMadeAPattern) {
  RegisterUrls("A", R"({"Url":"/Q?X=1"},{"Url":"/n/42"},{"Url":"/n/<ID>/"},{"Url":"/n/<ID>"})");
  EXPECT_THAT(log_.Lines(), ElementsAre(UrlLine("/q?x=1", 5000, "A"), TaskLine("/q?x=1", "", "A"),
                                        UrlLine("/n/42", 5000, "A"), TaskLine("/n/42", "", "A"),
                                        UrlLine("/n/<id>/", 5000, "A"), TaskLine("/n/<id>/", "", "A"),
                                        UrlLine("/n/<id>", 5000, "A"), TaskLine("/n/<id>", "", "A")));
  EXPECT_EQ(WhoServes("/q"), "nobody");
  EXPECT_EQ(WhoServes("/n/42"), "A");
}

TEST_F(FrameRegistration, TheLatestRegistrationOfAUrlWins) {
  RegisterUrls("a", R"({"Url":"/x","Timeout":9000})");
  RegisterUrls("b", R"({"Url":"/X","Timeout":6000})");
  EXPECT_EQ(WhoServes("/x"), "b");
  EXPECT_EQ(TimeOutOf("/x"), 6000);
  RegisterUrls("a", R"({"Url":"/x"})");
  EXPECT_EQ(WhoServes("/x"), "a");
  EXPECT_EQ(TimeOutOf("/x"), 5000);
}

TEST_F(FrameRegistration, RegistrationsAddUp) {
  RegisterUrls("A", R"({"Url":"/x"})");
  RegisterUrls("A", R"({"Url":"/y"})");
  EXPECT_EQ(WhoServes("/x"), "A");
  EXPECT_EQ(WhoServes("/y"), "A");
}

TEST_F(FrameRegistration, ARegistrationOutlivesTheConnection) {
  List(Plugins({"A"}));
  RegisterUrls("A", R"({"Url":"/x"})");
  Method(Connected("A"));
  Method(Disconnected("A"));
  EXPECT_EQ(WhoServes("/x"), "A");
}

TEST_F(FrameRegistration, TheSourceOfTheMessageIsThePluginWhateverItIs) {
  RegisterUrls("", R"({"Url":"/x"})");
  RegisterUrls("0", R"({"Url":"/y"})");
  EXPECT_EQ(WhoServes("/x"), "");
  EXPECT_EQ(WhoServes("/y"), "0");
}

TEST_F(FrameRegistration, EntriesWithoutAUrlAreSkippedWithoutALine) {
  RegisterUrls("A",
               R"(null,7,"/text",[{"Url":"/nested"}],{},{"Url":""},{"Url":5},{"Url":null},{"url":"/case"},
                       {"Timeout":6000},{"Url":"/good","Timeout":7000})");
  EXPECT_THAT(log_.Lines(), ElementsAre(UrlLine("/good", 7000, "A"), TaskLine("/good", "", "A")));
  EXPECT_EQ(TimeOutOf("/good"), 7000);
  EXPECT_EQ(WhoServes("/nested"), "nobody");
  EXPECT_EQ(WhoServes("/case"), "nobody");
}

TEST_F(FrameRegistration, ABodyThatIsNoRegistrationStoresAndLogsNothing) {
  for (const char* body :
       {"", "{", "not json", "null", "7", "[]", "{}", R"({"RegisterInfo":null})", R"({"RegisterInfo":[]})",
        R"({"RegisterInfo":{"SupportUrlList":{"Url":"/x"},"SupportHttpHeaderList":"X"}})",
        R"({"RegisterInfo":{"SupportUrlList":7,"SupportHttpHeaderList":null}})",
        R"({"SupportUrlList":[{"Url":"/x"}]})", R"({"RegisterInfo":{"SupportUrlList":[{"Url":"/x"}]})"}) {
    Register("A", body);
  }
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_EQ(WhoServes("/x"), "nobody");
  EXPECT_THAT(Headers(), IsEmpty());
}

TEST_F(FrameRegistration, ABodyNestedDeeplyIsSurvived) {
  EXPECT_NO_THROW(Register("A", std::string(100000, '[')));
  EXPECT_NO_THROW(Register("A", std::string(100000, '[') + std::string(100000, ']')));
  EXPECT_THAT(Headers(), IsEmpty());
}

TEST_F(FrameRegistration, ManyUrlsAreAllStored) {
  std::string entries;
  for (int i = 1; i <= 120; ++i) {
    if (i != 1) entries += ",";
    entries += R"({"Url":"/many/u)" + std::to_string(i) + R"(","Timeout":)" + std::to_string(6000 + i) + "}";
  }
  RegisterUrls("A", entries);
  for (int i = 1; i <= 120; ++i) EXPECT_EQ(TimeOutOf("/many/u" + std::to_string(i)), 6000 + i);
}

TEST_F(FrameRegistration, TasksAreOnlyLogged) {
  EXPECT_EQ(TasksLogged(R"([{"Method":1,"TaskType":2}])"), "1-2,");
  EXPECT_EQ(TasksLogged(R"([{"Method":1,"TaskType":2},{"Method":3,"TaskType":4}])"), "1-2,3-4,");
  EXPECT_EQ(TasksLogged("[]"), "");
  EXPECT_EQ(TasksLogged("7"), "");
}

TEST_F(FrameRegistration, AMissingNumberOfATaskIsLoggedAsMinusOne) {
  EXPECT_EQ(TasksLogged(R"([{"TaskType":2}])"), "-1-2,");
  EXPECT_EQ(TasksLogged(R"([{"Method":1}])"), "1--1,");
  EXPECT_EQ(TasksLogged(R"([null,{"Method":"1","TaskType":2},{}])"), "-1--1,-1-2,-1--1,");
}

// Headers.

TEST_F(FrameRegistration, AHeaderThatTwoPluginsDeclareIsStoredOnce) {
  RegisterHeaders("A", R"("X-One","X-Two")");
  RegisterHeaders("B", R"("X-Two","X-Three","X-Three")");
  EXPECT_THAT(Headers(), ElementsAre("X-One", "X-Two", "X-Three"));
  EXPECT_THAT(log_.Lines(), ElementsAre(HeaderLine(1, "A"), HeaderLine(2, "A"), HeaderLine(1, "B"),
                                        HeaderLine(2, "B"), HeaderLine(3, "B")));
}

TEST_F(FrameRegistration, HeadersDifferByCase) {
  RegisterHeaders("A", R"("X-One","x-one")");
  EXPECT_THAT(Headers(), ElementsAre("X-One", "x-one"));
}

TEST_F(FrameRegistration, AnEmptyHeaderAndWhatIsNoTextAreStoredAsOneEmptyName) {
  RegisterHeaders("A", R"("",null,7,["nested"],{},"X","")");
  EXPECT_THAT(Headers(), ElementsAre("", "X"));
  EXPECT_THAT(log_.Lines(), SizeIs(7));
}

TEST_F(FrameRegistration, OfHeadersOnlySoManyAreStoredAndTheLogSaysSo) {
  constexpr int kMost = 65536;
  std::string entries = R"("0")";
  for (int i = 1; i <= kMost + 10; ++i) entries += ",\"" + std::to_string(i) + '"';
  RegisterHeaders("A", entries);
  const auto headers = Headers();
  ASSERT_EQ(headers.size(), static_cast<std::size_t>(kMost));
  EXPECT_EQ(headers.back(), std::to_string(kMost - 1));
  const LogLine last = log_.Lines().back();
  EXPECT_EQ(last.level, 5);
  EXPECT_NE(last.text.find("plugin A uses more http headers than there is place for"), std::string::npos);
  // Those that are known need no place.
  FromNowOn();
  RegisterHeaders("B", R"("7","one more")");
  EXPECT_THAT(log_.Lines(), SizeIs(3));
  EXPECT_EQ(Headers().size(), static_cast<std::size_t>(kMost));
}

TEST_F(FrameRegistration, WhatHasTooManyValuesIsNotReadAndTheLogSaysSo) {
  std::string values = "0";
  for (int i = 0; i < 600'000; ++i) values += ",0";
  Register("A", R"({"RegisterInfo":{"SupportUrlList":[{"Url":"/x"}]},"more":[)" + values + "]}");
  EXPECT_EQ(WhoServes("/x"), "nobody");
  ASSERT_THAT(log_.Lines(), SizeIs(1));
  EXPECT_EQ(log_.Lines()[0].level, 5);
  EXPECT_NE(log_.Lines()[0].text.find("is not read, for it has too many values"), std::string::npos);
}

TEST_F(FrameRegistration, AListOfManyBehindManyMembersIsReadWhole) {
  std::string members;
  for (int i = 0; i < 60'000; ++i) members += "\"member" + std::to_string(i) + "\":0,";
  std::string urls;
  for (int i = 0; i < 2'000; ++i)
    urls += (i > 0 ? "," : "") + std::string(R"({"Url":"/u)") + std::to_string(i) + "\"}";
  Register("A", "{" + members + R"("RegisterInfo":{"SupportUrlList":[)" + urls + "]}}");
  EXPECT_EQ(WhoServes("/u0"), "A");
  EXPECT_EQ(WhoServes("/u1999"), "A");
}

TEST_F(FrameRegistration, WithoutUrlsOnlyHeadersAreStored) {
  Register("A", R"({"RegisterInfo":{"SupportUrlList":[],"SupportHttpHeaderList":["X"]}})");
  EXPECT_THAT(Headers(), ElementsAre("X"));
  EXPECT_THAT(log_.Lines(), ElementsAre(HeaderLine(1, "A")));
}

TEST_F(FrameRegistration, TheEndOfTheFrameForgetsUrlsAndKeepsHeaders) {
  RegisterUrls("A", R"({"Url":"/x"})");
  RegisterHeaders("A", R"("X")");
  Registry().UnInit();
  EXPECT_EQ(WhoServes("/x"), "nobody");
  EXPECT_EQ(TimeOutOf("/x"), 0);
  EXPECT_THAT(Headers(), ElementsAre("X"));
}

}  // namespace
}  // namespace tolm::test
