#pragma once

// TolmLPCFrame: runs plugin processes beside a host application and routes messages between them.
//
//   host code ──SyncSend, AsyncSend──► frame ──► plugin        (a request, a reply, a notification)
//   host code ◄──the one callback───── frame ◄── plugin        (messages, pushes, plugin events)
//                                      frame: plugin ──► plugin (a URL that another plugin serves)
//
// Words used throughout:
//   endpoint      the name under which the frame listens for plugins on this machine
//   plugin id     the name of one plugin; compared exactly. The host's own id is "0".
//   url           an HTTP-like path, by which plugins are reached; "?" and behind it is a query
//   push          a message without url and with a tag, from a plugin to the host
//   message id    the transport's number of a message; a reply carries the id of its request
//
// Conventions, unless a declaration says otherwise: every text is a byte string in UTF-8; records are
// plain values that are copied freely; times are milliseconds; every function may be called from any
// thread at any time, never throws, and reports failure by its result. After a failure
// GetLPCLastError tells the transport's reason.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#if defined(_WIN32)
#if defined(TOLM_LPCFRAME_BUILD)
#define TOLM_LPCFRAME_API __declspec(dllexport)
#else
#define TOLM_LPCFRAME_API __declspec(dllimport)
#endif
#else
#define TOLM_LPCFRAME_API __attribute__((visibility("default")))
#endif

namespace TolmLPCFrame {

/// Values of LPCData::msg_type.
inline constexpr std::int32_t kMsgTypeRequest = 0;
inline constexpr std::int32_t kMsgTypeReply = 1;
inline constexpr std::int32_t kMsgTypeNotify = 2;

/// One part of a multipart message.
struct MimePart {
  std::string content_type;
  std::string disposition;
  std::string name;
  std::string file_name;
  std::string encoding;
  std::string description;
  std::string body_data;  ///< the part's content as it is; any bytes
};

/// One message, in either direction.
struct LPCData {
  std::int32_t msg_type = kMsgTypeRequest;
  std::string dst_id;          ///< destination; empty: the frame finds the plugin that serves `url`
  std::int32_t dst_type = -1;  ///< -1: unset. Sent with notifications only.
  std::string src_id;          ///< sender; set by the frame on everything that the host receives
  std::string url;
  std::string method;
  std::uint64_t msg_id = 0;  ///< for a reply: the id of the request that it answers
  std::string push_msg_tag;
  std::map<std::string, std::string> http_headers;
  std::vector<MimePart> http_mime;
  std::string body;  ///< any bytes, usually JSON text
  std::string schema;
};

/// Values of FrameCallBackData::LpcMsgType.
inline constexpr std::int32_t kLpcMsgLpcData = 0;             ///< a message for the host
inline constexpr std::int32_t kLpcMsgPush = 1;                ///< a push; lpc_data.push_msg_tag names it
inline constexpr std::int32_t kLpcMsgPluginConnected = 2;     ///< lpc_data.src_id: which plugin
inline constexpr std::int32_t kLpcMsgPluginDisconnected = 3;  ///< lpc_data.src_id: which plugin
inline constexpr std::int32_t kLpcMsgPluginInited = 4;        ///< lpc_data.src_id: which plugin
inline constexpr std::int32_t kLpcMsgPluginUninited = 5;      ///< lpc_data.src_id: which plugin

/// What the host's callback receives.
struct FrameCallBackData {
  /// Leaves LpcMsgType unset: whoever makes a record says what it is.
  FrameCallBackData() {}  // NOLINT(modernize-use-equals-default)

