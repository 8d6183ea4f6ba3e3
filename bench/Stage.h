#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "Process.h"

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

  std::string Host() const { return (folder_ / ThisProgram().filename()).string(); }

  /// Writes LpcFrame.xml. `element`: "ClientPort" when the host is to start an agent, else "ServerPort".
  void WritePort(const char* element, std::uint16_t port) const;
  void RemovePort() const;
  /// The port in LpcFrame.xml.
  std::uint16_t Port() const;

  /// Without links in it.
  const std::filesystem::path& folder() const { return folder_; }

 private:
  std::filesystem::path folder_;
};

}  // namespace bench
