#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "TolmBase/LogLine.h"
#include "support/LogCapture.h"

using tolm::test::LogCapture;

namespace line_test {

void Log() {
  TOLM_LOG(3, "tag", "text");
}

namespace inner {

class Widget {
 public:
  Widget() { TOLM_LOG(3, "tag", "made"); }
  ~Widget() { TOLM_LOG(3, "tag", "gone"); }

  void Member(const std::string&, void (*)(int)) const { TOLM_LOG(3, "tag", "text"); }
  static void Static() { TOLM_LOG(3, "tag", "text"); }
  virtual void Noexcept() noexcept { TOLM_LOG(3, "tag", "text"); }

  std::vector<std::map<int, std::string>> ReturnsTemplate() {
    TOLM_LOG(3, "tag", "text");
    return {};
  }
  const std::string& ReturnsReference() {
    TOLM_LOG(3, "tag", "text");
    static const std::string text;
    return text;
  }
  std::unique_ptr<int, void (*)(int*)>* ReturnsPointer() {
    TOLM_LOG(3, "tag", "text");
    return nullptr;
  }
  static Widget& ReturnsItself() {
    TOLM_LOG(3, "tag", "text");
    static Widget* const widget = new Widget;
    return *widget;
  }
  void (*ReturnsFunctionPointer(int))(int) {
    TOLM_LOG(3, "tag", "text");
    return nullptr;
  }
  int (&ReturnsArray())[3] {
    TOLM_LOG(3, "tag", "text");
    static int array[3];
    return array;
  }
  template <typename T>
  auto ReturnsExpression(T value) -> decltype(value + 1) {
    TOLM_LOG(3, "tag", "text");
    return value;
  }

  void HoldsLambda() {
    [] { TOLM_LOG(3, "tag", "text"); }();
    const std::function<int(int)> nested = [](int value) {
      const auto generic = [](auto inside) {
        TOLM_LOG(3, "tag", "text");
        return inside;
      };
      return generic(value);
    };
    nested(1);
  }

  template <typename T>
  std::vector<T> MemberTemplate(T value) {
    TOLM_LOG(3, "tag", "text");
    return {value};
  }

  bool operator<(const Widget&) const {
    TOLM_LOG(3, "tag", "text");
    return false;
  }
  Widget* operator->() {
    TOLM_LOG(3, "tag", "text");
    return this;
  }
  int operator()(int value) {
    TOLM_LOG(3, "tag", "text");
    return value;
  }
  explicit operator bool() const {
    TOLM_LOG(3, "tag", "text");
    return true;
  }
  static void cooperator() { TOLM_LOG(3, "tag", "text"); }
};

template <typename T>
struct Box {
  void Put(T) { TOLM_LOG(3, "tag", "text"); }
};

}  // namespace inner

namespace {

void Unnamed(int) {
  TOLM_LOG(3, "tag", "text");
}

struct UnnamedStruct {
  std::vector<UnnamedStruct> Member(int) {
    TOLM_LOG(3, "tag", "text");
    return {};
  }
};

}  // namespace

void CallUnnamed() {
  Unnamed(1);
  UnnamedStruct().Member(1);
}

}  // namespace line_test

