// What guards may send, and what harms nobody when they send it.

#include <chrono>
#include <string>

#include "IndependentGuard.h"

namespace tolm::test {
namespace {

/// Two guards are there; what one of them does wrong is not to be noticed by the other.
class IndependentGuardInput : public IndependentGuardTest {
 protected:
  void SetUp() override {
    IndependentGuardTest::SetUp();
    if (IsSkipped()) return;
    host_ = &StartHostWith({"a", "b"});
    witness_ = &StartGuard(*host_, {"--silent", "--start-nothing"});
    guard_ = &StartGuard(*host_, {"--silent", "--start-nothing"});
  }

  /// Types it, and checks that the frame goes on with both of them.
  void SeeItDoesNoHarm(const std::string& typed) {
    SCOPED_TRACE(typed);
    guard_->Type(typed);
    ExpectAnswered(*guard_);
    ExpectAnswered(*witness_);
  }
  /// Types it, and checks that the frame logs so many lines with this text by then, and goes on.
  void SeeItIsLogged(const std::string& typed, const std::string& text) {
    const std::size_t before = host_->CountLines(text);
    SeeItDoesNoHarm(typed);
    EXPECT_TRUE(host_->WaitForLines(text, before + 1)) << typed;
  }
  /// Checks that the guard's connection ends, and that the frame goes on without it.
  void SeeItsEndHarmsNobody() {
    EXPECT_TRUE(guard_->WaitForLine("connection ended"));
    EXPECT_EQ(guard_->WaitExit(), (Exit{0, false}));
    ExpectAnswered(*witness_);
    SeeTheNextGuardIsTold();
    StopHost(*host_);
  }
  /// Checks that the next guard is told what there is to tell.
  void SeeTheNextGuardIsTold() {
    ChildProcess& next = StartGuard(*host_, {"--start-nothing"});
    Announce(*host_);
    EXPECT_TRUE(next.WaitForLine("told to start a b with --endpoint host"));
    ExpectAnswered(*witness_);
    EXPECT_EQ(witness_->CountLines("told"), 0U);
  }

  ChildProcess* host_ = nullptr;
  ChildProcess* witness_ = nullptr;
  ChildProcess* guard_ = nullptr;
};

TEST_F(IndependentGuardInput, ThatIsNoMessageIsDropped) {
  for (const char* const text :
       {"not JSON", "{", "{\"guid\":\"x\",\"requestData\":", "5", "-1e999", "null", "true", "\"text\"", "[]",
        "[{\"guid\":\"x\"}]", "{}", "{\"guid\":\"x\"}", "\"\\ud800\"", "{\"guid\":\"x\"} behind"}) {
    SeeItDoesNoHarm(std::string("text ") + text);
  }
  SeeItDoesNoHarm("hex 00");
  SeeTheNextGuardIsTold();
  StopHost(*host_);
  EXPECT_EQ(guard_->WaitExit(), (Exit{0, false}));
  EXPECT_EQ(guard_->CountLines("unasked"), 0U) << "none of it is a question";
}

TEST_F(IndependentGuardInput, WithMembersOfAnotherTypeIsHarmless) {
  for (const char* const text : {
           R"({"guid":5,"requestData":{"method":"GetMianProcessPath"}})",
           R"({"guid":null,"requestData":{"method":"GetProcessInitStateList"}})",
           R"({"guid":{},"requestData":{"method":"NotifyLPCFrameInit"}})",
           R"({"requestData":{"method":"GetMianProcessPath"}})",
           R"({"requestData":{"method":"NotifyProcessState","state":1,"processId":"a"}})",
           R"({"guid":"x","requestData":5})",
           R"({"guid":"x","requestData":"text"})",
           R"({"guid":"x","requestData":[]})",
           R"({"guid":"x","requestData":{}})",
           R"({"guid":"x","requestData":{"method":5}})",
           R"({"guid":"x","requestData":{"method":null}})",
           R"({"guid":"x","requestData":{"method":["GetMianProcessPath"]}})",
           R"({"guid":"x","requestData":{"method":"NotifyProcessState","state":"text","processId":7}})",
           R"({"guid":"x","requestData":{"method":"NotifyProcessState","state":[],"processId":{}}})",
           R"({"guid":"x","requestData":{"method":"NotifyProcessState","state":1e300,"processId":"a"}})",
           R"({"guid":"x","responseData":{"method":"GetMianProcessPath"}})",
           R"({"guid":"\u0000","requestData":{"method":"\u0000"}})",
       }) {
    SeeItDoesNoHarm(std::string("text ") + text);
  }
  SeeTheNextGuardIsTold();
  StopHost(*host_);
}

TEST_F(IndependentGuardInput, WithAnUnknownMethodIsNotAnswered) {
  for (const char* const method :
       {"GetMainProcessPath", "getmianprocesspath", "GetMianProcessPath ", "NoSuchMethod", "StartProcess",
        "NotifyFrameInitState", "NotifyFrameUninit", "NotifyState"}) {
    SeeItDoesNoHarm("text " + (R"({"guid":"unknown","requestData":{"method":")" + std::string(method)) +
                    R"(","processName":"a"}})");
  }
  SeeTheNextGuardIsTold();
  StopHost(*host_);
  EXPECT_EQ(guard_->WaitExit(), (Exit{0, false}));
  EXPECT_EQ(guard_->CountLines("answer "), guard_->CountLines("answer GetMianProcessPath check-"))
      << guard_->Output();
}

