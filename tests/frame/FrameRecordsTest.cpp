#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "TolmLPCFrame.h"
#include "TolmLPCServer/LpcRecords.h"
#include "common/Constants.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::IsEmpty;

TEST(FrameRecords, ADefaultMessageIsARequestWithNothingSet) {
  const LPCData data;
  EXPECT_EQ(data.msg_type, 0);
  EXPECT_EQ(data.dst_type, -1);
  EXPECT_EQ(data.msg_id, 0u);
  EXPECT_THAT(data.dst_id, IsEmpty());
  EXPECT_THAT(data.src_id, IsEmpty());
  EXPECT_THAT(data.url, IsEmpty());
  EXPECT_THAT(data.method, IsEmpty());
  EXPECT_THAT(data.push_msg_tag, IsEmpty());
  EXPECT_THAT(data.http_headers, IsEmpty());
  EXPECT_THAT(data.http_mime, IsEmpty());
  EXPECT_THAT(data.body, IsEmpty());
  EXPECT_THAT(data.schema, IsEmpty());
}

TEST(FrameRecords, AMessageHasItsFieldsInTheAgreedOrder) {
  LPCData data;
  auto& [msg_type, dst_id, dst_type, src_id, url, method, msg_id, tag, headers, mime, body, schema] = data;
  EXPECT_EQ(&msg_type, &data.msg_type);
  EXPECT_EQ(&dst_id, &data.dst_id);
  EXPECT_EQ(&dst_type, &data.dst_type);
  EXPECT_EQ(&src_id, &data.src_id);
  EXPECT_EQ(&url, &data.url);
  EXPECT_EQ(&method, &data.method);
  EXPECT_EQ(&msg_id, &data.msg_id);
  EXPECT_EQ(&tag, &data.push_msg_tag);
  EXPECT_EQ(&headers, &data.http_headers);
  EXPECT_EQ(&mime, &data.http_mime);
  EXPECT_EQ(&body, &data.body);
  EXPECT_EQ(&schema, &data.schema);
  static_assert(std::is_same_v<decltype(data.msg_type), std::int32_t>);
  static_assert(std::is_same_v<decltype(data.dst_type), std::int32_t>);
  static_assert(std::is_same_v<decltype(data.msg_id), std::uint64_t>);
  static_assert(std::is_same_v<decltype(data.http_headers), std::map<std::string, std::string>>);
  static_assert(std::is_same_v<decltype(data.http_mime), std::vector<MimePart>>);
}

TEST(FrameRecords, APartHasItsFieldsInTheAgreedOrder) {
  MimePart part;
  auto& [content_type, disposition, name, file_name, encoding, description, body_data] = part;
  EXPECT_EQ(&content_type, &part.content_type);
  EXPECT_EQ(&disposition, &part.disposition);
  EXPECT_EQ(&name, &part.name);
  EXPECT_EQ(&file_name, &part.file_name);
  EXPECT_EQ(&encoding, &part.encoding);
  EXPECT_EQ(&description, &part.description);
  EXPECT_EQ(&body_data, &part.body_data);
}

TEST(FrameRecords, ACallbackRecordHasTheKindAndThenADefaultMessage) {
  FrameCallBackData record;
  auto& [kind, data] = record;
  EXPECT_EQ(&kind, &record.LpcMsgType);
  EXPECT_EQ(&data, &record.lpc_data);
  EXPECT_EQ(record.lpc_data.dst_type, -1);
  static_assert(std::is_same_v<decltype(record.LpcMsgType), std::int32_t>);
}

TEST(FrameRecords, APlatformRecordHasItsFieldsInTheAgreedOrder) {
  PlatformInfo info;
  auto& [plugin_map, path, type, edition] = info;
  EXPECT_EQ(&plugin_map, &info.plugin_map);
  EXPECT_EQ(&path, &info.frame_full_path);
  EXPECT_EQ(&type, &info.frame_type);
  EXPECT_EQ(&edition, &info.str_edition_config);
  static_assert(std::is_same_v<decltype(info.plugin_map), std::map<std::string, PluginInfo>>);
  static_assert(std::is_same_v<decltype(info.frame_type), std::int32_t>);
  static_assert(std::is_same_v<decltype(info.str_edition_config), std::string>);
}

TEST(FrameRecords, ADefaultPluginIsDisconnectedAndVerified) {
  PluginInfo plugin;
  EXPECT_EQ(plugin.connect_state, 0);
  EXPECT_FALSE(plugin.not_verified);
  // The id, four texts, a list of texts, the state and the flag: nothing else and in this order.
  auto& [id, text1, text2, text3, text4, texts, state, not_verified] = plugin;
  EXPECT_EQ(&id, &plugin.plugin_id);
  EXPECT_EQ(&texts, &plugin.plugin_dependencies);
  EXPECT_EQ(&state, &plugin.connect_state);
  EXPECT_EQ(&not_verified, &plugin.not_verified);
  static_assert(std::is_same_v<std::remove_reference_t<decltype(text1)>, std::string>);
  static_assert(std::is_same_v<std::remove_reference_t<decltype(text2)>, std::string>);
  static_assert(std::is_same_v<std::remove_reference_t<decltype(text3)>, std::string>);
  static_assert(std::is_same_v<std::remove_reference_t<decltype(text4)>, std::string>);
  static_assert(std::is_same_v<decltype(plugin.plugin_dependencies), std::vector<std::string>>);
  static_assert(sizeof(plugin.not_verified) == 1);
}