  std::int32_t LpcMsgType;
  LPCData lpc_data;
};

/// One plugin as the host describes it. The frame keeps a copy; it reads `plugin_id` and
/// `not_verified` and keeps `connect_state`.
struct PluginInfo {
  std::string plugin_id;
  std::string plugin_name;
  std::string plugin_version;
  std::string plugin_path;
  std::string plugin_description;
  std::vector<std::string> plugin_dependencies;
  std::int32_t connect_state = 0;  ///< 1 connected, 0 not; kept by the frame in its own copy
  bool not_verified = false;       ///< true keeps the plugin out of the list of plugins to start
};

/// Given to TolmLPCFrameInit.
struct PlatformInfo {
  std::map<std::string, PluginInfo> plugin_map;  ///< key: the plugin id
  /// Full path of the host's executable. The guard looks for plugins in its folder, and with frame_type 1
  /// the agent is started from there: TolmAgent/TolmAgent/TolmAgent_Exe64.exe below it.
  std::string frame_full_path;
  std::int32_t frame_type = 0;     ///< 1: the frame also starts and ends the agent
  std::string str_edition_config;  ///< only logged
};

/// The host's callback. Called from threads of the frame, several at a time, with no lock held; it may
/// block and may call every function below. `data` is valid during the call only. The result is not
/// used today; return true. An exception that leaves it is caught and logged.
using LpcMsgCallBack = bool (*)(const FrameCallBackData& data, void* user);

/// Results of TolmLPCFrameInit and TolmLPCFrameUnInit.
inline constexpr int kFrameOk = 0;
inline constexpr int kFrameFailed = -8;
inline constexpr int kFrameAlreadyInitialised = -9;

/// Starts the frame: listens as `lpc_server_name` (1 to 64 letters, digits, '.', '_' or '-', not
/// beginning with '.'), starts the worker threads, opens the guard's endpoint on the port in "LpcFrame.xml"
/// (without that file there is none) and takes over the plugin list. Register the callback first.
/// Returns 0, or -8 when the endpoint for plugins cannot be opened (the log says why). A second
/// call repeats the start: the same endpoint name succeeds, another one gives -8.
TOLM_LPCFRAME_API int TolmLPCFrameInit(const std::string& lpc_server_name, const PlatformInfo& info);

/// Stops the frame: tells the guard to restart nobody (three seconds when no guard answers), asks every
/// connected plugin to uninitialise, waits for at most about ten seconds for their answers, for
/// frame_type 1 ends the agent (at most five seconds), then ends the worker threads and both endpoints.
/// When it has returned, no callback starts any more. In a callback it does not wait for that one, nor, while
/// another callback stops the frame as well, for the end, which is then the other's to wait for; start the
/// frame again when all have returned. Returns 0, or -8 when the frame was never started.
TOLM_LPCFRAME_API int TolmLPCFrameUnInit();

/// Sets the one callback and the pointer that it is given, replacing the earlier pair. Null removes it.
TOLM_LPCFRAME_API void RegisterLpcMsgCallback(LpcMsgCallBack callback, void* user);

/// Tells the frame which URLs the host serves itself.
TOLM_LPCFRAME_API void RegisterUrl(const std::vector<std::string>& urls);

/// Whether a plugin serves `url`; if so, `time_out` is set to that URL's time-out in milliseconds,
/// otherwise it is left as it is.
TOLM_LPCFRAME_API bool IsPluginURL(int& time_out, const std::string& url);

/// Replaces `out` by the header names that plugins declared so far.
TOLM_LPCFRAME_API void GetHttpHeaders(std::vector<std::string>& out);

/// Sends `request` and waits for at most `time_out` milliseconds for the answer; 0 or less never waits.
/// True when it came: `response` then holds it (msg_type 1, src_id the answering plugin); the fields
/// that an answer does not carry are left as they were, so give a fresh record. False, with `response`
/// untouched, when no plugin serves the URL, the plugin has not finished initialising or is not
/// connected, its connection ended meanwhile, or time ran out.
TOLM_LPCFRAME_API bool SyncSend(LPCData& response, const LPCData& request, int time_out);

/// Sends a request, a reply or a notification, by data.msg_type, and does not wait. True when the
/// transport took it. `msg_id` becomes the id of a request (0 when its destination is not connected:
/// the last error says so), or all ones for the other two. The answer to a request sent in this way
/// reaches the callback as a message with msg_type 1 and the same msg_id.
TOLM_LPCFRAME_API bool AsyncSend(std::uint64_t& msg_id, const LPCData& data);

/// Tells the guard that the plugins of the list given at the start, but for those that are not_verified,
/// may be started with `plugin_cmdline`. A guard that connects later, or again, is told then. The first
/// call waits for a guard's answer three times, five seconds each: about five seconds when the guard
/// connects meanwhile, as one does that was started with the frame a moment ago, fifteen without a guard.
TOLM_LPCFRAME_API void TolmLPCFrameNotifyStartPlugins(const std::string& plugin_cmdline);

/// Asks the guard to start one plugin of the list given at the start; an unknown id is only logged.
TOLM_LPCFRAME_API void TolmLPCFrameStartPlugin(const std::string& plugin_id);

/// Why the latest transport operation of the calling thread failed; 0 when it did not fail. The codes
/// are listed in docs/host-guide.md.
TOLM_LPCFRAME_API int GetLPCLastError();

/// Does nothing; kept for hosts that call it.
TOLM_LPCFRAME_API void SubscribeNotify(LPCData& data);

}  // namespace TolmLPCFrame