TEST_F(IndependentGuardInput, ThatRepliesToNothingHasNoEffect) {
  for (int times = 0; times < 2; ++times) {
    SeeItDoesNoHarm(R"(text {"guid":"nobody","requestData":{"method":"NotifyLPCFrameInit"}})");
    SeeItDoesNoHarm(R"(text {"guid":"nobody","requestData":{"method":"SetProcessGuardStateList"}})");
  }
  Announce(*host_);
  EXPECT_TRUE(guard_->WaitForLine("asked NotifyLPCFrameInit"));
  EXPECT_TRUE(guard_->WaitForLine("told to start a b with --endpoint host"));
  StopHost(*host_);
  EXPECT_EQ(guard_->CountLines("asked SetProcessGuardStateList"), 1U);
}

TEST_F(IndependentGuardInput, IsAnsweredWithTheGuidAsItIs) {
  for (const char* const guid : {"äöü €😀", "with \"quotes\" and \\", "/", "1", "7c9e6679-7425"}) {
    guard_->Type(std::string("ask GetMianProcessPath ") + guid);
    EXPECT_TRUE(guard_->WaitForLine(std::string("answer GetMianProcessPath ") + guid + ": ")) << guid;
  }
  const std::string long_guid(100000, 'g');
  guard_->Type("ask GetMianProcessPath " + long_guid);
  EXPECT_TRUE(guard_->WaitForLine("answer GetMianProcessPath " + long_guid + ": "));
  guard_->Type(
      R"(text  { "requestData" : { "more" : 1 , "method" : "GetMianProcessPath" } , "guid" : "spaced", "x":[] } )");
  EXPECT_TRUE(guard_->WaitForLine("answer GetMianProcessPath spaced: "));
  EXPECT_EQ(guard_->CountLines("unasked"), 0U);
  StopHost(*host_);
}

TEST_F(IndependentGuardInput, MayBeNestedDeeply) {
  SeeItDoesNoHarm("nest 100000");
  for (const char* const depth : {"100", "100000"}) {
    guard_->Type(std::string("deep ") + depth + " deep-" + depth);
    EXPECT_TRUE(guard_->WaitForLine(std::string("answer GetMianProcessPath deep-") + depth + ": "));
  }
  SeeTheNextGuardIsTold();
  StopHost(*host_);
}

