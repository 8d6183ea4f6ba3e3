#include "common/ShortenedText.h"

#include <algorithm>
#include <charconv>
#include <cstddef>

namespace TolmLPCFrame {

namespace {

// Below it a parser is as quick.
constexpr std::size_t kLong = 1024;

// No text has this byte in UTF-8, and no escape stands for it: a string that begins with it is a mark, or
// it is in the text as it stands.
constexpr char kMark = '\xFF';

/// Where the string whose content begins at `begin` ends; `has_escapes` tells whether it is to be taken as
/// it stands. npos when it has no end.
std::size_t FindEnd(std::string_view text, std::size_t begin, bool& has_escapes) {
  has_escapes = false;
  std::size_t end = text.find('"', begin);
  for (std::size_t at = begin; end != std::string_view::npos;) {
    const std::size_t escape = text.substr(at, end - at).find('\\');
    if (escape == std::string_view::npos) break;
    has_escapes = true;
    at += escape + 2;
    if (at > end) end = text.find('"', at);
  }
  return end;
}

}  // namespace

ShortenedText::ShortenedText(const char* text)
    : whole_(text), is_short_(whole_.size() > kLong && Shorten()) {}

bool ShortenedText::Shorten() {
  std::size_t done = 0;
  const auto keep_until = [&](std::size_t end) {
    const std::string_view kept = whole_.substr(done, end - done);
    shortened_ += kept;
    done = end;
    return kept.find(kMark) == std::string_view::npos;
  };
  for (std::size_t at = whole_.find('"'); at != std::string_view::npos;) {
    const std::size_t begin = at + 1;
    bool has_escapes = false;
    const std::size_t end = FindEnd(whole_, begin, has_escapes);
    if (end == std::string_view::npos) break;
    if (!has_escapes && end - begin > kLong) {
      if (!keep_until(begin)) return false;
      shortened_ += kMark;
      shortened_ += std::to_string(taken_out_.size());
      taken_out_.push_back(whole_.substr(begin, end - begin));
      done = end;
    }
    at = whole_.find('"', end + 1);
  }
  if (taken_out_.empty()) return false;
  return keep_until(whole_.size());
}

std::string_view ShortenedText::Content(std::string_view parsed) const {
  if (!is_short_ || !parsed.starts_with(kMark)) return parsed;
  std::size_t number = 0;
  std::from_chars(parsed.data() + 1, parsed.data() + parsed.size(), number);
  return taken_out_[number];
}

}  // namespace TolmLPCFrame
