#pragma once

#include <string>

namespace bench {

/// A plugin that serves the urls of Host.h and does what its channel says, until that ends.
int RunPluginRole(const std::string& endpoint, const std::string& id);

/// Clients that are connected and nothing else.
int RunIdleRole(const std::string& endpoint, const std::string& id);

}  // namespace bench
