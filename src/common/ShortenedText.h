#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace TolmLPCFrame {

/// A JSON text for a parser, without its long strings: each is taken out, and a mark of a few bytes is put in
/// its place. A parser goes through a text byte by byte and copies each string twice; a part's content would
/// be most of that. Only strings without escapes are taken out, so their contents are what a parser would
/// give.
class ShortenedText {
 public:
  /// `text` ends with a NUL and must outlive this and everything that it gives.
  explicit ShortenedText(const char* text);

  /// What is to be parsed; it ends with a NUL.
  const char* text() const { return is_short_ ? shortened_.c_str() : whole_.data(); }

  /// The content of a string whose value is `parsed` in `text()`.
  std::string_view Content(std::string_view parsed) const;

 private:
  bool Shorten();

  std::string_view whole_;
  std::string shortened_;
  std::vector<std::string_view> taken_out_;
  bool is_short_;
};

}  // namespace TolmLPCFrame
