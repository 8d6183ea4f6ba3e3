#include "JsonCases.h"

#include <cstddef>

#include "JsonRows.h"

namespace trust {
namespace {

using namespace std::literals;
using namespace json;

// What is a row for each byte, or for each length.

void AddBytes(std::vector<JsonCase>& cases) {
  for (int byte = 0; byte < 0x20; ++byte) {
    cases.push_back({std::string("\"a") + static_cast<char>(byte) + "b\"", 'R', byte == 0 ? kByRule : "RAR"sv,
                     byte == 0 ? ""sv : kControls});
  }
  for (const int byte : {0, 1, 8, 9, 10, 11, 12, 13, 14, 0x1F, 0x20, 0x7F, 0x80, 0x85, 0xA0, 0xFF}) {
    const bool is_blank = byte == 9 || byte == 10 || byte == 13 || byte == 0x20;
    const bool is_loose = !is_blank && byte > 0 && byte < 0x20;
    cases.push_back({std::string("[") + static_cast<char>(byte) + "1]", is_blank ? 'A' : 'R',
                     is_loose ? "RAR"sv : kByRule, is_loose ? kBlanks : ""sv});
  }
  for (char c = '!'; c <= '~'; ++c) {
    if (c == 'u' || c == '@') continue;
    const bool is_escape = R"("\/bfnrt)"sv.find(c) != std::string_view::npos;
    cases.push_back({std::string("\"\\") + c + "\"", is_escape ? 'A' : 'R', kByRule, {}});
  }
  for (std::size_t place = 0; place < 4; ++place) {
    for (const char c : "gG/:`-+ \"\\"sv) {
      std::string digits = "00e9";
      digits[place] = c;
      // A quotation mark ends the string; a backslash before the end's takes that for its own.
      const bool is_loose = c != '"' && (c != '\\' || place < 3);
      cases.push_back(
          {"\"\\u" + digits + "\"", 'R', is_loose ? "RAR"sv : kByRule, is_loose ? kLooseEscapes : ""sv});
    }
  }
}

void AddCuts(std::vector<JsonCase>& cases) {
  constexpr std::string_view kWhole = R"({"a":[1,true,null,"x\u00e9\n"],"b":-1.5e+3,"c":{"d":false}})";
  cases.push_back({std::string(kWhole), 'A', kByRule, {}});
  for (std::size_t size = 1; size < kWhole.size(); ++size) {
    cases.push_back({std::string(kWhole.substr(0, size)), 'R', kByRule, {}});
  }
}

// Beyond a kibibyte, strings do not reach cJSON.
void AddLong(std::vector<JsonCase>& cases) {
  const std::string letters(2000, 'x');
  cases.push_back({'"' + letters + '"', 'A', kByRule, {}});
  cases.push_back({'"' + letters + R"(\n")", 'A', kByRule, {}});
  cases.push_back({"{\"" + letters + "\":1}", 'A', kByRule, {}});
  cases.push_back({'"' + letters, 'R', kByRule, {}});
  cases.push_back({'"' + letters + "\\\"", 'R', kByRule, {}});
  cases.push_back({'"' + letters + "\"x", 'R', kByRule, {}});
  cases.push_back({'"' + letters + R"(\x")", 'R', kByRule, {}});
  cases.push_back({'"' + letters + "\n\"", 'R', "RAR"sv, kControls});
  cases.push_back({'"' + letters + "\xFF\"", '?', "AAR"sv, kBytes});
  cases.push_back({'"' + letters + R"(\uDC00")", '?', "RRR"sv, kUnpaired});
  std::string many = "[0";
  for (int i = 1; i < 1000; ++i) many += "," + std::to_string(i);
  cases.push_back({many + "]", 'A', kByRule, {}});
  cases.push_back({many + ",]", 'R', kByRule, {}});
  cases.push_back({std::string(5000, ' ') + "1", 'A', kByRule, {}});
}

}  // namespace

std::vector<JsonCase> JsonCases() {
  std::vector<JsonCase> cases;
  for (const auto& rows : {JsonStructures(), JsonNumbers(), JsonStrings(), JsonWholes()}) {
    for (const JsonRow& row : rows) cases.push_back({std::string(row.text), row.rule, row.verdicts, row.why});
  }
  AddBytes(cases);
  AddCuts(cases);
  AddLong(cases);
  return cases;
}

std::vector<JsonText> JsonTexts() {
  return {
      {R"("")"sv, ""sv},
      {R"("plain")"sv, "plain"sv},
      {R"("\"\\\/\b\f\n\r\t")"sv, "\"\\/\b\f\n\r\t"sv},
      {R"("\u0001\u001f\u007f")"sv, "\x01\x1f\x7f"sv},
      {R"("\u0041\u005a\u005A")"sv, "AZZ"sv},
      {R"("\u0080\u07ff")"sv, "\xC2\x80\xDF\xBF"sv},
      {R"("\u0800\ud7ff\ue000\uffff")"sv, "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"sv},
      {R"("\ud800\udc00")"sv, "\xF0\x90\x80\x80"sv},
      {R"("\uD83D\uDE00x")"sv, "\xF0\x9F\x98\x80x"sv},
      {R"("\udbff\udfff")"sv, "\xF4\x8F\xBF\xBF"sv},
      {R"("\\u0041")"sv, "\\u0041"sv},
      {R"("\\\\\"")"sv, "\\\\\""sv},
      {R"("\\uDC00")"sv, "\\uDC00"sv},
      {"\"\x7F\""sv, "\x7F"sv},
      {"\"\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80\""sv, "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"sv},
      {"\"\xEF\xBB\xBF\""sv, "\xEF\xBB\xBF"sv},
  };
}

}  // namespace trust
