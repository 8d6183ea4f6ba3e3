#pragma once

#include <string>

#include "Handle.h"

namespace os {

/// "S-1-5-...": the user that this process runs as; empty when the system does not tell.
const std::wstring& OwnUserText();

/// Who may open a pipe: this user and nobody else. Made once, never destroyed; null when the system says no.
SECURITY_ATTRIBUTES* OwnerOnly();

/// Whether the object behind `pipe` belongs to the user that this process runs as.
bool IsOwnedByThisUser(const Handle& pipe);

}  // namespace os
