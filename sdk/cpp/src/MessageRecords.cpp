#include "MessageRecords.h"

#include <utility>

#include "TolmBase/Encrypt.h"
#include "common/Constants.h"
#include "common/HttpDocuments.h"
#include "common/UrlTemplate.h"

namespace TolmPlugin {
namespace {

std::string Value(const LpcParams& params, const char* key) {
  const auto found = params.find(key);
  return found == params.end() ? std::string() : found->second;
}

}  // namespace

LpcParams ToParams(const Message& message) {
  using Tolm::Base::Encrypt::Base64Encode;
  LpcParams params;
  const auto add = [&params](const char* key, std::string value) {
    if (!value.empty()) params.emplace(key, std::move(value));
  };
  add(TolmLPCFrame::kKeyUrl, message.url);
  add(TolmLPCFrame::kKeyMethod, message.method);
  add(TolmLPCFrame::kKeySchema, message.schema);
  if (!message.headers.empty()) {
    add(TolmLPCFrame::kKeyHttpHeaders, Base64Encode(TolmLPCFrame::PrintHeadersDocument(message.headers)));
  }
  if (!message.parts.empty()) {
    add(TolmLPCFrame::kKeyHttpMime, Base64Encode(TolmLPCFrame::PrintPartsDocument(message.parts)));
  }
  return params;
}

Message ToMessage(const LpcParams& params, std::string&& body) {
  using Tolm::Base::Encrypt::Base64Decode;
  Message message;
  message.url = Value(params, TolmLPCFrame::kKeyUrl);
  message.method = Value(params, TolmLPCFrame::kKeyMethod);
  message.schema = Value(params, TolmLPCFrame::kKeySchema);
  if (const auto headers = params.find(TolmLPCFrame::kKeyHttpHeaders); headers != params.end()) {
    TolmLPCFrame::ReadHeadersDocument(message.headers, Base64Decode(headers->second));
  }
  if (const auto parts = params.find(TolmLPCFrame::kKeyHttpMime); parts != params.end()) {
    TolmLPCFrame::ReadPartsDocument(message.parts, Base64Decode(parts->second));
  }
  message.body = std::move(body);
  return message;
}

Request ToRequest(tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info) {
  Request request;
  request.message = ToMessage(data.params, std::move(data.body));
  const std::string& url = request.message.url;
  if (const std::size_t mark = url.find('?'); mark != std::string::npos) {
    request.query = url.substr(mark + 1);
    request.message.url.resize(mark);
  }
  request.sender = std::move(data.src_id);
  request.id = data.msg_id;
  request.wants_answer = data.need_reply;
  if (info.time_out_ms > 0) {
    request.deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(info.time_out_ms);
  }
  return request;
}

}  // namespace TolmPlugin
