#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Manifest.h"
#include "PositionedJson.h"
#include "Sets.h"
#include "TolmBase/Utf8Check.h"
#include "TolmProto/RapidJsonProto.h"
#include "Verdicts.h"
#include "common/HttpDocuments.h"

namespace trust {
namespace {

using namespace std::literals;

/// Table 3-7 of the Unicode Standard: the well-formed sequences, as the range of each byte.
struct Row {
  int size;
  std::uint8_t lowest[4];
  std::uint8_t highest[4];
};
constexpr Row kWellFormed[] = {
    {1, {0x00}, {0x7F}},
    {2, {0xC2, 0x80}, {0xDF, 0xBF}},
    {3, {0xE0, 0xA0, 0x80}, {0xE0, 0xBF, 0xBF}},
    {3, {0xE1, 0x80, 0x80}, {0xEC, 0xBF, 0xBF}},
    {3, {0xED, 0x80, 0x80}, {0xED, 0x9F, 0xBF}},
    {3, {0xEE, 0x80, 0x80}, {0xEF, 0xBF, 0xBF}},
    {4, {0xF0, 0x90, 0x80, 0x80}, {0xF0, 0xBF, 0xBF, 0xBF}},
    {4, {0xF1, 0x80, 0x80, 0x80}, {0xF3, 0xBF, 0xBF, 0xBF}},
    {4, {0xF4, 0x80, 0x80, 0x80}, {0xF4, 0x8F, 0xBF, 0xBF}},
};

/// RFC 3629, section 3, as arithmetic: `size` bytes for a number, whether it may have them or not.
std::string InBytes(std::uint32_t number, int size) {
  if (size == 1) return {static_cast<char>(number)};
  std::string bytes;
  for (int i = size - 1; i >= 0; --i) {
    bytes.insert(bytes.begin(), static_cast<char>(0x80 | (number & 0x3F)));
    number >>= 6;
  }
  bytes[0] = static_cast<char>(static_cast<unsigned char>(bytes[0] & 0x3F) | (0xF00 >> size & 0xFF));
  return bytes;
}

int ShortestSize(std::uint32_t number) {
  return number < 0x80 ? 1 : number < 0x800 ? 2 : number < 0x10000 ? 3 : 4;
}

bool IsScalar(std::uint32_t number) {
  return number <= 0x10FFFF && (number < 0xD800 || number > 0xDFFF);
}

bool IsUtf8(std::string_view bytes) {
  Tolm::Base::Utf8Check check;
  return check.Add(bytes.data(), bytes.size()) && check.IsWhole();
}

/// The same in three pieces; any of them may be empty.
bool IsUtf8InPieces(std::string_view bytes, std::size_t first, std::size_t second) {
  Tolm::Base::Utf8Check check;
  return check.Add(bytes.data(), first) && check.Add(bytes.data() + first, second - first) &&
         check.Add(bytes.data() + second, bytes.size() - second) && check.IsWhole();
}

struct Text {
  std::string bytes;
  bool is_utf8;
};

/// The corners of each row, and each byte of them replaced by what stands beside its range, or left out.
std::vector<Text> Corners() {
  std::vector<Text> texts;
  for (const Row& row : kWellFormed) {
    for (int corner = 0; corner < 1 << row.size; ++corner) {
      std::string bytes;
      for (int i = 0; i < row.size; ++i) {
        bytes += static_cast<char>((corner >> i & 1) != 0 ? row.highest[i] : row.lowest[i]);
      }
      texts.push_back({bytes, true});
      // Cut short, alone and before a letter, which must not be taken for the rest.
      for (std::size_t size = 1; size < bytes.size(); ++size) {
        texts.push_back({bytes.substr(0, size), false});
        texts.push_back({bytes.substr(0, size) + "a", false});
        texts.push_back({bytes.substr(0, size) + "\xC3\xA4", false});
      }
      for (std::size_t at = 1; at < bytes.size(); ++at) {
        for (const int other : {row.lowest[at] - 1, row.highest[at] + 1, 0x00, 0x7F, 0xC0, 0xF8, 0xFF}) {
          std::string bad = bytes;
          bad[at] = static_cast<char>(other);
          texts.push_back({bad, false});
        }
      }
      texts.push_back({bytes + "\x80", false});
      texts.push_back({"\xBF" + bytes, false});
      texts.push_back({"plain text " + bytes + " and more of it", true});
      texts.push_back({bytes + bytes + bytes, true});
    }
  }
  // Bytes that begin nothing: alone, and before as many continuations as they seem to ask for.
  for (int first = 0x80; first <= 0xFF; ++first) {
    if (first >= 0xC2 && first <= 0xF4) continue;
    for (std::size_t behind = 0; behind <= 5; ++behind) {
      texts.push_back({static_cast<char>(first) + std::string(behind, '\x80'), false});
    }
  }
  texts.push_back({"", true});
  texts.push_back({"\xEF\xBB\xBF"s, true});
  texts.push_back({"\xED\xA0\x80\xED\xB0\x80"s, false});  // a pair of surrogates, each in three bytes
  texts.push_back({"\xC0\x80"s, false});
  texts.push_back({"a\0b"s, true});
  return texts;
}

/// Every number in every length: only those that are characters, in their shortest form, are UTF-8.
void TryEveryNumber(Verdicts& verdicts) {
  constexpr std::uint32_t kEnd[] = {0x80, 0x800, 0x10000, 0x200000};
  for (int size = 1; size <= 4; ++size) {
    for (std::uint32_t number = 0; number < kEnd[size - 1]; ++number) {
      const std::string bytes = InBytes(number, size);
      const bool expected = IsScalar(number) && ShortestSize(number) == size;
      if (IsUtf8(bytes) == expected) continue;
      verdicts.Expect(false, bytes, expected ? "UTF-8" : "not UTF-8", "the other");
    }
    verdicts.Expect(true, "all numbers of a length");
  }
}

/// Where texts arrive: what becomes of those that are not UTF-8.
void TryReaders(Verdicts& verdicts, const Text& text) {
  const bool can_stand = text.bytes.find_first_of("\"\\\0\n"sv) == std::string::npos;
  if (!can_stand) return;
  const std::string document = "{\"k\":\"" + text.bytes + "\"}";
  // What the guard reads of a person's file has to be UTF-8.
  guard::JsonValue value;
  guard::Position where;
  std::string why;
  bool has_controls = false;
  for (const char c : text.bytes) has_controls |= static_cast<unsigned char>(c) < 0x20;
  if (!has_controls) {
    const bool read = guard::ReadJson(document, 8, value, where, why);
    verdicts.Expect(read == text.is_utf8, "a manifest with " + text.bytes, text.is_utf8 ? "read" : "a fault",
                    read ? "read" : why);
    // Messages and headers carry bytes, and give them back as they were.
    proto::CRapidJsonProto json;
    const bool kept =
        json.set_str(document) && json.get_v("/k", "none") == text.bytes && json.get_str(0) == document;
    verdicts.Expect(kept, "a message with " + text.bytes, "the same bytes", json.get_str(0));
  }
  const TolmLPCFrame::HttpHeaders headers{{"k", text.bytes}};
  TolmLPCFrame::HttpHeaders back;
  TolmLPCFrame::ReadHeadersDocument(back, TolmLPCFrame::PrintHeadersDocument(headers));
  verdicts.Expect(back == headers, "a header with " + text.bytes, "the same bytes", back["k"]);
  // Ids of plugins become names of folders and go into texts for the frame.
  const std::string id = "a" + text.bytes + "z";
  const bool has_separators = id.find_first_of("/\\:*?\"<>|\x7F") != std::string::npos || has_controls;
  const bool taken = guard::WhyNotAPluginId(id).empty();
  verdicts.Expect(taken == (text.is_utf8 && !has_separators), "a plugin called " + id,
                  text.is_utf8 ? "started" : "refused", taken ? "started" : "refused");
}

}  // namespace

void RunUtf8() {
  Verdicts verdicts("utf8");
  Verdicts readers("utf8_readers");
  for (const Text& text : Corners()) {
    const char* const expected = text.is_utf8 ? "UTF-8" : "not UTF-8";
    verdicts.Expect(IsUtf8(text.bytes) == text.is_utf8, text.bytes, expected, "the other");
    // Behind and before so much that is read in larger pieces.
    for (const std::size_t size : {std::size_t{7}, std::size_t{8}, std::size_t{9}, std::size_t{16}}) {
      const std::string letters(size, 'x');
      verdicts.Expect(IsUtf8(letters + text.bytes + letters) == text.is_utf8, letters + text.bytes, expected,
                      "the other");
    }
    for (std::size_t first = 0; first <= text.bytes.size(); ++first) {
      for (std::size_t second = first; second <= text.bytes.size(); ++second) {
        verdicts.Expect(
            IsUtf8InPieces(text.bytes, first, second) == text.is_utf8,
            text.bytes + " in pieces from " + std::to_string(first) + " and " + std::to_string(second),
            expected, "the other");
      }
    }
    TryReaders(readers, text);
  }
  TryEveryNumber(verdicts);
  verdicts.Print(5000);
  readers.Print(1000);
}

}  // namespace trust
