#include "SystemMessage.h"

#include "WideText.h"

namespace os {

std::string SystemMessage(const std::string& doing, DWORD error) {
  // Not from the standard library, which asks for the text in the machine's code page.
  wchar_t text[512];
  DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
                                  0, text, 512, nullptr);
  // It comes as a line of its own, with a full stop.
  while (length > 0 && (text[length - 1] <= L' ' || text[length - 1] == L'.')) --length;
  const std::string told = length > 0 ? ToUtf8(std::wstring(text, length)) : "error " + std::to_string(error);
  return doing + ": " + told;
}

}  // namespace os
