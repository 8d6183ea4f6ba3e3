#pragma once

#include "TolmLPCServer/LpcClient.h"
#include "TolmPlugin/Plugin.h"

namespace TolmPlugin {

/// The transport's params for a message; its body travels beside them.
LpcParams ToParams(const Message& message);

/// The message behind params and body. What cannot be read is left empty.
Message ToMessage(const LpcParams& params, std::string&& body);

/// As above, with the query cut off the url.
Request ToRequest(tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info);

}  // namespace TolmPlugin
