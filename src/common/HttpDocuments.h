#pragma once

// The two JSON documents that travel Base64-wrapped beside a message: its headers and its multipart
// parts. Both ends of the wire use these functions.

#include <map>
#include <string>
#include <vector>

#include "TolmLPCFrame.h"

namespace TolmLPCFrame {

using HttpHeaders = std::map<std::string, std::string>;
using HttpParts = std::vector<MimePart>;

/// {"httpHeaders":[{"key":..,"value":..},..]} as formatted text, in key order; empty when memory is short.
std::string PrintHeadersDocument(const HttpHeaders& headers);

/// {"httpMine":[{"contentType":..,..,"bodyData":<Base64>},..]} as formatted text; empty when memory is short.
std::string PrintPartsDocument(const HttpParts& parts);

/// Adds the headers of `text` to `headers`; a name that is there already keeps its value. False for the
/// empty text. Text that does not parse or holds no headers is accepted and adds nothing; an entry
/// without a text "key" is skipped, one without a text "value" has the empty value.
bool ReadHeadersDocument(HttpHeaders& headers, const std::string& text);

/// Appends the parts of `text` to `parts`, with the same tolerance; a member that is missing is empty.
bool ReadPartsDocument(HttpParts& parts, const std::string& text);

}  // namespace TolmLPCFrame
