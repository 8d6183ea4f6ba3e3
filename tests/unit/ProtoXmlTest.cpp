#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "SmallStack.h"
#include "TolmProto/XmlProto.h"

namespace {

using proto::CXmlProto;

const std::string kDeclaration = "<?xml version=\"1.0\"?>\n";

/// A document that holds `text`; the text must be well formed.
class Xml : public CXmlProto {
 public:
  explicit Xml(const std::string& text) { EXPECT_TRUE(set_str(text)) << text.substr(0, 100); }
};

std::string Repeated(const std::string& part, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += part;
  return text;
}

// ------------------------------------------------------------------------------------- Parsing

TEST(XmlParse, ADocumentIsEmptyAtFirst) {
  EXPECT_EQ(CXmlProto().get_str(0), kDeclaration);
  EXPECT_EQ(CXmlProto().get_v("/Config", "default"), "default");
}

TEST(XmlParse, WhatIsBesideTheRootIsSkipped) {
  for (const char* text :
       {"<a>x</a>", " \r\n<a>x</a>\n", "\xEF\xBB\xBF<a>x</a>", "<?xml version=\"1.0\"?><a>x</a>",
        "<?xml version='1.0' encoding='utf-8' standalone='yes'?>\n<a>x</a>\n\n\n",
        "<!-- b --><a>x</a><!-- c -->", "<?b c?><a>x</a><?d?>", "<!DOCTYPE a><a>x</a>",
        "<!DOCTYPE a [<!ENTITY b 'c'>]><a>x</a>", "<!DOCTYPE a SYSTEM \"file:///etc/passwd\"><a>x</a>"}) {
    EXPECT_EQ(Xml(text).get_v("/a", "default"), "x") << text;
  }
}

TEST(XmlParse, WhatIsNotWellFormedFailsAndLeavesAnEmptyDocument) {
  for (const std::string& text : {std::string(""),
                                  std::string(" \n"),
                                  std::string("text"),
                                  std::string("<"),
                                  std::string("<a"),
                                  std::string("<a>"),
                                  std::string("<a><b></a>"),
                                  std::string("<a></b>"),
                                  std::string("<a></a"),
                                  std::string("</a>"),
                                  std::string("<a/><b/>"),
                                  std::string("<a/><a"),
                                  std::string("<a/>text"),
                                  std::string("text<a/>"),
                                  std::string("<![CDATA[text]]><a/>"),
                                  std::string("<!-- only a comment -->"),
                                  std::string("<?xml version=\"1.0\"?>"),
                                  std::string("<1/>"),
                                  std::string("< a/>"),
                                  std::string("<a b=c/>"),
                                  std::string("<a b/>"),
                                  std::string("<a b=\"c/>"),
                                  std::string("<a><![CDATA[x</a>"),
                                  std::string("<a><!-- x</a>"),
                                  std::string("<a/>\0", 5),
                                  std::string("<a>\0</a>", 8),
                                  std::string("<a/>\0<b/>", 9)}) {
    Xml xml("<before/>");
    EXPECT_FALSE(xml.set_str(text)) << text;
    EXPECT_EQ(xml.get_str(0), kDeclaration) << text;
    EXPECT_EQ(xml.get_cnt("/before"), 0) << text;
    EXPECT_TRUE(xml.set_v("/other", 1)) << "it can be used further";
  }
}

TEST(XmlParse, EveryCutOfADocumentFails) {
  const std::string whole =
      "<Config b=\"c\"><ServerPort>1&amp;2</ServerPort><!-- d --><e/><![CDATA[f]]></Config>";
  ASSERT_TRUE(CXmlProto().set_str(whole));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    CXmlProto xml;
    EXPECT_FALSE(xml.set_str(whole.substr(0, size))) << size;
    EXPECT_EQ(xml.get_cnt("/Config"), 0) << size;
  }
}

TEST(XmlParse, TextsOfOtherEncodingsAreConverted) {
  EXPECT_EQ(Xml("<?xml version='1.0' encoding='iso-8859-1'?><a>\xE4</a>").get_v("/a", ""), "\xC3\xA4");
  const std::string wide("\xFF\xFE<\0a\0>\0\xE4\0<\0/\0a\0>\0", 18);
  EXPECT_EQ(Xml(wide).get_v("/a", ""), "\xC3\xA4");
}

