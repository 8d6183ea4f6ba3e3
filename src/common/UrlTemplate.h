#pragma once

#include <string>

namespace TolmLPCFrame {

/// Appends to `out` the pattern form of `url`, under which urls are registered: each segment behind a
/// "/", empty ones left out, with "<GUID>" for a segment of exactly 32 bytes and "<ID>" for one that
/// reads as a signed 64-bit decimal integer other than -1. `out` is expected empty.
void NormalizeUrlPattern(std::string& out, const std::string& url);

/// `url` without its query: what stands before the first "?".
std::string CutQuery(const std::string& url);

/// Under which key a registered url is looked up: `url` without its query, as pattern, in lower case.
std::string UrlLookupKey(const std::string& url);

/// A copy of `url` for logs, in which the 32 hex digits behind each "SID=" (any case) are masked.
std::string MaskSidInUrl(const std::string& url);

}  // namespace TolmLPCFrame
