#include <cstdint>
#include <string>
#include <vector>

#include "FrameScript.h"
#include "RegistryInside.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class FrameRegistry : public FrameTest {
 protected:
  static bool Served(const std::string& url) {
    std::int32_t time_out = 0;
    return Registry().IsUrlFromPlugin(time_out, url);
  }

  /// Who serves `url`; "nobody" when nobody does.
  static std::string WhoServes(const std::string& url) {
    std::string id;
    return Registry().FindDstIdByUrl(id, url) ? id : "nobody";
  }

  static PlatformInfo At(const std::string& path, std::int32_t frame_type) {
    PlatformInfo info;
    info.frame_full_path = path;
    info.frame_type = frame_type;
    return info;
  }
};

// Init.

TEST_F(FrameRegistry, AFreshRegistryIsEmptyAndOfFrameType2) {
  EXPECT_EQ(TypeOfFrame(Registry()), 2);
  EXPECT_THAT(Registry().GetPluginData(), IsEmpty());
  EXPECT_THAT(Registry().GetPluginInitStates(), IsEmpty());
  EXPECT_EQ(Registry().GetFrameFullPath(), "");
}

TEST_F(FrameRegistry, InitLogsThePathAndThenEveryPluginTwiceInKeyOrder) {
  PlatformInfo info = At("/opt/host", 0);
  info.plugin_map["b"].plugin_id = "B";
  info.plugin_map["a"].plugin_id = "A";
  List(info);
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(
          Info("CLPCIntegrate::Init", "*****[/opt/host]"),
          Trace("CLPCIntegrate::SetPluginData", "Start SetPluginData"),
          Trace("CLPCIntegrate::SetPluginData", "Set map_plugin_data_, key[a], plugin_id[A]"),
          Trace("CLPCIntegrate::SetPluginData", "Set map_plugin_data_, key[b], plugin_id[B]"),
          Trace("CLPCIntegrate::SetPluginData", "Set map_plugin_init_status_, key[a], plugin_id[A]"),
          Trace("CLPCIntegrate::SetPluginData", "Set map_plugin_init_status_, key[b], plugin_id[B]")));
  EXPECT_EQ(Registry().GetFrameFullPath(), "/opt/host");
  EXPECT_THAT(Registry().GetPluginInitStates(), ElementsAre(Pair("a", false), Pair("b", false)));
}

TEST_F(FrameRegistry, AStoredPluginIsTheWholeRecordThatTheHostGave) {
  PlatformInfo info;
  info.plugin_map["key"] = {"id", "name", "1.0", "path", "text", {"x", "y"}, 1, true};
  List(info);
  PluginInfo out;
  ASSERT_TRUE(Registry().GetPluginInfoByID(out, "key"));
  EXPECT_EQ(out.plugin_id, "id");
  EXPECT_EQ(out.plugin_name, "name");
  EXPECT_EQ(out.plugin_version, "1.0");
  EXPECT_EQ(out.plugin_path, "path");
  EXPECT_EQ(out.plugin_description, "text");
  EXPECT_THAT(out.plugin_dependencies, ElementsAre("x", "y"));
  EXPECT_EQ(out.connect_state, 1);
  EXPECT_TRUE(out.not_verified);
}

TEST_F(FrameRegistry, FrameType1StartsTheAgentBesideTheHostLast) {
  List(At("C:/App\\Host.exe", 1));
  EXPECT_THAT(Journal::Of("guard."),
              ElementsAre("guard.InitTolmAgent C:\\App\\Host.exe|"
                          "C:\\App\\TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe|Client"));
  EXPECT_TRUE(Journal::Entries().back().starts_with("guard."));
  EXPECT_EQ(Registry().GetFrameFullPath(), "C:/App\\Host.exe");
}

TEST_F(FrameRegistry, TheAgentOfAHostWithoutADirectoryHasARelativePath) {
  List(At("Host.exe", 1));
  EXPECT_THAT(Journal::Of("guard."),
              ElementsAre("guard.InitTolmAgent Host.exe|TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe|Client"));
}

