// Any params of a message on its way to the host: copied or moved it is the same record, which survives the
// way back into params; and its number is that of the C library.

#include <cerrno>
#include <climits>
#include <tuple>
#include <utility>

#include "TolmBase/Encrypt.h"
#include "common/DataConvert.h"
#include "common/LenientInt.h"
#include "support/Input.h"
#include "support/SilentLog.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  return 0;
}

namespace {

using fuzz::Require;
using TolmLPCFrame::LPCData;
using TolmLPCFrame::MimePart;

auto All(const LPCData& data) {
  return std::tie(data.msg_type, data.dst_id, data.dst_type, data.src_id, data.url, data.method, data.msg_id,
                  data.push_msg_tag, data.http_headers, data.body, data.schema);
}

auto All(const MimePart& part) {
  return std::tie(part.content_type, part.disposition, part.name, part.file_name, part.encoding,
                  part.description, part.body_data);
}

bool AreSame(const LPCData& one, const LPCData& other) {
  const auto& left = one.http_mime;
  const auto& right = other.http_mime;
  return All(one) == All(other) &&
         std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](const MimePart& a, const MimePart& b) { return All(a) == All(b); });
}

/// One param a line: which one, and its value; documents are wrapped, unless they are to arrive broken.
tag_LPCCallBackData Record(fuzz::Input& input) {
  constexpr const char* kKeys[] = {"url",     "method",      "pushMsgTag", "schema",
                                   "dstType", "httpHeaders", "httpMime"};
  tag_LPCCallBackData record;
  const unsigned kind = input.Byte();
  record.is_reply = kind % 3 == 1;
  record.need_reply = kind % 3 == 2;
  record.msg_id = kind;
  record.src_id = "plugin";
  record.dst_id = "0";
  record.body = input.Line();
  while (!input.empty()) {
    const unsigned which = input.Byte();
    const std::string value = input.Line();
    const char* const key = kKeys[which % std::size(kKeys)];
    const bool wrapped = which % std::size(kKeys) >= 5 && which < 128;
    record.params[key] = wrapped ? Tolm::Base::Encrypt::Base64Encode(fuzz::WithLongRuns(value)) : value;
  }
  return record;
}

int ByLibrary(const std::string& text) {
  errno = 0;
  const long long number = std::strtoll(text.c_str(), nullptr, 10);
  return static_cast<int>(std::min<long long>(std::max<long long>(number, INT_MIN), INT_MAX));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  tag_LPCCallBackData record = Record(input);
  LPCData copied;
  LPCCallBackDataToLPCData(copied, record);
  if (const auto type = record.params.find("dstType"); type != record.params.end()) {
    Require(TolmLPCFrame::LenientInt(type->second) == ByLibrary(type->second),
            "a number is that of the C library");
    Require(copied.dst_type == ByLibrary(type->second), "and arrives");
  }
  tag_LPCResponseData response{record.src_id, record.params, record.body};
  LPCData answer;
  ResponseDataToLPCData(answer, std::as_const(response));
  LPCData moved_answer;
  ResponseDataToLPCData(moved_answer, std::move(response));
  Require(AreSame(answer, moved_answer), "an answer is the same, copied or moved");
  Require(answer.http_headers == copied.http_headers && answer.url == copied.url,
          "an answer is read as a message is");
  LPCData moved;
  LPCCallBackDataToLPCData(moved, std::move(record));
  Require(AreSame(copied, moved), "a message is the same, copied or moved");

  tag_LPCNotifyData sent;
  Require(LPCDataToNotifyData(sent, copied), "what arrived can be sent");
  tag_LPCCallBackData arrived;
  arrived.msg_id = copied.msg_id;
  arrived.src_id = copied.src_id;
  arrived.dst_id = sent.dst_id;
  arrived.params = sent.params;
  arrived.body = sent.body;
  arrived.is_reply = copied.msg_type == TolmLPCFrame::kMsgTypeReply;
  arrived.need_reply = copied.msg_type == TolmLPCFrame::kMsgTypeRequest;
  LPCData again;
  LPCCallBackDataToLPCData(again, arrived);
  Require(AreSame(again, copied), "what was sent arrives");
  return 0;
}
