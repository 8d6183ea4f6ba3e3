// Documents whose reading, change or printing lacks memory.

#include <gtest/gtest.h>

#include <new>
#include <string>

#include "ScarceMemory.h"
#include "TolmProto/RapidJsonProto.h"

namespace tolm::test {
namespace {

// More than the first block of a document's memory holds.
std::string LongList(const std::string& element) {
  std::string list = element;
  for (int i = 0; i < 5000; ++i) list += ',' + element;
  return list;
}

std::string ReadChangeAndPrint(proto::CRapidJsonProto& document, const std::string& text) {
  if (!document.set_str(text)) return "not read";
  if (!document.set_v("/made/on[40]/the/way", std::string(200, 'v'))) return "not set";
  return document.get_str(0) + document.get_str(1);
}

TEST(DocumentShortage, AJsonDocumentIsDoneRightOrThrowsAndServesAgain) {
  const std::string text = R"({"list":[)" + LongList(R"({"name":"value","number":12.5})") + "]}";
  proto::CRapidJsonProto undisturbed;
  const std::string expected = ReadChangeAndPrint(undisturbed, text);
  const int trials = RefuseEach([&](std::uint64_t number) {
    proto::CRapidJsonProto document;
    bool thrown = false;
    std::string result;
    std::uint64_t refused = 0;
    {
      const ScarceMemory scarce(number, ScarceMemory::Of::kThisThread);
      try {
        result = ReadChangeAndPrint(document, text);
      } catch (const std::bad_alloc&) {
        thrown = true;
      }
      refused = ScarceMemory::Refused();
    }
    EXPECT_TRUE(thrown || result == expected) << number;
    EXPECT_TRUE(document.set_str(R"({"next":{"number":7}})")) << number;
    EXPECT_EQ(document.get_int_v("/next/number", 0), 7) << number;
    return refused;
  });
  EXPECT_GE(trials, 20);
}

}  // namespace
}  // namespace tolm::test