// ------------------------------------------------------------------------------------- Reading

TEST(XmlRead, AnElementIsAddressedByThePathFromTheRoot) {
  const Xml xml("<Config><ServerPort>1</ServerPort><Inner><Port>2</Port></Inner></Config>");
  EXPECT_EQ(xml.get_v("/Config/ServerPort", ""), "1");
  EXPECT_EQ(xml.get_v("/Config/Inner/Port", ""), "2");
}

TEST(XmlRead, TheFirstOfANameCounts) {
  const Xml xml("<a><b/><b>x<c>1</c></b><b><c>2</c></b></a>");
  EXPECT_EQ(xml.get_v("/a/b", "default"), "");
  EXPECT_EQ(xml.get_v("/a/b/c", "default"), "default") << "nor is another looked into";
}

TEST(XmlRead, APathThatLeadsNowhereGivesTheDefault) {
  const Xml xml("<Config><Port>1</Port>text</Config>");
  for (const char* path :
       {"", "/", "//", "Config", "Config/Port", "/config", "/Config/", "/Config//Port", "//Config",
        "/Config/Port/", "/Config/Port/Deeper", "/Config/Other", "/Config/text", "/Port", "/Config/Port[1]",
        "/Confi", "/Config/Por", "/Config/Port "}) {
    EXPECT_EQ(xml.get_v(path, "default"), "default") << path;
    EXPECT_EQ(xml.get_int_v(path, -7), -7) << path;
    EXPECT_EQ(xml.get_cnt(path), 0) << path;
  }
  EXPECT_EQ(xml.get_v(std::string("/Config/Port\0", 13), "default"), "default");
}

TEST(XmlRead, AnElementWithoutTextHasTheEmptyText) {
  for (const char* text : {"<a><b/></a>", "<a><b></b></a>", "<a><b><c>x</c></b></a>",
                           "<a><b><!-- x --></b></a>", "<a><b x='y'/></a>", "<a><b><![CDATA[]]></b></a>"}) {
    EXPECT_EQ(Xml(text).get_v("/a/b", "default"), "") << text;
    EXPECT_EQ(Xml(text).get_int_v("/a/b", -7), -7) << text;
  }
}

TEST(XmlRead, TheValueIsTheTextDirectlyInTheElement) {
  EXPECT_EQ(Xml("<a>x<b>no</b>y<!-- no -->z<![CDATA[<&>]]></a>").get_v("/a", ""), "xyz<&>");
  EXPECT_EQ(Xml("<a>&lt;&gt;&amp;&quot;&apos;&#65;&#x42;&#xE4;</a>").get_v("/a", ""), "<>&\"'AB\xC3\xA4");
  EXPECT_EQ(Xml("<a> x\ty </a>").get_v("/a", ""), " x\ty ");
  EXPECT_EQ(Xml("<a>  </a>").get_v("/a", ""), "  ");
  EXPECT_EQ(Xml("<a>&unknown; &</a>").get_v("/a", ""), "&unknown; &");
}

TEST(XmlRead, AnEntityOfTheDocumentIsNotExpanded) {
  EXPECT_EQ(Xml("<!DOCTYPE a [<!ENTITY b SYSTEM 'file:///etc/passwd'>]><a>&b;</a>").get_v("/a", ""), "&b;");
}

TEST(XmlRead, IntegersAreTheWholeText) {
  const auto number = [](const std::string& text) { return Xml("<a>" + text + "</a>").get_int_v("/a", -7); };
  EXPECT_EQ(number("0"), 0);
  EXPECT_EQ(number("-1"), -1);
  EXPECT_EQ(number("00042"), 42);
  EXPECT_EQ(number(" \t\r\n8080 \t\r\n"), 8080);
  EXPECT_EQ(number("2147483647"), INT_MAX);
  EXPECT_EQ(number("-2147483648"), INT_MIN);
  EXPECT_EQ(number("<![CDATA[5]]>"), 5);
  EXPECT_EQ(number("1<b/>2"), 12);
  for (const char* text : {"", " ", "x", "1x", "1 2", "1.0", "0x10", "--1", "- 1", "2147483648",
                           "-2147483649", "99999999999999999999"}) {
    EXPECT_EQ(number(text), -7) << text;
  }
}