TEST_F(FrameRegistry, TheAgentOfAHostInTheRootStandsThereToo) {
  List(At("/host", 1));
  EXPECT_THAT(Journal::Of("guard."),
              ElementsAre("guard.InitTolmAgent \\host|\\TolmAgent\\TolmAgent\\TolmAgent_Exe64.exe|Client"));
}

TEST_F(FrameRegistry, EveryOtherFrameTypeStartsNoAgent) {
  for (const int type : {0, 2, -1, 11}) {
    List(At("C:\\App\\Host.exe", type));
    EXPECT_EQ(TypeOfFrame(Registry()), type);
  }
  EXPECT_THAT(Journal::Of("guard."), IsEmpty());
}

TEST_F(FrameRegistry, ASecondListReplacesThePluginsAndKeepsTheFlags) {
  List(Plugins({"A", "B"}));
  Ready("A");
  Registry().SetPluginData(Plugins({"A", "C"}));
  PluginInfo out;
  EXPECT_TRUE(Registry().GetPluginInfoByID(out, "A"));
  EXPECT_FALSE(Registry().GetPluginInfoByID(out, "B"));
  EXPECT_TRUE(Registry().GetPluginInfoByID(out, "C"));
  EXPECT_THAT(Registry().GetPluginInitStates(),
              ElementsAre(Pair("A", true), Pair("B", false), Pair("C", false)));
  EXPECT_EQ(log_.CountOf(
                Trace("CLPCIntegrate::SetPluginData", "Set map_plugin_init_status_, key[A], plugin_id[A]")),
            2u);
}

TEST_F(FrameRegistry, ASecondListHasTheConnectionStatesThatTheHostGives) {
  List(Plugins({"A"}));
  Method(Connected("A"));
  Registry().SetPluginData(Plugins({"A"}));
  EXPECT_EQ(Registry().GetPluginData().at("A").connect_state, 0);
}

// One plugin.

TEST_F(FrameRegistry, AnUnlistedPluginIsLoggedAndLeavesTheRecord) {
  List(Plugins({"A"}));
  FromNowOn();
  PluginInfo out;
  out.plugin_id = "before";
  EXPECT_FALSE(Registry().GetPluginInfoByID(out, "a"));
  EXPECT_EQ(out.plugin_id, "before");
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Error("CLPCIntegrate::GetPluginInfoByID", "find plugin_data failed, [a]")));
}

TEST_F(FrameRegistry, SettingAFlagLogsItAndTellsTheHost) {
  List(Plugins({"A"}));
  RegisterHost();
  FromNowOn();
  Registry().SetPluginInitState(true, "A");
  EXPECT_TRUE(Registry().GetPluginInitState("A"));
  EXPECT_THAT(
      LinesOf("::SetPluginInitState"),
      ElementsAre(Info("CLPCIntegrate::SetPluginInitState", "plugin_id[A], is Set Plugin initState [1]"),
                  Info("CLPCIntegrate::SetPluginInitState", "SetPluginInitState, init_state[4]")));
  EXPECT_TRUE(HappenedInOrder({"log plugin_id[A], is Set Plugin initState [1]",
                               "log SetPluginInitState, init_state[4]", "host 4 A"}));
  LPCData expected;
  expected.src_id = "A";
  EXPECT_TRUE(host_.Only().lpc_data == expected);
}

TEST_F(FrameRegistry, SettingAFlagTwiceDoesNothingTheSecondTime) {
  List(Plugins({"A"}));
  RegisterHost();
  Registry().SetPluginInitState(true, "A");
  FromNowOn();
  Registry().SetPluginInitState(true, "A");
  EXPECT_THAT(Journal::Entries(), IsEmpty());
}

TEST_F(FrameRegistry, ClearingAFlagTellsTheHostThatThePluginUninitialised) {
  List(Plugins({"A"}));
  Ready("A");
  RegisterHost();
  FromNowOn();
  Registry().SetPluginInitState(false, "A");
  EXPECT_FALSE(Registry().GetPluginInitState("A"));
  EXPECT_THAT(
      LinesOf("::SetPluginInitState"),
      ElementsAre(Info("CLPCIntegrate::SetPluginInitState", "plugin_id[A], is Set Plugin initState [0]"),
                  Info("CLPCIntegrate::SetPluginInitState", "SetPluginInitState, init_state[5]")));
  EXPECT_EQ(host_.Only().LpcMsgType, 5);
}

