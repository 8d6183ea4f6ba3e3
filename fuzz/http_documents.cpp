// Any text as a headers or multipart document: what was read can be printed and read again unchanged.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "TolmBase/Encrypt.h"
#include "common/HttpDocuments.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  TolmLPCFrame::HttpHeaders headers;
  TolmLPCFrame::ReadHeadersDocument(headers, text);
  TolmLPCFrame::HttpHeaders again;
  TolmLPCFrame::ReadHeadersDocument(again, TolmLPCFrame::PrintHeadersDocument(headers));
  if (again != headers) std::abort();

  TolmLPCFrame::HttpParts parts;
  TolmLPCFrame::ReadPartsDocument(parts, text);
  TolmLPCFrame::HttpParts parts_again;
  TolmLPCFrame::ReadPartsDocument(parts_again, TolmLPCFrame::PrintPartsDocument(parts));
  if (parts_again.size() != parts.size()) std::abort();
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (parts_again[i].name != parts[i].name || parts_again[i].body_data != parts[i].body_data) std::abort();
  }

  namespace Encrypt = Tolm::Base::Encrypt;
  if (Encrypt::Base64Decode(Encrypt::Base64Encode(text)) != text) std::abort();
  Encrypt::Base64Decode(text);
  return 0;
}
