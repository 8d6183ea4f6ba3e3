#include "common/DataConvert.h"

#include <string>
#include <utility>

#include "TolmBase/Encrypt.h"
#include "TolmBase/LogLine.h"
#include "common/Constants.h"
#include "common/HttpDocuments.h"
#include "common/LenientInt.h"

namespace TolmLPCFrame {

namespace {

void AddText(LpcParams& params, const char* key, const std::string& text) {
  if (!text.empty()) params.try_emplace(key, text);
}

void AddRouting(LpcParams& params, const LPCData& data) {
  AddText(params, kKeyUrl, data.url);
  AddText(params, kKeyMethod, data.method);
  AddText(params, kKeyPushMsgTag, data.push_msg_tag);
  AddText(params, kKeySchema, data.schema);
}

/// False for an empty document: there was not enough memory to print it.
bool AddDocument(LpcParams& params, const char* key, const std::string& document) {
  if (document.empty()) return false;
  params.try_emplace(key, Tolm::Base::Encrypt::Base64Encode(document));
  return true;
}

bool AddDocuments(LpcParams& params, const LPCData& data) {
  if (!data.http_headers.empty() &&
      !AddDocument(params, kKeyHttpHeaders, PrintHeadersDocument(data.http_headers))) {
    return false;
  }
  return data.http_mime.empty() || AddDocument(params, kKeyHttpMime, PrintPartsDocument(data.http_mime));
}

void ReadText(std::string& out, const LpcParams& params, const char* key) {
  if (const auto found = params.find(key); found != params.end()) out = found->second;
}

void ReadParams(LPCData& out, const LpcParams& params) {
  ReadText(out.url, params, kKeyUrl);
  ReadText(out.method, params, kKeyMethod);
  ReadText(out.push_msg_tag, params, kKeyPushMsgTag);
  ReadText(out.schema, params, kKeySchema);
  if (const auto headers = params.find(kKeyHttpHeaders); headers != params.end()) {
    ReadHeadersDocument(out.http_headers, Tolm::Base::Encrypt::Base64Decode(headers->second));
  }
  if (const auto parts = params.find(kKeyHttpMime); parts != params.end()) {
    ReadPartsDocument(out.http_mime, Tolm::Base::Encrypt::Base64Decode(parts->second));
  }
}

void ReadAnswer(LPCData& out, const tag_LPCResponseData& response) {
  out.src_id = response.src_id;
  out.msg_type = kMsgTypeReply;
  ReadParams(out, response.params);
}

}  // namespace

bool LPCDataToRequestData(tag_LPCRequestData& out, const LPCData& data) {
  out.dst_id = data.dst_id;
  out.body = data.body;
  AddRouting(out.params, data);
  return AddDocuments(out.params, data);
}

bool LPCDataToReplyData(tag_LPCReplyData& out, const LPCData& data) {
  out.msg_id = data.msg_id;
  out.dst_id = data.dst_id;
  out.body = data.body;
  AddRouting(out.params, data);
  return AddDocuments(out.params, data);
}

bool LPCDataToNotifyData(tag_LPCNotifyData& out, const LPCData& data) {
  out.dst_id = data.dst_id;
  out.body = data.body;
  AddRouting(out.params, data);
  if (data.dst_type != -1) out.params.try_emplace(kKeyDstType, std::to_string(data.dst_type));
  return AddDocuments(out.params, data);
}

void LPCCallBackDataToLPCData(LPCData& out, const tag_LPCCallBackData& data) {
  out.body = data.body;
  out.dst_id = data.dst_id;
  out.src_id = data.src_id;
  out.msg_id = data.msg_id;
  if (data.is_reply) {
    out.msg_type = kMsgTypeReply;
  } else if (data.need_reply) {
    TOLM_LOG(Tolm::Base::kLogLevelTrace, kTagTrace, "LPCCallBackDataToLPCData, need to reply");
    out.msg_type = kMsgTypeRequest;
  } else {
    out.msg_type = kMsgTypeNotify;
  }
  if (const auto type = data.params.find(kKeyDstType); type != data.params.end()) {
    out.dst_type = LenientInt(type->second);
  }
  ReadParams(out, data.params);
}

void LPCCallBackDataToLPCData(LPCData& out, tag_LPCCallBackData&& data) {
  std::string body = std::exchange(data.body, {});
  LPCCallBackDataToLPCData(out, std::as_const(data));
  out.body = std::move(body);
}

void ResponseDataToLPCData(LPCData& out, const tag_LPCResponseData& response) {
  out.body = response.body;
  ReadAnswer(out, response);
}

void ResponseDataToLPCData(LPCData& out, tag_LPCResponseData&& response) {
  out.body = std::move(response.body);
  ReadAnswer(out, response);
}

}  // namespace TolmLPCFrame
