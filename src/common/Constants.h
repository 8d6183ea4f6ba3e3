#pragma once

// Texts that more than one source file uses, each written once.

namespace TolmLPCFrame {

// Keys of a transport record's params, and of the documents inside them.
inline constexpr char kKeyUrl[] = "url";
inline constexpr char kKeyMethod[] = "method";
inline constexpr char kKeyPushMsgTag[] = "pushMsgTag";
inline constexpr char kKeySchema[] = "schema";
inline constexpr char kKeyDstType[] = "dstType";
inline constexpr char kKeyHttpHeaders[] = "httpHeaders";
inline constexpr char kKeyHttpMime[] = "httpMime";
/// The array inside the multipart document; spelled so on both sides of the wire.
inline constexpr char kKeyHttpMine[] = "httpMine";
inline constexpr char kKeyKey[] = "key";
inline constexpr char kKeyValue[] = "value";
/// The query parameter that goes with a url to the plugin registry.
inline constexpr char kKeyMT[] = "MT";

// Members and method names of the messages that the frame and the transport make themselves.
inline constexpr char kKeyErrorCode[] = "errorCode";
inline constexpr char kKeyErrorModule[] = "errorModule";
inline constexpr char kKeyComponentId[] = "componentID";
inline constexpr char kKeyStatus[] = "status";
inline constexpr char kKeyReason[] = "reason";
inline constexpr char kMethodServerListenFailed[] = "serverListenFailed";
inline constexpr char kMethodConnectionStatusChanged[] = "connectionStatusChanged";
inline constexpr char kMethodCloseConnection[] = "closeConnection";

// Messages to the guard whose replies carry the same name.
inline constexpr char kGuardNotifyLpcFrameInit[] = "NotifyLPCFrameInit";
inline constexpr char kGuardSetProcessGuardStateList[] = "SetProcessGuardStateList";

/// The frame type whose frame starts and ends the agent.
inline constexpr int kFrameTypeWithAgent = 1;

/// Beside the host's executable.
inline constexpr char kConfigFileName[] = "LpcFrame.xml";

/// The host side's own id; a url that maps to it is never forwarded to a plugin.
inline constexpr char kMainCompnentID[] = "0";

// Tags of log lines.
inline constexpr char kTagTrace[] = "LPCFrameTrace";
inline constexpr char kTagInfo[] = "LPCFrameInfo";
inline constexpr char kTagError[] = "LPCFrameError";
inline constexpr char kTagPluginFrame[] = "platform.PluginFrame";
inline constexpr char kTagServiceManage[] = "platform.ServiceManage";
inline constexpr char kTagMessageBus[] = "platform.MessageBusModule";
inline constexpr char kTagWebSocket[] = "WebSocket";

}  // namespace TolmLPCFrame
