#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "ConfigPort.h"
#include "Deep.h"
#include "GuardMessages.h"
#include "PositionedJson.h"
#include "Sets.h"
#include "StackUse.h"
#include "TolmProto/RapidJsonProto.h"
#include "TolmProto/XmlProto.h"
#include "Verdicts.h"
#include "common/HttpDocuments.h"
#include "support/Figures.h"
#include "support/TempDirectory.h"

namespace trust {
namespace {

/// As deep as cJSON goes; what is nested deeper must not take more than this does.
constexpr int kShallow = 1000;

/// How a document is nested: what opens a level, what is innermost, what closes a level.
struct Shape {
  const char* name;
  const char* open;
  const char* inner;
  const char* close;
  const char* text = "";  // of the innermost element

  std::string Text(int depth) const { return Times(depth, open) + inner + Times(depth, close); }
  std::string Unfinished(int depth) const { return Times(depth, open); }
};

constexpr Shape kJson[] = {
    {"arrays", "[", "", "]"},
    {"objects", "{\"a\":", "7", "}"},
    {"arrays and objects", "[{\"a\":", "[]", "}]"},
    {"arrays of more than one", "[1,{},", "[]", "]"},
    {"objects of more than one", "{\"b\":[],\"a\":", "{}", "}"},
    {"objects with blanks", "{ \"a\" :\n", "null", " }"},
};

constexpr Shape kXml[] = {
    {"elements", "<a>", "x", "</a>", "x"},
    {"elements with others beside", "<a><b/>", "x", "<c/></a>", "x"},
    {"elements with attributes and texts", "<a n='1'>t", "x", "u</a>", "txu"},
};

/// A reader's whole life with `text`: reading, asking, writing, changing, another document, the end.
bool LiveWithJson(const Shape& shape, int depth) {
  const std::string text = shape.Text(depth);
  const std::string path = Times(depth, "/a");
  proto::CRapidJsonProto json;
  bool right = json.set_str(text) && json.get_v(path, "none") == "none" && json.get_cnt("/a") == 0;
  right &= json.get_int_v(path, -1) == (std::string(shape.inner) == "7" ? 7 : -1);
  const std::string written = json.get_str(0);
  right &= !written.empty() && (depth <= 64 || json.get_str(1) == written);
  proto::CRapidJsonProto copy;
  right &= copy.set_str(written) && copy.get_str(0) == written;
  right &= copy.set_v(path, "set") && copy.get_v(path, "none") == "set";
  right &= copy.set_v("/a", 1) && copy.get_int_v("/a", -1) == 1;
  right &= !json.set_str(shape.Unfinished(depth)) && json.get_str(0) == "{}";
  return right;
}

bool LiveWithXml(const Shape& shape, int depth) {
  const std::string text = shape.Text(depth);
  const std::string path = Times(depth, "/a");
  proto::CXmlProto xml;
  bool right = xml.set_str(text) && xml.get_v(path, "none") == shape.text && xml.get_cnt(path) == 1;
  const std::string written = xml.get_str(0);
  right &= xml.get_str(1).size() < 2 * written.size();
  proto::CXmlProto copy;
  right &= copy.set_str(written) && copy.set_v(path, "set") && copy.get_v(path, "none") == "set";
  right &= !xml.set_str(shape.Unfinished(depth)) && xml.get_cnt("/a") == 0;
  return right;
}

/// Nothing of it counts, and what follows is read as ever.
bool ReadDocuments(const Shape& shape, int depth) {
  bool right = true;
  for (const std::string& deep : {shape.Text(depth), shape.Unfinished(depth)}) {
    for (const std::string& text :
         {deep, R"({"httpHeaders":)" + deep + "}",
          R"({"httpHeaders":[{"key":"k","value":)" + deep + "}],\"httpMine\":[{\"name\":" + deep + "}]}"}) {
      TolmLPCFrame::HttpHeaders headers;
      TolmLPCFrame::HttpParts parts;
      right &=
          TolmLPCFrame::ReadHeadersDocument(headers, text) && TolmLPCFrame::ReadPartsDocument(parts, text);
      right &= headers.empty() && parts.empty();
    }
  }
  return right;
}

bool ReadManifest(const Shape& shape, int depth) {
  guard::JsonValue value;
  guard::Position where;
  std::string why;
  bool right = true;
  for (const std::string& text : {shape.Text(depth), shape.Unfinished(depth)}) {
    right &= !guard::ReadJson(text, 8, value, where, why) && why == "nested more than 8 deep";
  }
  return right;
}

bool ReadGuardMessage(const Shape& shape, int depth) {
  guard::FrameMessage message;
  std::string why;
  bool right = !guard::ParseFrameMessage(shape.Text(depth), message, why);
  right &= !guard::ParseFrameMessage(shape.Unfinished(depth), message, why) && why.size() < 1000;
  right &= !guard::ParseFrameMessage(
      R"({"guid":"g","requestData":{"method":"StartProcess","processName":)" + shape.Text(depth) + "}}",
      message, why);
  return right;
}

class Nesting {
 public:
  template <typename Live>
  void Try(const char* what, const Shape& shape, Live live) {
    bool right = true;
    const std::size_t shallow = StackUse([&] { right &= live(shape, kShallow); });
    const std::size_t deep = StackUse([&] { right &= live(shape, kDeep); });
    verdicts_.Expect(right, std::string(what) + ": " + shape.name, "to be read as documents of few levels");
    deepest_ = std::max(deepest_, deep);
    growth_ = std::max(growth_, deep > shallow ? deep - shallow : 0);
    std::printf("%-20s %-36s %5zu KiB at %d levels, %5zu KiB at %d\n", what, shape.name, shallow >> 10,
                kShallow, deep >> 10, kDeep);
  }

  void Print() const {
    constexpr double kKib = 1024;
    // What a page more or less makes.
    PrintFigure("sets.json.stack_growth_kib", static_cast<double>(growth_) / kKib, "KiB", Bound::kAtMost, 4);
    PrintFigure("sets.json.deepest_stack_kib", static_cast<double>(deepest_) / kKib, "KiB", Bound::kAtMost,
                static_cast<double>(kStackBytes) / kKib);
    verdicts_.Print(25);
  }

 private:
  Verdicts verdicts_{"nesting"};
  std::size_t deepest_ = 0;
  std::size_t growth_ = 0;
};

}  // namespace

void RunNesting() {
  const tolm::test::TempDirectory folder;
  Nesting nesting;
  for (const Shape& shape : kJson) {
    nesting.Try("CRapidJsonProto", shape, LiveWithJson);
    nesting.Try("headers and parts", shape, ReadDocuments);
    nesting.Try("manifest", shape, ReadManifest);
    nesting.Try("message to the guard", shape, ReadGuardMessage);
  }
  for (const Shape& shape : kXml) {
    nesting.Try("CXmlProto", shape, LiveWithXml);
    nesting.Try("LpcFrame.xml, guard", shape, [&](const Shape& deep, int depth) {
      const std::filesystem::path file = folder.path() / "LpcFrame.xml";
      std::ofstream(file, std::ios::trunc)
          << "<Config>" << deep.Text(depth) << "<ClientPort>4711</ClientPort></Config>\n";
      std::string why;
      // A file that is too long for the guard is none.
      const bool is_short = std::filesystem::file_size(file) <= 1048576;
      return guard::ReadConfigPort(file, guard::Role::kClient, why) == (is_short ? 4711 : 0);
    });
  }
  nesting.Print();
}

}  // namespace trust
