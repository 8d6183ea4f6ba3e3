#pragma once

#include <TolmPlugin/Plugin.h>

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Tally.h"

namespace trust::death {

/// What a busy plugin does: threads that call other plugins and the host, ask without waiting, notify and
/// push.
class PluginLoad {
 public:
  /// `own` is this plugin's place in the list.
  PluginLoad(TolmPlugin::Plugin& plugin, Tally& tally, std::vector<std::string> plugins, std::size_t own);
  ~PluginLoad();

  void Start(int threads);

 private:
  using Random = std::minstd_rand;

  void Run(unsigned seed);
  void Act(Caller& caller, Random& random);
  Outcome Call(Caller& caller, std::initializer_list<std::size_t> plugins, const std::string& url,
               const std::string& body, std::chrono::milliseconds time_out);

  TolmPlugin::Plugin& plugin_;
  Tally& tally_;
  const std::vector<std::string> plugins_;
  const std::size_t own_;
  std::atomic<bool> ends_{false};
  std::vector<std::thread> threads_;
};

}  // namespace trust::death