TEST(XmlRead, CountsTheElementsOfOneNameBelowTheFirstParent) {
  const Xml xml("<a><b><c/></b>text<b><c/><c/></b><d/><b/></a>");
  EXPECT_EQ(xml.get_cnt("/a"), 1);
  EXPECT_EQ(xml.get_cnt("/a/b"), 3);
  EXPECT_EQ(xml.get_cnt("/a/b/c"), 1);
  EXPECT_EQ(xml.get_cnt("/a/d"), 1);
  EXPECT_EQ(xml.get_cnt("/a/e"), 0);
}

// ------------------------------------------------------------------------------------- Setting

TEST(XmlSet, MakesWhatIsMissing) {
  CXmlProto xml;
  EXPECT_TRUE(xml.set_v("/Config/ServerPort", 8080));
  EXPECT_TRUE(xml.set_v("/Config/ProtocolType", std::string("ws")));
  EXPECT_TRUE(xml.set_v("/Config/Inner/Deep", "x"));
  EXPECT_EQ(xml.get_int_v("/Config/ServerPort", -1), 8080);
  EXPECT_EQ(xml.get_v("/Config/ProtocolType", ""), "ws");
  EXPECT_EQ(xml.get_v("/Config/Inner/Deep", ""), "x");
  EXPECT_EQ(xml.get_cnt("/Config"), 1);
}

TEST(XmlSet, ReplacesTheTextAndKeepsTheElementsInIt) {
  Xml xml("<a>x<b>1</b>y<![CDATA[z]]></a>");
  EXPECT_TRUE(xml.set_v("/a", "new"));
  EXPECT_EQ(xml.get_v("/a", ""), "new");
  EXPECT_EQ(xml.get_v("/a/b", ""), "1");
  EXPECT_TRUE(xml.set_v("/a", ""));
  EXPECT_EQ(xml.get_v("/a", "default"), "");
}

TEST(XmlSet, TheFirstOfANameIsSet) {
  Xml xml("<a><b>1</b><b>2</b></a>");
  EXPECT_TRUE(xml.set_v("/a/b", 3));
  EXPECT_EQ(xml.get_v("/a/b", ""), "3");
  EXPECT_EQ(xml.get_cnt("/a/b"), 2);
}

TEST(XmlSet, ANullTextIsTheEmptyOne) {
  CXmlProto xml;
  EXPECT_TRUE(xml.set_v("/a", static_cast<const char*>(nullptr)));
  EXPECT_EQ(xml.get_v("/a", "default"), "");
}

TEST(XmlSet, IntegersKeepTheirValue) {
  for (const int value : {0, 1, -1, INT_MAX, INT_MIN}) {
    CXmlProto xml;
    EXPECT_TRUE(xml.set_v("/a", value));
    EXPECT_EQ(Xml(xml.get_str(0)).get_int_v("/a", -7), value);
  }
}

TEST(XmlSet, WhatCannotBeSetChangesNothing) {
  const std::string before = kDeclaration + "<Config>\n<Port>1</Port>\n</Config>\n";
  for (const std::string& path : {std::string(""),
                                  std::string("/"),
                                  std::string("Config"),
                                  std::string("Config/Port"),
                                  std::string("//Config"),
                                  std::string("/Config/"),
                                  std::string("/Config//Port"),
                                  std::string("/Config/Port/"),
                                  std::string("/Other"),
                                  std::string("/Other/Port"),
                                  std::string("/config"),
                                  std::string("/Config/1"),
                                  std::string("/Config/-a"),
                                  std::string("/Config/.a"),
                                  std::string("/Config/a b"),
                                  std::string("/Config/a<b"),
                                  std::string("/Config/a>"),
                                  std::string("/Config/a&"),
                                  std::string("/Config/a\"b"),
                                  std::string("/Config/a=b"),
                                  std::string("/Config/a[1]"),
                                  std::string("/Config/New/1"),
                                  std::string("/Config/a\0b", 11),
                                  std::string("/Config/ ")}) {
    Xml xml(before);
    EXPECT_FALSE(xml.set_v(path, 5)) << path;
    EXPECT_FALSE(xml.set_v(path, "text")) << path;
    EXPECT_FALSE(xml.set_v(path, std::string("text"))) << path;
    EXPECT_EQ(xml.get_str(0), before) << path;
  }
  Xml xml(before);
  EXPECT_FALSE(xml.set_v("/Config/Port", std::string("a\0b", 3))) << "no document can hold a NUL";
  EXPECT_EQ(xml.get_str(0), before);
}

