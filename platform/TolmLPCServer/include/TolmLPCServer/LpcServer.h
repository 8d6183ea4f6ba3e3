#pragma once

// The frame's end of the transport: one endpoint per process, any number of connected peers, each known
// by the id that it gave in its handshake.
//
// Every function may be called from any thread, also from the inbound callback, at any time: before
// Init and after Uninit they fail harmlessly. A function that can fail leaves a code of lpc::Error for
// GetLPCLastError on the calling thread, and kOk when it did not fail. No function throws.

#include <cstdint>
#include <string>
#include <string_view>

#include "TolmLPCServer/LpcError.h"
#include "TolmLPCServer/LpcOptions.h"
#include "TolmLPCServer/LpcRecords.h"

namespace lpcserver {

/// Receives every inbound message, on threads of the transport, several at a time, with no lock held.
/// It may block and may send; replies are read by other threads meanwhile. No order between two
/// messages is promised, except that a peer's "connected" event returns before anything else of that
/// peer is delivered. The result is not used. An exception that leaves it is caught and logged.
///
/// Also delivered: an event when a peer's handshake is complete and one when its connection has ended,
/// for whatever reason, exactly one of each, in this order: `params` empty, source the peer's id,
/// destination "0", body {"method":"connectionStatusChanged","status":"connected" or "disconnected",
/// "componentID":"<id>"}; and, when listening fails after it had begun, one with the body
/// {"method":"serverListenFailed","errorCode":"<number>","errorModule":"TolmLPCServer"}.
using InvokeCallBack = bool (*)(const tag_LPCCallBackData& data, void* user);

/// Inside the inbound callback, for the record that it was given: that record itself, which is left empty; so
/// a body need not be copied. Otherwise a copy of `data`.
tag_LPCCallBackData Take(const tag_LPCCallBackData& data);

/// Prepares the library. Calling it again is harmless. True.
bool Init();

/// Stops listening, if that still goes on, and releases the library. True, also without Init.
bool Uninit();

/// Limits and times for the next StartListen.
void SetOptions(const lpc::Options& options);

/// Installs the inbound callback, replacing the earlier one, or removes it when `callback` is null.
/// False before Init, unless it is a removal. While there is none, inbound messages are dropped and
/// counted, and waiting requesters are told.
bool SetInvokeCallBack(InvokeCallBack callback, void* user);

/// Listens as `name`. True also when this process listens under this name already. An endpoint that a
/// killed process left behind is taken over; one of a living process is never touched
/// (kEndpointInUse).
bool StartListen(const std::string& name);

/// For an end that is about to stop, and before that waits for threads that may themselves be waiting for
/// answers: sends that still wait when Options::stop_wait_ms have passed then fail, with kPeerGone, and so
/// does each that would wait later. Nothing else changes; the next StartListen ends it. True, also when
/// nothing was listening.
bool EndWaitsSoon();

/// Disconnects every peer, ends listening and waits for the transport's threads; when it has returned,
/// no callback starts any more. Called on one of these threads, it does not wait for that one; the next call
/// from elsewhere does. True, also when nothing was listening.
bool StopListen();

/// Sends a request without waiting, and gives its id; the answer comes to the inbound callback with
/// is_reply set. 0 when it could not be sent. Here and below, the second form spares a copy of the body when
/// the peer cannot take all of it at once, and the third sends `body` in the record's place, whose own is not
/// looked at: for a sender that keeps its bytes.
std::uint64_t Send(const tag_LPCRequestData& request);
std::uint64_t Send(tag_LPCRequestData&& request);
std::uint64_t Send(const tag_LPCRequestData& request, std::string_view body);

/// Sends a request and waits for its answer for at most `time_out` milliseconds; 0 or less never waits.
/// `response` is changed only on success. `url` is for log lines. Fails at once, and not after the
/// time-out, when nobody with the destination id is connected (kNoSuchPeer) or its connection ends
/// (kPeerGone).
bool Send(tag_LPCResponseData& response, const tag_LPCRequestData& request, std::string url, int time_out);
bool Send(tag_LPCResponseData& response, tag_LPCRequestData&& request, std::string url, int time_out);
bool Send(tag_LPCResponseData& response, const tag_LPCRequestData& request, std::string_view body,
          std::string url, int time_out);

/// Answers the request `reply.msg_id` of the peer `reply.dst_id`.
bool Reply(const tag_LPCReplyData& reply);
bool Reply(tag_LPCReplyData&& reply);
bool Reply(const tag_LPCReplyData& reply, std::string_view body);

/// Sends a message that nobody answers.
bool Notify(const tag_LPCNotifyData& notify);
bool Notify(tag_LPCNotifyData&& notify);
bool Notify(const tag_LPCNotifyData& notify, std::string_view body);

/// The code of the calling thread's latest operation above.
int GetLPCLastError();

/// Counters since the process began.
lpc::Statistics GetStatistics();

}  // namespace lpcserver
