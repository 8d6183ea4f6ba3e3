#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace TolmLPCFrame {

/// Appends to `out` the pattern form of `url`, under which urls are registered: each segment behind a
/// "/", empty ones left out, with "<GUID>" for a segment of exactly 32 bytes and "<ID>" for one that
/// reads as a signed 64-bit decimal integer other than -1. `out` is expected empty.
void NormalizeUrlPattern(std::string& out, std::string_view url);

/// `url` without its query: what stands before the first "?".
std::string CutQuery(const std::string& url);

/// A copy of `url` for logs, in which the 32 hex digits behind each "SID=" (any case) are masked.
std::string MaskSidInUrl(const std::string& url);

/// Room for the pattern of one url: memory is asked for only when the url is a long one.
class PatternRoom {
 public:
  PatternRoom() = default;
  PatternRoom(const PatternRoom&) = delete;
  PatternRoom& operator=(const PatternRoom&) = delete;

  /// As many bytes as the pattern of a url of `url_bytes` can have. Called once.
  char* ForUrlOf(std::size_t url_bytes);

 private:
  char near_[640];  // left as it is: filling it would take longer than making a pattern
  std::unique_ptr<char[]> far_;
};

/// Under which key a registered url is looked up: `url` without its query, as pattern, in lower case.
class UrlLookupKey {
 public:
  explicit UrlLookupKey(std::string_view url);

  /// Valid as long as this key.
  std::string_view text() const { return text_; }

 private:
  PatternRoom room_;
  std::string_view text_;
};

}  // namespace TolmLPCFrame
