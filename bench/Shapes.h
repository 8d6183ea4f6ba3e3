#pragma once

// What the bytes of a call are, in the words of whoever sends them.

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "Channel.h"
#include "TolmLPCFrame.h"

namespace bench {

using Headers = std::map<std::string, std::string>;
using Parts = std::vector<TolmLPCFrame::MimePart>;

/// Three headers as they are usual.
Headers ThreeHeaders();
/// A part with `size` bytes of every value.
TolmLPCFrame::MimePart PartOf(std::size_t size);

/// Gives a message of `order.size` bytes its headers, its parts and its body.
void Fill(const Order& order, Headers& headers, Parts& parts, std::string& body);
/// Throws when these are not what Fill gave.
void Check(const Order& order, const Headers& headers, const Parts& parts, const std::string& body);

}  // namespace bench
