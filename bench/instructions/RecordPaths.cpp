// The host's records as the transport's and back, and the documents within them.

#include "Inputs.h"
#include "Path.h"
#include "TolmBase/Encrypt.h"
#include "common/DataConvert.h"
#include "common/HttpDocuments.h"

namespace instructions {
namespace {

using TolmLPCFrame::LPCData;

constexpr std::size_t kTimes = 1000;

std::size_t RecordOut(bool with_documents) {
  const LPCData data = Record(with_documents);
  std::size_t params = 0;
  const std::size_t times = Count(kTimes, [&](std::size_t) {
    tag_LPCRequestData out;
    if (TolmLPCFrame::LPCDataToRequestData(out, data)) params = out.params.size();
  });
  Expect(params == (with_documents ? 5u : 3u), "the params of a record");
  return times;
}

std::size_t RecordIn(bool with_documents) {
  const LPCData data = Record(with_documents);
  tag_LPCRequestData out;
  Expect(TolmLPCFrame::LPCDataToRequestData(out, data), "a record to begin with");
  tag_LPCCallBackData inbound;
  inbound.need_reply = true;
  inbound.src_id = kPluginId;
  inbound.params = out.params;
  inbound.body = out.body;
  std::size_t headers = 0;
  const std::size_t times = Count(kTimes, [&](std::size_t) {
    LPCData back;
    TolmLPCFrame::LPCCallBackDataToLPCData(back, inbound);
    headers = back.http_headers.size();
  });
  Expect(headers == data.http_headers.size(), "the headers of a record");
  return times;
}

std::size_t PrintHeaders() {
  const auto headers = Record(true).http_headers;
  std::size_t size = 0;
  const std::size_t times =
      Count(kTimes, [&](std::size_t) { size = TolmLPCFrame::PrintHeadersDocument(headers).size(); });
  Expect(size > 0, "a document of headers");
  return times;
}

std::size_t ReadHeaders() {
  const auto headers = Record(true).http_headers;
  const std::string text = TolmLPCFrame::PrintHeadersDocument(headers);
  bool same = false;
  const std::size_t times = Count(kTimes, [&](std::size_t) {
    TolmLPCFrame::HttpHeaders back;
    TolmLPCFrame::ReadHeadersDocument(back, text);
    same = back.size() == headers.size();
  });
  Expect(same, "the headers of a document");
  return times;
}

std::size_t PrintParts() {
  const auto parts = Record(true).http_mime;
  std::size_t size = 0;
  const std::size_t times =
      Count(kTimes, [&](std::size_t) { size = TolmLPCFrame::PrintPartsDocument(parts).size(); });
  Expect(size > 0, "a document of parts");
  return times;
}

std::size_t ReadParts() {
  const auto parts = Record(true).http_mime;
  const std::string text = TolmLPCFrame::PrintPartsDocument(parts);
  bool same = false;
  const std::size_t times = Count(kTimes, [&](std::size_t) {
    TolmLPCFrame::HttpParts back;
    TolmLPCFrame::ReadPartsDocument(back, text);
    same = back.size() == parts.size() && back.back().body_data.size() == parts.back().body_data.size();
  });
  Expect(same, "the parts of a document");
  return times;
}

std::string Bytes() {
  std::string bytes(1024, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
  return bytes;
}

std::size_t ToBase64() {
  const std::string bytes = Bytes();
  std::size_t size = 0;
  const std::size_t times =
      Count(kTimes, [&](std::size_t) { size = Tolm::Base::Encrypt::Base64Encode(bytes).size(); });
  Expect(size == 1368, "a Base64 text's size");
  return times;
}

std::size_t FromBase64() {
  const std::string text = Tolm::Base::Encrypt::Base64Encode(Bytes());
  std::size_t size = 0;
  const std::size_t times =
      Count(kTimes, [&](std::size_t) { size = Tolm::Base::Encrypt::Base64Decode(text).size(); });
  Expect(size == 1024, "the size behind a Base64 text");
  return times;
}

}  // namespace

std::vector<Path> RecordPaths() {
  return {
      {"record-out", [] { return RecordOut(false); }},
      {"record-out-documents", [] { return RecordOut(true); }},
      {"record-in", [] { return RecordIn(false); }},
      {"record-in-documents", [] { return RecordIn(true); }},
      {"headers-print", PrintHeaders},
      {"headers-read", ReadHeaders},
      {"parts-print", PrintParts},
      {"parts-read", ReadParts},
      {"base64-encode", ToBase64},
      {"base64-decode", FromBase64},
  };
}

}  // namespace instructions
