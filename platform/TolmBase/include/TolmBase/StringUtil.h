#pragma once

#include <string>
#include <string_view>

#include "TolmBase/PrintfLike.h"

namespace Tolm::Base::StringUtil {

/// Text in the system's local code page as UTF-8. Where that code page is UTF-8: a copy.
std::string Local2UTF8(const std::string& local);

/// ASCII letters in lower case; every other byte, UTF-8 sequences included, as it is.
std::string LowerCase(const std::string& text);

/// `text` with every occurrence of `from` replaced by `to`, left to right, replacements not searched
/// again. An empty `from` changes nothing.
std::string StringReplace(const std::string& text, const std::string& from, const std::string& to);

/// printf into a string of whatever length it needs.
TOLM_PRINTF_LIKE(1, 2) std::string str_fmt(const char* format, ...);

/// The mask mode that hides a session id.
inline constexpr int kMaskModeSessionId = 21;
/// The code page number that means UTF-8.
inline constexpr unsigned kCodePageUtf8 = 65001;

/// A secret as a log may show it: mode 21 gives one asterisk for each byte. Unknown modes hide in the
/// same way. Returns `text` unchanged when masking is switched off or `text` is empty.
std::string MaskForLog(const std::string& text, int mode, unsigned code_page);

/// A text with urls in it as a log may show it: the 32 hex digits behind each "SID=" (any case) are masked.
std::string MaskSessionIds(std::string_view text);

/// Masking in logs, process-wide; switched on at first.
void SetLogMasking(bool on);

}  // namespace Tolm::Base::StringUtil
