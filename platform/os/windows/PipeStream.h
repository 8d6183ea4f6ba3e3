#pragma once

#include <array>
#include <memory>

#include "PipePoller.h"
#include "os/LocalStream.h"

namespace os {

/// One end of a connected pipe. `end` is overlapped, in byte mode, and has no operation under way.
std::unique_ptr<Stream> MakePipeStream(PipeEnd end, const PeerIdentity& peer);

}  // namespace os
