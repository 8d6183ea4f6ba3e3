#pragma once

// The host's records as the transport's, and back.

#include "TolmLPCFrame.h"
#include "TolmLPCServer/LpcRecords.h"
#include "common/UrlTemplate.h"

namespace TolmLPCFrame {

/// Outgoing. Nothing in `out` is cleared; a key that is in its params already keeps its value. False
/// when a headers or multipart document cannot be made; `out` is then partly filled.
bool LPCDataToRequestData(tag_LPCRequestData& out, const LPCData& data);
bool LPCDataToReplyData(tag_LPCReplyData& out, const LPCData& data);
bool LPCDataToNotifyData(tag_LPCNotifyData& out, const LPCData& data);

/// The same for all but the body: `out.body` stays as it is. For a sender that sends the host's own body.
bool LPCDataToRequestDataWithoutBody(tag_LPCRequestData& out, const LPCData& data);
bool LPCDataToReplyDataWithoutBody(tag_LPCReplyData& out, const LPCData& data);
bool LPCDataToNotifyDataWithoutBody(tag_LPCNotifyData& out, const LPCData& data);

/// Inbound. Never fails: what cannot be read is left as it is in `out`. The second form takes the
/// texts out of `data` instead of copying them.
void LPCCallBackDataToLPCData(LPCData& out, const tag_LPCCallBackData& data);
void LPCCallBackDataToLPCData(LPCData& out, tag_LPCCallBackData&& data);

/// An answer: fills body, src_id, msg_type and what the params hold; dst_id, dst_type and msg_id stay.
void ResponseDataToLPCData(LPCData& out, const tag_LPCResponseData& response);
void ResponseDataToLPCData(LPCData& out, tag_LPCResponseData&& response);

}  // namespace TolmLPCFrame
