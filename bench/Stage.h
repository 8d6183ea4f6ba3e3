#pragma once

#include <sys/types.h>
#include <cstdint>
#include <filesystem>
#include <string>

namespace bench {

/// A host's folder, laid out below the run's runtime folder, with a copy of this program as the host: the
/// frame looks for its files beside the program that it runs in.
class Stage {
 public:
  Stage();
  /// Ends what still runs there, and removes it.
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  std::string Host() const { return folder_ / kProgram; }

  /// Writes LpcFrame.xml. `element`: "ClientPort" when the host is to start an agent, else "ServerPort".
  void WritePort(const char* element, std::uint16_t port) const;
  void RemovePort() const;
  /// The port in LpcFrame.xml.
  std::uint16_t Port() const;

  void PlaceAgentAndGuard() const;
  /// A copy of this program as the plugin `id`, with a manifest that says nothing but how to start it.
  void PlacePlugin(const std::string& id) const;
  /// The process of the plugin `id`, of which there must be one.
  pid_t PluginProcess(const std::string& id) const;

 private:
  static constexpr char kProgram[] = "frame_bench";

  std::filesystem::path PluginProgram(const std::string& id) const;

  std::filesystem::path folder_;
};

}  // namespace bench