TEST(XmlSet, EveryNameThatAnElementMayHaveCanBeSet) {
  for (const char* name : {"a", "Z", "_", "a1", "a-b", "a.b", "a_b", "ns:a", "\xC3\xA4", "a\xC3\xA4"}) {
    const std::string path = std::string("/Config/") + name;
    CXmlProto xml;
    ASSERT_TRUE(xml.set_v(path, "x")) << name;
    EXPECT_EQ(Xml(xml.get_str(0)).get_v(path, ""), "x") << name;
  }
}

// ------------------------------------------------------------------------------------- Writing

TEST(XmlWrite, HasADeclarationAndALineForEachElement) {
  CXmlProto xml;
  xml.set_v("/Config/ServerPort", 8080);
  xml.set_v("/Config/ProtocolType", "");
  xml.set_v("/Config/Inner/Deep", "x");
  EXPECT_EQ(xml.get_str(0), kDeclaration +
                                "<Config>\n<ServerPort>8080</ServerPort>\n<ProtocolType />\n<Inner>\n"
                                "<Deep>x</Deep>\n</Inner>\n</Config>\n");
  EXPECT_EQ(xml.get_str(1), kDeclaration +
                                "<Config>\n  <ServerPort>8080</ServerPort>\n  <ProtocolType />\n  <Inner>\n"
                                "    <Deep>x</Deep>\n  </Inner>\n</Config>\n");
}

TEST(XmlWrite, EveryTextCanBeReadAgain) {
  for (const std::string& text :
       {std::string(""), std::string(" "), std::string("\n"), std::string(" a "), std::string("<a>&\"'</a>"),
        std::string("]]>"), std::string("&amp;"), std::string("&#65;"), std::string("\x01\x1F\x7F"),
        std::string("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"), std::string(100'000, 'x')}) {
    CXmlProto xml;
    ASSERT_TRUE(xml.set_v("/a/b", text));
    for (const int style : {0, 1}) EXPECT_EQ(Xml(xml.get_str(style)).get_v("/a/b", "default"), text);
  }
}

TEST(XmlWrite, AttributesAreKept) {
  EXPECT_EQ(Xml("<a b='1' c=\"&lt;\"><d/></a>").get_str(0),
            kDeclaration + "<a b=\"1\" c=\"&lt;\">\n<d />\n</a>\n");
}

TEST(XmlWrite, WhatIsReadIsWrittenTheSame) {
  const std::string text = kDeclaration + "<Config>\n<ServerPort>1</ServerPort>\n</Config>\n";
  EXPECT_EQ(Xml(text).get_str(0), text);
  EXPECT_EQ(Xml(Xml(text).get_str(1)).get_str(0), text);
}

// ------------------------------------------------------------------------------------- Nesting

TEST(XmlNesting, IndentationEndsAtItsLimit) {
  for (const int depth : {63, 64, 65}) {
    const Xml xml(Repeated("<a>", depth) + Repeated("</a>", depth));
    EXPECT_EQ(xml.get_str(1).find("  <a") != std::string::npos, depth <= 64) << depth;
  }
}

void NestDeeply() {
  constexpr int kDepth = 100'000;
  const std::string text = Repeated("<a>", kDepth) + "x" + Repeated("</a>", kDepth);
  Xml xml(text);
  EXPECT_EQ(xml.get_cnt("/a/a/a"), 1);
  EXPECT_TRUE(xml.set_v("/a/a", "y"));
  EXPECT_EQ(xml.get_v(Repeated("/a", kDepth), ""), "x");
  EXPECT_GT(xml.get_str(0).size(), text.size());
  EXPECT_LT(xml.get_str(1).size(), 2 * text.size());
  EXPECT_TRUE(xml.set_str("<b/>"));
  EXPECT_FALSE(xml.set_str(Repeated("<a>", kDepth)));
  CXmlProto made;
  EXPECT_TRUE(made.set_v(Repeated("/a", kDepth), "z"));
  EXPECT_EQ(made.get_v(Repeated("/a", kDepth), ""), "z");
}

// On a stack that recursion over the document would overrun.
TEST(XmlNesting, AnyDepthIsReadWrittenAndDestroyed) {
  tolm::test::RunOnSmallStack(256 * 1024, NestDeeply);
}

}  // namespace
