#pragma once

#include <string>

namespace bench {

/// A plugin that serves the urls of Host.h and does what its channel says, until that ends.
int RunPluginRole(const std::string& endpoint, const std::string& id);

/// Clients that are connected and nothing else.
int RunIdleRole(const std::string& endpoint, const std::string& id);

/// A host in the folder of this executable, with plugins of PluginName, that does what its channel says.
int RunHostRole(const std::string& endpoint);

/// A plugin without a channel, as a guard starts it, until the frame asks it to end.
int RunGuardedRole(const std::string& endpoint, const std::string& id);

}  // namespace bench