TEST_F(FrameRegistry, ClearingAFlagThatIsClearDoesNothing) {
  List(Plugins({"A"}));
  RegisterHost();
  FromNowOn();
  Registry().SetPluginInitState(false, "A");
  EXPECT_THAT(Journal::Entries(), IsEmpty());
}

TEST_F(FrameRegistry, TheFlagOfAnUnlistedPluginIsNotStoredButTheHostIsTold) {
  RegisterHost();
  FromNowOn();
  Registry().SetPluginInitState(true, "nobody");
  Registry().SetPluginInitState(true, "nobody");
  Registry().SetPluginInitState(false, "nobody");
  EXPECT_FALSE(Registry().GetPluginInitState("nobody"));
  EXPECT_THAT(Registry().GetPluginInitStates(), IsEmpty());
  EXPECT_THAT(LinesOf("::SetPluginInitState"),
              ElementsAre(Info("CLPCIntegrate::SetPluginInitState", "SetPluginInitState, init_state[4]"),
                          Info("CLPCIntegrate::SetPluginInitState", "SetPluginInitState, init_state[4]"),
                          Info("CLPCIntegrate::SetPluginInitState", "SetPluginInitState, init_state[5]")));
  EXPECT_THAT(Journal::Of("host"), ElementsAre("host 4 nobody", "host 4 nobody", "host 5 nobody"));
}

TEST_F(FrameRegistry, TheHostMayUseTheRegistryWhileItIsToldOfAFlag) {
  List(Plugins({"A"}));
  RegisterHost();
  host_.answer = [](const FrameCallBackData& data) {
    if (data.LpcMsgType == 4) Registry().SetPluginInitState(false, "A");
    return true;
  };
  Registry().SetPluginInitState(true, "A");
  EXPECT_THAT(Journal::Of("host"), ElementsAre("host 4 A", "host 5 A"));
}

TEST_F(FrameRegistry, SettingAFlagByHandDoesNotCountAsAnInitFinish) {
  List(Plugins({"A", "B"}));
  Registry().SetPluginInitState(true, "A");
  FromNowOn();
  Ready("B");
  EXPECT_EQ(Journal::Count("log All LPC plugins have inited finish"), 0u);
}

// Urls.

TEST_F(FrameRegistry, AUrlIsFoundWhateverItsCaseAndItsQuery) {
  Serve("A", "/Api/Foo");
  EXPECT_EQ(WhoServes("/api/FOO?x=1"), "A");
  EXPECT_EQ(WhoServes("/Api/Foo"), "A");
  EXPECT_EQ(WhoServes("//api//foo/"), "A");
  EXPECT_EQ(WhoServes("api/foo"), "A");
  EXPECT_EQ(WhoServes("/api/foo/bar"), "nobody");
  EXPECT_EQ(WhoServes("/api"), "nobody");
  EXPECT_EQ(WhoServes(""), "nobody");
}

TEST_F(FrameRegistry, OnlyAsciiLettersAreTheSameInBothCases) {
  Serve("A", "/\xc3\x84");
  EXPECT_EQ(WhoServes("/\xc3\x84"), "A");
  EXPECT_EQ(WhoServes("/\xc3\xa4"), "nobody");
}

TEST_F(FrameRegistry, APatternIsFoundByWhatFitsIt) {
  Serve("A", "/a/<ID>/b");
  Serve("B", "/b/<GUID>");
  EXPECT_EQ(WhoServes("/A/42/b"), "A");
  EXPECT_EQ(WhoServes("/a/-7/B?c"), "A");
  EXPECT_EQ(WhoServes("/a/<id>/b"), "A");
  EXPECT_EQ(WhoServes("/a/-1/b"), "nobody");
  EXPECT_EQ(WhoServes("/b/0123456789abcdef0123456789ABCDEF"), "B");
}

TEST_F(FrameRegistry, AUrlThatWasRegisteredAsNoPatternIsNeverFound) {
  Serve("A", "/a/42");
  Serve("A", "/x?y=1");
  Serve("A", "/slash/");
  Serve("A", "bare");
  for (const char* url : {"/a/42", "/a/43", "/x?y=1", "/x", "/slash/", "/slash", "bare", "/bare"}) {
    EXPECT_EQ(WhoServes(url), "nobody") << url;
    EXPECT_FALSE(Served(url)) << url;
  }
}