TEST_F(IndependentGuardInput, TellsTheHostWhoseProcessHasEnded) {
  const auto ended = [](const std::string& members) {
    return R"(text {"guid":"x","requestData":{"method":"NotifyProcessState",)" + members + "}}";
  };
  SeeItDoesNoHarm(ended(R"("state":0,"processId":"a")"));
  for (const char* const state :
       {"", R"("state":1,)", R"("state":-1,)", R"("state":4294967296,)", R"("state":0.4,)", R"("state":"0",)",
        R"("state":false,)", R"("state":null,)"}) {
    SeeItDoesNoHarm(ended(state + std::string(R"("processId":"stranger")")));
  }
  guard_->Type(ended(R"("state":0,"processId":"stranger")"));
  EXPECT_TRUE(SeeEvent(*host_, "stranger", "uninitialised")) << "not listed at all";
  guard_->Type(ended(R"("state":0)"));
  EXPECT_TRUE(SeeEvent(*host_, "", "uninitialised")) << "no id is the empty text";
  StopHost(*host_);
  EXPECT_EQ(CountOf(*host_, "a", "uninitialised"), 0U) << "was not initialised before";
  EXPECT_EQ(CountOf(*host_, "stranger", "uninitialised"), 1U);
}

TEST_F(IndependentGuardInput, MayBeAsLargeAsThePageSays) {
  const std::string question = R"({"guid":"large","requestData":{"method":"GetMianProcessPath"}})";
  guard_->Type("pad 62914560 " + question);
  EXPECT_TRUE(guard_->WaitForLine("answer GetMianProcessPath large: "));
  SeeItIsLogged("pad 62914561 " + question, "data error");
  SeeTheNextGuardIsTold();
  StopHost(*host_);
  EXPECT_EQ(guard_->WaitExit(), (Exit{0, false}));
  EXPECT_EQ(guard_->CountLines("large"), 1U) << "no second answer, asked for or not";
}

TEST_F(IndependentGuardInput, ThatIsNoWholeTextIsDroppedAndLogged) {
  const std::string question = R"({"guid":"dropped","requestData":{"method":"GetMianProcessPath"}})";
  SeeItIsLogged("split " + question, "msg_type error");
  SeeItIsLogged("binary " + question, "msg_type error");
  SeeItIsLogged("empty", "data error");
  SeeTheNextGuardIsTold();
  StopHost(*host_);
  EXPECT_EQ(guard_->WaitExit(), (Exit{0, false}));
  EXPECT_EQ(guard_->CountLines("dropped"), 0U) << "no answer, asked for or not";
}

TEST_F(IndependentGuardInput, ThatBreaksTheProtocolEndsItsConnectionOnly) {
  const std::string ping_of_126 = "frame 89fe007e00000000" + std::string(2 * 126, '0');
  for (const std::string& typed : {
           std::string(R"(unmasked {"guid":"x","requestData":{"method":"GetMianProcessPath"}})"),
           std::string("hex 7b22ff227d"),                      // not UTF-8
           std::string("frame c18000000000"),                  // a reserved bit
           std::string("frame 838000000000"),                  // an opcode that means nothing
           std::string("frame 098000000000"),                  // a ping in fragments
           std::string("frame 81ff800000000000000000000000"),  // a negative size
           ping_of_126,
       }) {
    SCOPED_TRACE(typed);
    ChildProcess& guard = StartGuard(*host_, {"--silent", "--start-nothing"});
    guard.Type(typed);
    EXPECT_TRUE(guard.WaitForLine("connection ended"));
    EXPECT_EQ(guard.WaitExit(), (Exit{0, false}));
    ExpectAnswered(*guard_);
    ExpectAnswered(*witness_);
  }
  SeeTheNextGuardIsTold();
  StopHost(*host_);
}

TEST_F(IndependentGuardInput, ThatAnnouncesMoreThanThereIsHoldsUpNobody) {
  guard_->Type("frame 81ff7fffffffffffffff000000007b7d7b7d");
  ExpectAnswered(*witness_);
  SeeTheNextGuardIsTold();
  StopHost(*host_);
}

