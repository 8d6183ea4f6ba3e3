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

void Take(std::string& out, const std::string& text) {
  out = text;
}
void Take(std::string& out, std::string& text) {
  out = std::move(text);
}

std::string Decoded(const std::string& text) {
  return Tolm::Base::Encrypt::Base64Decode(text);
}
const std::string& Decoded(std::string& text) {
  Tolm::Base::Encrypt::Base64DecodeInPlace(text);
  return text;
}

/// Takes the texts out of `params`, and uses up the others, unless they are const.
template <typename Params>
void ReadParams(LPCData& out, Params& params) {
  const auto read = [&params](std::string& text, const char* key) {
    if (const auto found = params.find(key); found != params.end()) Take(text, found->second);
  };
  read(out.url, kKeyUrl);
  read(out.method, kKeyMethod);
  read(out.push_msg_tag, kKeyPushMsgTag);
  read(out.schema, kKeySchema);
  if (const auto headers = params.find(kKeyHttpHeaders); headers != params.end()) {
    ReadHeadersDocument(out.http_headers, Decoded(headers->second));
  }
  if (const auto parts = params.find(kKeyHttpMime); parts != params.end()) {
    ReadPartsDocument(out.http_mime, Decoded(parts->second));
  }
}

/// Takes the texts out of `data` unless it is const.
template <typename Inbound>
void ReadInbound(LPCData& out, Inbound& data) {
  Take(out.body, data.body);
  Take(out.dst_id, data.dst_id);
  Take(out.src_id, data.src_id);
  out.msg_id = data.msg_id;
  if (data.is_reply) {
    out.msg_type = kMsgTypeReply;
  } else if (data.need_reply) {
    out.msg_type = kMsgTypeRequest;
  } else {
    out.msg_type = kMsgTypeNotify;
  }
  if (const auto type = data.params.find(kKeyDstType); type != data.params.end()) {
    out.dst_type = LenientInt(type->second);
  }
  ReadParams(out, data.params);
}

template <typename Response>
void ReadAnswer(LPCData& out, Response& response) {
  Take(out.body, response.body);
  Take(out.src_id, response.src_id);
  out.msg_type = kMsgTypeReply;
  ReadParams(out, response.params);
}

}  // namespace

bool LPCDataToRequestData(tag_LPCRequestData& out, const LPCData& data) {
  out.body = data.body;
  return LPCDataToRequestDataWithoutBody(out, data);
}

bool LPCDataToReplyData(tag_LPCReplyData& out, const LPCData& data) {
  out.body = data.body;
  return LPCDataToReplyDataWithoutBody(out, data);
}

bool LPCDataToNotifyData(tag_LPCNotifyData& out, const LPCData& data) {
  out.body = data.body;
  return LPCDataToNotifyDataWithoutBody(out, data);
}

bool LPCDataToRequestDataWithoutBody(tag_LPCRequestData& out, const LPCData& data) {
  out.dst_id = data.dst_id;
  AddRouting(out.params, data);
  return AddDocuments(out.params, data);
}

bool LPCDataToReplyDataWithoutBody(tag_LPCReplyData& out, const LPCData& data) {
  out.msg_id = data.msg_id;
  out.dst_id = data.dst_id;
  AddRouting(out.params, data);
  return AddDocuments(out.params, data);
}

bool LPCDataToNotifyDataWithoutBody(tag_LPCNotifyData& out, const LPCData& data) {
  out.dst_id = data.dst_id;
  AddRouting(out.params, data);
  if (data.dst_type != -1) out.params.try_emplace(kKeyDstType, std::to_string(data.dst_type));
  return AddDocuments(out.params, data);
}

void LPCCallBackDataToLPCData(LPCData& out, const tag_LPCCallBackData& data) {
  if (!data.is_reply && data.need_reply) {
    TOLM_LOG(Tolm::Base::kLogLevelTrace, kTagTrace, "LPCCallBackDataToLPCData, need to reply");
  }
  ReadInbound(out, data);
}

void LPCCallBackDataToLPCData(LPCData& out, tag_LPCCallBackData&& data) {
  if (!data.is_reply && data.need_reply) {
    TOLM_LOG(Tolm::Base::kLogLevelTrace, kTagTrace, "LPCCallBackDataToLPCData, need to reply");
  }
  ReadInbound(out, data);
}

void ResponseDataToLPCData(LPCData& out, const tag_LPCResponseData& response) {
  ReadAnswer(out, response);
}

void ResponseDataToLPCData(LPCData& out, tag_LPCResponseData&& response) {
  ReadAnswer(out, response);
}

}  // namespace TolmLPCFrame