TEST_F(FrameRegistry, AMissOfEitherLookupLogsNothingAndLeavesTheResult) {
  std::int32_t time_out = 77;
  std::string id = "before";
  EXPECT_FALSE(Registry().IsUrlFromPlugin(time_out, "/x"));
  EXPECT_FALSE(Registry().FindDstIdByUrl(id, "/x"));
  EXPECT_EQ(time_out, 77);
  EXPECT_EQ(id, "before");
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(FrameRegistry, AServedUrlGivesItsTimeOutAndLogsIt) {
  Serve("A", "/x", 6500);
  FromNowOn();
  std::int32_t time_out = 0;
  EXPECT_TRUE(Registry().IsUrlFromPlugin(time_out, "/X?y"));
  EXPECT_EQ(time_out, 6500);
  EXPECT_THAT(log_.Lines(), ElementsAre(Trace("CLPCIntegrate::IsUrlFromPlugin",
                                              "IsUrlFromPlugin Find URL, time_out=[6500]")));
}

TEST_F(FrameRegistry, AServedUrlWithoutATimeOutGives5000) {
  Serve("A", "/x", 6500);
  ForgetTimeout(Registry(), "/x");
  FromNowOn();
  std::int32_t time_out = 0;
  EXPECT_TRUE(Registry().IsUrlFromPlugin(time_out, "/x"));
  EXPECT_EQ(time_out, 5000);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Trace("CLPCIntegrate::IsUrlFromPlugin", "map_url_timeout_ DO NOT FIND URL")));
}

TEST_F(FrameRegistry, TheExportedQuestionGivesTheSameAnswer) {
  Serve("A", "/x", 6500);
  int time_out = 0;
  EXPECT_TRUE(IsPluginURL(time_out, "/x?y=1"));
  EXPECT_EQ(time_out, 6500);
  EXPECT_FALSE(IsPluginURL(time_out, "/y"));
  EXPECT_EQ(time_out, 6500);
}

TEST_F(FrameRegistry, AFoundPluginIsNotLogged) {
  Serve("A", "/x");
  FromNowOn();
  EXPECT_EQ(WhoServes("/x"), "A");
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(FrameRegistry, TheHostsOwnUrlsAreKeptAsGivenAndOnce) {
  RegisterUrl({"/B?x", "/a", "/B?x"});
  RegisterUrl({"/A", "/a", ""});
  RegisterUrl({});
  EXPECT_THAT(UrlsOfHost(Registry()), ElementsAre("/B?x", "/a", "/A", ""));
}

TEST_F(FrameRegistry, TheHostsOwnUrlsAreNoPluginUrls) {
  RegisterUrl({"/host"});
  EXPECT_FALSE(Served("/host"));
}

TEST_F(FrameRegistry, HeaderNamesReplaceWhatTheCallerHad) {
  Registry().PluginURLRegister(
      Registration("A", R"({"RegisterInfo":{"SupportHttpHeaderList":["X-b","X-a"]}})"));
  std::vector<std::string> headers = {"old"};
  GetHttpHeaders(headers);
  EXPECT_THAT(headers, ElementsAre("X-b", "X-a"));
}

// The guard.

TEST_F(FrameRegistry, APluginIsStartedByTheIdOfItsRecord) {
  PlatformInfo info;
  info.plugin_map["key"].plugin_id = "id";
  List(info);
  FromNowOn();
  Registry().StartPlugin("key");
  Registry().StartPlugin("id");
  EXPECT_THAT(Journal::Entries(),
              ElementsAre("guard.ControlGuardProcess id start", "log find plugin_data failed, [id]"));
}

TEST_F(FrameRegistry, TheCommandLineOfPluginsReachesTheGuardUnchanged) {
  Registry().NotifyStartPlugins(" --a\t\"b\" ");
  EXPECT_THAT(Journal::Entries(), ElementsAre("guard.NotifyFrameInitedFinished  --a\t\"b\" "));
}

}  // namespace
}  // namespace tolm::test
