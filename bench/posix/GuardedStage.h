#pragma once

#include <sys/types.h>
#include <filesystem>
#include <string>

#include "Stage.h"

namespace bench {

/// A host's folder with agent, guard and plugins in it.
class GuardedStage : public Stage {
 public:
  GuardedStage();

  /// A copy of this program as the plugin `id`, with a manifest that says nothing but how to start it.
  void PlacePlugin(const std::string& id) const;
  /// The process of the plugin `id`, of which there must be one.
  pid_t PluginProcess(const std::string& id) const;

 private:
  std::filesystem::path PluginProgram(const std::string& id) const;
};

}  // namespace bench