TEST_F(IndependentGuardInput, ThatIsACloseIsAnsweredInKind) {
  guard_->Type("frame 88820000000003e8");
  EXPECT_TRUE(guard_->WaitForLine("connection ended: close 1000"));
  SeeItsEndHarmsNobody();
}

TEST_F(IndependentGuardInput, ThatEndsInTheMiddleOfAFrameEndsItsConnectionOnly) {
  guard_->Type(R"(half {"guid":"x","requestData":{"method":"GetMianProcessPath"}})");
  SeeItsEndHarmsNobody();
}

TEST_F(IndependentGuardInput, InABurstIsAnsweredCompletely) {
  guard_->Type("burst 2000 GetProcessInitStateList");
  EXPECT_TRUE(guard_->WaitForLines("answer GetProcessInitStateList burst-", 2000));
  EXPECT_EQ(guard_->CountLines(": a=0 b=0"), 2000U);
  EXPECT_EQ(guard_->CountLines("unasked"), 0U) << "each one once";
  ExpectAnswered(*witness_);
  StopHost(*host_);
}

TEST_F(IndependentGuardInput, ThatIsAPingIsAnswered) {
  guard_->Type("ping hello");
  EXPECT_TRUE(guard_->WaitForLine("pong hello"));
  const std::string longest(125, 'x');
  guard_->Type("ping " + longest);
  EXPECT_TRUE(guard_->WaitForLine("pong " + longest));
  ExpectAnswered(*guard_);
  StopHost(*host_);
}

TEST_F(IndependentGuardInput, ThatIsNoProperUpgradeIsRefused) {
  const std::string port = std::to_string(folder_.Port("ServerPort"));
  const auto answer = [this](const std::string& typed) {
    guard_->Type(typed);
    return guard_->WaitForLine(typed + ": ").value_or("").substr(typed.size() + 2, 3);
  };
  for (const char* const host : {"127.0.0.1", "localhost", "[::1]"}) {
    EXPECT_EQ(answer(std::string("upgrade Host: ") + host), "101");
    EXPECT_EQ(answer(std::string("upgrade Host: ") + host + ":" + port), "101");
  }
  for (const char* const host :
       {"example.org", "example.org:80", "127.0.0.1.example.org", "localhost.example.org", "[::2]"}) {
    EXPECT_EQ(answer(std::string("upgrade Host: ") + host), "403");
  }
  EXPECT_EQ(answer("upgrade Origin: http://127.0.0.1:" + port), "403");
  EXPECT_EQ(answer("upgrade Origin: null"), "403");
  EXPECT_EQ(answer("upgrade Sec-WebSocket-Extensions: permessage-deflate"), "101");
  EXPECT_EQ(answer("upgrade Sec-WebSocket-Protocol: chat"), "101");
  EXPECT_EQ(answer("get /"), "404");
  EXPECT_EQ(answer("get /some/where"), "404");
  ExpectAnswered(*guard_);
  ExpectAnswered(*witness_);
  StopHost(*host_);
}

TEST_F(IndependentGuardInput, ThatNeverFinishesItsHandshakeHoldsUpNobody) {
  guard_->Type("hang 200");
  ASSERT_TRUE(guard_->WaitForLine("200 handshakes hang"));
  // Much less than 200 of whatever time the frame gives to a handshake.
  const auto began = std::chrono::steady_clock::now();
  ChildProcess& next = StartGuard(*host_, {"--start-nothing"});
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(10));
  ExpectAnswered(next);
  ExpectAnswered(*guard_);
  ExpectAnswered(*witness_);
  Announce(*host_);
  EXPECT_TRUE(next.WaitForLine("told to start a b with --endpoint host"));
  StopHost(*host_);
}

}  // namespace
}  // namespace tolm::test