TEST(FrameRecords, TheTransportsRecordsHaveTheirFieldsInTheAgreedOrder) {
  tag_LPCRequestData request;
  auto& [request_dst, request_params, request_body] = request;
  EXPECT_EQ(&request_dst, &request.dst_id);
  EXPECT_EQ(&request_params, &request.params);
  EXPECT_EQ(&request_body, &request.body);

  tag_LPCResponseData response;
  auto& [response_src, response_params, response_body] = response;
  EXPECT_EQ(&response_src, &response.src_id);
  EXPECT_EQ(&response_params, &response.params);
  EXPECT_EQ(&response_body, &response.body);

  tag_LPCReplyData reply;
  auto& [reply_id, reply_dst, reply_params, reply_body] = reply;
  EXPECT_EQ(&reply_id, &reply.msg_id);
  EXPECT_EQ(&reply_dst, &reply.dst_id);
  EXPECT_EQ(&reply_params, &reply.params);
  EXPECT_EQ(&reply_body, &reply.body);

  tag_LPCNotifyData notify;
  auto& [notify_dst, notify_params, notify_body] = notify;
  EXPECT_EQ(&notify_dst, &notify.dst_id);
  EXPECT_EQ(&notify_params, &notify.params);
  EXPECT_EQ(&notify_body, &notify.body);

  tag_LPCCallBackData inbound;
  auto& [id, is_reply, need_reply, src, dst, params, body, lease] = inbound;
  EXPECT_EQ(&id, &inbound.msg_id);
  EXPECT_EQ(&is_reply, &inbound.is_reply);
  EXPECT_EQ(&need_reply, &inbound.need_reply);
  EXPECT_EQ(&src, &inbound.src_id);
  EXPECT_EQ(&dst, &inbound.dst_id);
  EXPECT_EQ(&params, &inbound.params);
  EXPECT_EQ(&body, &inbound.body);
  EXPECT_EQ(&lease, &inbound.lease);
}

TEST(FrameRecords, TheNumbersThatCrossTheInterfaceAreTheAgreedOnes) {
  EXPECT_EQ(kMsgTypeRequest, 0);
  EXPECT_EQ(kMsgTypeReply, 1);
  EXPECT_EQ(kMsgTypeNotify, 2);
  EXPECT_EQ(kLpcMsgLpcData, 0);
  EXPECT_EQ(kLpcMsgPush, 1);
  EXPECT_EQ(kLpcMsgPluginConnected, 2);
  EXPECT_EQ(kLpcMsgPluginDisconnected, 3);
  EXPECT_EQ(kLpcMsgPluginInited, 4);
  EXPECT_EQ(kLpcMsgPluginUninited, 5);
  EXPECT_EQ(kFrameOk, 0);
  EXPECT_EQ(kFrameFailed, -8);
  EXPECT_EQ(kFrameAlreadyInitialised, -9);
}

TEST(FrameRecords, TheSharedTextsAreTheAgreedOnesMisspellingIncluded) {
  EXPECT_STREQ(kKeyUrl, "url");
  EXPECT_STREQ(kKeyMethod, "method");
  EXPECT_STREQ(kKeyPushMsgTag, "pushMsgTag");
  EXPECT_STREQ(kKeySchema, "schema");
  EXPECT_STREQ(kKeyDstType, "dstType");
  EXPECT_STREQ(kKeyHttpHeaders, "httpHeaders");
  EXPECT_STREQ(kKeyHttpMime, "httpMime");
  EXPECT_STREQ(kKeyHttpMine, "httpMine");
  EXPECT_STREQ(kKeyKey, "key");
  EXPECT_STREQ(kKeyValue, "value");
  EXPECT_STREQ(kKeyMT, "MT");
  EXPECT_STREQ(kKeyErrorCode, "errorCode");
  EXPECT_STREQ(kKeyErrorModule, "errorModule");
  EXPECT_STREQ(kKeyComponentId, "componentID");
  EXPECT_STREQ(kKeyStatus, "status");
  EXPECT_STREQ(kKeyReason, "reason");
  EXPECT_STREQ(kMethodServerListenFailed, "serverListenFailed");
  EXPECT_STREQ(kMethodConnectionStatusChanged, "connectionStatusChanged");
  EXPECT_STREQ(kMethodCloseConnection, "closeConnection");
  EXPECT_STREQ(kMainCompnentID, "0");
}

// The forms of the exported operations; compiling is the check.
static_assert(std::is_same_v<LpcMsgCallBack, bool (*)(const FrameCallBackData&, void*)>);
static_assert(std::is_same_v<decltype(&TolmLPCFrameInit), int (*)(const std::string&, const PlatformInfo&)>);
static_assert(std::is_same_v<decltype(&TolmLPCFrameUnInit), int (*)()>);
static_assert(std::is_same_v<decltype(&RegisterLpcMsgCallback), void (*)(LpcMsgCallBack, void*)>);
static_assert(std::is_same_v<decltype(&RegisterUrl), void (*)(const std::vector<std::string>&)>);
static_assert(std::is_same_v<decltype(&IsPluginURL), bool (*)(int&, const std::string&)>);
static_assert(std::is_same_v<decltype(&GetHttpHeaders), void (*)(std::vector<std::string>&)>);
static_assert(std::is_same_v<decltype(&TolmLPCFrameNotifyStartPlugins), void (*)(const std::string&)>);
static_assert(std::is_same_v<decltype(&TolmLPCFrameStartPlugin), void (*)(const std::string&)>);
static_assert(std::is_same_v<decltype(&GetLPCLastError), int (*)()>);
static_assert(std::is_same_v<decltype(&SubscribeNotify), void (*)(LPCData&)>);
static_assert(std::is_same_v<decltype(&SyncSend), bool (*)(LPCData&, const LPCData&, int)>);
static_assert(std::is_same_v<decltype(&AsyncSend), bool (*)(std::uint64_t&, const LPCData&)>);

}  // namespace
}  // namespace tolm::test