namespace {

using line_test::inner::Widget;

std::vector<std::string> FunctionsLoggedBy(const std::function<void()>& act) {
  const LogCapture capture;
  act();
  std::vector<std::string> functions;
  for (const auto& line : capture.Lines()) functions.push_back(line.function);
  return functions;
}

using Names = std::vector<std::string>;

TEST(LogLine, IsFunctionThenTextThenFileAndLine) {
  const LogCapture capture;
  TOLM_LOG(3, "LPCFrameInfo", "value=[%d], %s", 7, "seven");
  const int line = __LINE__ - 1;
  ASSERT_EQ(capture.Lines().size(), 1U);
  const auto logged = capture.Lines().front();
  EXPECT_EQ(logged.level, 3);
  EXPECT_EQ(logged.tag, "LPCFrameInfo");
  EXPECT_EQ(logged.text, "value=[7], seven");
  EXPECT_EQ(logged.file, __FILE__);
  EXPECT_EQ(logged.line, line);
  EXPECT_EQ(logged.whole,
            "[" + logged.function + "]value=[7], seven[" + __FILE__ + "(" + std::to_string(line) + ")]");
}

TEST(LogLine, NamesAFunctionOfANamespace) {
  EXPECT_EQ(FunctionsLoggedBy([] { line_test::Log(); }), Names{"line_test::Log"});
}

TEST(LogLine, NamesMemberFunctionsWithTheirClass) {
  EXPECT_EQ(FunctionsLoggedBy([] {
              const Widget widget;
              widget.Member("", nullptr);
              Widget::Static();
            }),
            (Names{"line_test::inner::Widget::Widget", "line_test::inner::Widget::Member",
                   "line_test::inner::Widget::Static", "line_test::inner::Widget::~Widget"}));
  Widget widget;
  EXPECT_EQ(FunctionsLoggedBy([&] { widget.Noexcept(); }), Names{"line_test::inner::Widget::Noexcept"});
}

TEST(LogLine, LeavesTheReturnTypeOut) {
  Widget::ReturnsItself();
  EXPECT_EQ(FunctionsLoggedBy([] {
              Widget& widget = Widget::ReturnsItself();
              widget.ReturnsTemplate();
              widget.ReturnsReference();
              widget.ReturnsPointer();
              widget.ReturnsFunctionPointer(1);
              widget.ReturnsArray();
              widget.ReturnsExpression(1);
            }),
            (Names{"line_test::inner::Widget::ReturnsItself", "line_test::inner::Widget::ReturnsTemplate",
                   "line_test::inner::Widget::ReturnsReference", "line_test::inner::Widget::ReturnsPointer",
                   "line_test::inner::Widget::ReturnsFunctionPointer",
                   "line_test::inner::Widget::ReturnsArray", "line_test::inner::Widget::ReturnsExpression"}));
}

TEST(LogLine, NamesALambdaAfterTheFunctionThatHoldsIt) {
  Widget widget;
  EXPECT_EQ(FunctionsLoggedBy([&] { widget.HoldsLambda(); }),
            (Names{"line_test::inner::Widget::HoldsLambda", "line_test::inner::Widget::HoldsLambda"}));
}

TEST(LogLine, NamesAMemberTemplateWithoutItsArguments) {
  Widget widget;
  EXPECT_EQ(FunctionsLoggedBy([&] {
              widget.MemberTemplate(1);
              widget.MemberTemplate(std::string());
            }),
            (Names{"line_test::inner::Widget::MemberTemplate", "line_test::inner::Widget::MemberTemplate"}));
}

TEST(LogLine, NamesAClassTemplateAsTheCompilerDoes) {
  const Names names = FunctionsLoggedBy([] { line_test::inner::Box<void (*)(int)>().Put(nullptr); });
  ASSERT_EQ(names.size(), 1U);
  EXPECT_TRUE(names[0] == "line_test::inner::Box<T>::Put" ||
              names[0] == "line_test::inner::Box<void (*)(int)>::Put")
      << names[0];
}

TEST(LogLine, NamesOperators) {
  Widget widget;
  EXPECT_EQ(FunctionsLoggedBy([&] {
              EXPECT_FALSE(widget < widget);
              widget.operator->();
              widget(1);
              EXPECT_TRUE(static_cast<bool>(widget));
              Widget::cooperator();
            }),
            (Names{"line_test::inner::Widget::operator<", "line_test::inner::Widget::operator->",
                   "line_test::inner::Widget::operator()", "line_test::inner::Widget::operator bool",
                   "line_test::inner::Widget::cooperator"}));
}

TEST(LogLine, NamesUnnamedNamespacesAsTheCompilerDoes) {
  const Names names = FunctionsLoggedBy([] { line_test::CallUnnamed(); });
  EXPECT_TRUE(
      names == (Names{"line_test::{anonymous}::Unnamed", "line_test::{anonymous}::UnnamedStruct::Member"}) ||
      names == (Names{"line_test::(anonymous namespace)::Unnamed",
                      "line_test::(anonymous namespace)::UnnamedStruct::Member"}))
      << testing::PrintToString(names);
}

// What either compiler says, whichever of them compiles this.
TEST(QualifiedFunctionName, KnowsTheDescriptionsOfBothCompilers) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"int main()", "main"},
      {"void A::B::C(const X&) [with T = int]", "A::B::C"},
      {"std::vector<T> A::f(T) [with T = std::function<void(int)>]", "A::f"},
      {"A::M(int, void (*)(int)) const::<lambda(auto:14)> [with auto:14 = int]", "A::M"},
      {"auto A::M(int)::(anonymous class)::operator()(int) const", "A::M"},
      {"A::{anonymous}::S A::{anonymous}::Make()", "A::{anonymous}::Make"},
      {"A::(anonymous namespace)::S A::(anonymous namespace)::Make()", "A::(anonymous namespace)::Make"},
      {"void (* A::f(int))(int)", "A::f"},
      {"void (*A::f(int))(int)", "A::f"},
      {"int (& A::f())[3]", "A::f"},
      {"decltype ((t + 1)) A::f(T) [with T = int; decltype ((t + 1)) = int]", "A::f"},
      {"<dependent type> A::f(T) [T = int]", "A::f"},
      {"bool A::operator<(const A&) const", "A::operator<"},
      {"A& A::operator>>(int)", "A::operator>>"},
      {"void A::operator()(int)", "A::operator()"},
      {"int A::operator[](int)", "A::operator[]"},
      {"A::operator std::vector<int>() const", "A::operator std::vector<int>"},
      {"void operators::f()", "operators::f"},
      {"<lambda(auto:1)> [with auto:1 = int]", "<lambda(auto:1)>"},
      {"auto (anonymous class)::operator()(int) const", "(anonymous class)::operator()"},
      {"", ""},
      {"operator", "operator"},
  };
  for (const auto& [pretty, name] : cases) {
    EXPECT_EQ(Tolm::Base::details::QualifiedFunctionName(pretty), name) << pretty;
  }
}

int g_evaluated = 0;

int Evaluated() {
  return ++g_evaluated;
}

TEST(LogLine, EvaluatesNoArgumentWhenNobodyWantsTheLevel) {
  LogCapture capture(4);
  g_evaluated = 0;
  TOLM_LOG(3, "tag", "%d", Evaluated());
  EXPECT_EQ(g_evaluated, 0);
  TOLM_LOG(4, "tag", "%d", Evaluated());
  EXPECT_EQ(g_evaluated, 1);
  ASSERT_EQ(capture.Lines().size(), 1U);
  EXPECT_EQ(capture.Lines().front().text, "1");
}

TEST(LogLine, IsOneStatement) {
  const LogCapture capture;
  bool other = false;
  if (g_evaluated < 0)
    TOLM_LOG(3, "tag", "not logged");
  else
    other = true;
  EXPECT_TRUE(other);
  EXPECT_TRUE(capture.Lines().empty());
}

}  // namespace
