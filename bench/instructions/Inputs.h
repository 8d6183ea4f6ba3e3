#pragma once

// What goes through the paths. Another input is another count: whoever changes one of these updates all.

#include <cstdint>
#include <string>

#include "TolmLPCFrame.h"
#include "TolmLPCServer/LpcRecords.h"
#include "wire/Message.h"

namespace instructions {

inline constexpr char kPluginId[] = "server";
inline constexpr std::size_t kUrls = 1000;  // that are registered

/// 64 bytes.
inline const std::string& Body() {
  static const std::string body(64, 'x');
  return body;
}

/// Of the registered urls every second one is a template.
inline std::string PlainUrl(std::size_t number) {
  return "/api/v1/service-" + std::to_string(number) + "/status";
}
inline std::string TemplateUrl(std::size_t number, const std::string& item) {
  return "/api/v1/service-" + std::to_string(number) + "/items/" + item;
}

/// What a call carries: url, method, schema and, in `with_documents`, headers and parts.
inline TolmLPCFrame::LPCData Record(bool with_documents) {
  TolmLPCFrame::LPCData data;
  data.dst_id = kPluginId;
  data.url = TemplateUrl(501, "4711");
  data.method = "POST";
  data.schema = "https";
  data.body = Body();
  if (with_documents) {
    data.http_headers = {{"Accept", "application/json"},
                         {"Authorization", "Bearer 0123456789abcdef"},
                         {"Content-Type", "application/octet-stream"}};
    data.http_mime = {{"text/plain", "form-data", "note", "", "8bit", "a note", "hello"},
                      {"application/octet-stream", "form-data", "data", "data.bin", "binary", "",
                       std::string(256, '\x81')}};
  }
  return data;
}

/// Three params, as many as a usual call has.
inline const LpcParams& ThreeParams() {
  static const LpcParams params = {
      {"method", "POST"}, {"schema", "https"}, {"url", TemplateUrl(501, "4711")}};
  return params;
}

inline const LpcParams& NoParams() {
  static const LpcParams params;
  return params;
}

inline lpc::wire::OutgoingMessage WireMessage(lpc::wire::FrameType type, std::uint64_t id,
                                              const LpcParams& params, const std::string& body) {
  lpc::wire::OutgoingMessage message;
  message.type = type;
  message.id = id;
  message.dst_id = "0";
  message.src_id = kPluginId;
  message.params = &params;
  message.body = {body};
  return message;
}

/// The bytes of a small message.
inline std::string FrameOf(lpc::wire::FrameType type, std::uint64_t id, const LpcParams& params,
                           const std::string& body) {
  const auto message = WireMessage(type, id, params, body);
  const std::string payload = lpc::wire::EncodeHead(message, 0) + body;
  lpc::wire::FrameHeader header;
  header.payload_size = static_cast<std::uint32_t>(payload.size());
  header.type = type;
  header.message_id = id;
  const lpc::wire::HeaderBytes bytes = lpc::wire::EncodeHeader(header);
  return std::string(bytes.data(), bytes.size()) + payload;
}

}  // namespace instructions
