#include "Supervisor.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "ManifestReader.h"
#include "TolmBase/GuidUtil.h"
#include "TolmBase/LogLine.h"
#include "os/HiddenProcess.h"
#include "os/UserPlaces.h"
#include "os/Utf8Path.h"

namespace guard {
namespace {

namespace fs = std::filesystem;

using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelInfo;
using Tolm::Base::kLogLevelWarning;

constexpr char kTag[] = "TolmGuard";
constexpr char kPluginsFolder[] = "plugins";

/// What the frame calls a command line is what stands behind the program in one.
std::vector<std::string> SplitArguments(const std::string& text) {
  std::vector<std::string> words = os::SplitCommandLine("plugin " + text);
  words.erase(words.begin());
  return words;
}

}  // namespace

Supervisor::Supervisor(SupervisorOptions options, Scheduler& scheduler, FrameChannel& channel,
                       ProcessStarter start, std::function<double()> random)
    : options_(std::move(options)),
      scheduler_(scheduler),
      channel_(channel),
      surroundings_{scheduler, std::move(start), std::move(random),
                    [this](const std::string& id) { OnPluginEnded(id); },
                    [this](const std::string& id) { return ends_.IsSettled(id); }},
      ends_(scheduler, channel) {}

Supervisor::~Supervisor() {
  scheduler_.Cancel(lost_timer_);
  scheduler_.Cancel(shutdown_timer_);
}

const PluginSupervisor* Supervisor::plugin(const std::string& id) const {
  const auto found = plugins_.find(id);
  return found == plugins_.end() ? nullptr : found->second.get();
}

PluginSupervisor* Supervisor::Find(const std::string& id) {
  const auto found = plugins_.find(id);
  return found == plugins_.end() ? nullptr : found->second.get();
}

// ------------------------------------------------------------------------------------------ The link

void Supervisor::OnFrameConnected() {
  scheduler_.Cancel(std::exchange(lost_timer_, 0));
  channel_.Send(BuildMainProcessPathQuestion());
  // A plugin that runs again may have told the frame already that it is initialised.
  for (const std::string& id : ends_.TakeUnheard()) {
    const PluginSupervisor* const ended = Find(id);
    if (ended != nullptr && !ended->has_process()) ReportEnd(*ended);
  }
  AskForStates();
}

void Supervisor::OnFrameLost() {
  TOLM_LOG(kLogLevelWarning, kTag, "the connection to the frame is lost; plugins run on for %lld ms",
           static_cast<long long>(options_.lost_grace.count()));
  ends_.OnFrameLost();
  scheduler_.Cancel(lost_timer_);
  lost_timer_ = scheduler_.After(options_.lost_grace, [this] {
    lost_timer_ = 0;
    TOLM_LOG(kLogLevelWarning, kTag, "the frame is gone: all plugins are stopped");
    StopAll(PluginSupervisor::StopWay::kAsk);
  });
}

void Supervisor::OnFrameText(const std::string& text) {
  if (shutting_down_) return;
  FrameMessage message;
  std::string why;
  if (!ParseFrameMessage(text, message, why)) {
    TOLM_LOG(kLogLevelWarning, kTag, "a message of the frame is ignored: %s", why.c_str());
    return;
  }
  std::visit([&](const auto& says) { On(message, says); }, message.says);
}

// ---------------------------------------------------------------------------------- What the frame says

void Supervisor::On(const FrameMessage& message, const FrameStarted&) {
  TOLM_LOG(kLogLevelInfo, kTag, "the frame has started");
  channel_.Send(BuildFrameStartedReply(message.guid));
}

void Supervisor::On(const FrameMessage&, const StartPlugins& start) {
  command_line_ = start.command_line;
  listed_ = start.plugins;
  is_list_in_force_ = true;
  TOLM_LOG(kLogLevelInfo, kTag, "%zu plugins are to run", listed_.size());
  // A plugin that is not listed any more may belong to a list that grows and shrinks; but nobody
  // wants one that is not protected either.
  for (const auto& [id, plugin] : plugins_) {
    if (std::find(listed_.begin(), listed_.end(), id) == listed_.end() && !plugin->is_protected()) {
      plugin->Stop(PluginSupervisor::StopWay::kAsk);
    }
  }
  StartListed();
}

void Supervisor::On(const FrameMessage& message, const SetProtection& protection) {
  for (const auto& [id, is_protected] : protection.plugins) {
    if (PluginSupervisor* const plugin = Find(id)) plugin->SetProtected(is_protected);
  }
  channel_.Send(BuildSetProtectionReply(message.guid));
}

void Supervisor::On(const FrameMessage&, const StartPlugin& start) {
  Start(start.plugin, true);
}

void Supervisor::On(const FrameMessage&, const StopPlugin& stop) {
  PluginSupervisor* const plugin = Find(stop.plugin);
  if (plugin == nullptr) {
    TOLM_LOG(kLogLevelWarning, kTag, "a plugin that was never started is to be stopped: %.128s",
             stop.plugin.c_str());
    return;
  }
  plugin->Stop(PluginSupervisor::StopWay::kAsk);
}

void Supervisor::On(const FrameMessage&, const InitStatesChanged&) {
  AskForStates();
}

void Supervisor::On(const FrameMessage&, const FrameEnds&) {
  TOLM_LOG(kLogLevelInfo, kTag, "the frame ends; the plugins are to end by themselves");
  StopAll(PluginSupervisor::StopWay::kLetItEnd);
}

void Supervisor::On(const FrameMessage& message, const InitStates& states) {
  std::map<std::string, bool> now(states.plugins.begin(), states.plugins.end());
  for (const auto& [id, is_initialised] : now) {
    const auto before = init_states_.find(id);
    const bool was_initialised = before != init_states_.end() && before->second;
    if (is_initialised == was_initialised) continue;
    TOLM_LOG(kLogLevelInfo, kTag, "plugin %.128s: %s", id.c_str(),
             is_initialised ? "initialised" : "not initialised any more");
  }
  init_states_.swap(now);
  ends_.OnStates(message.guid, init_states_);
}

void Supervisor::On(const FrameMessage&, const MainProcessPath& main_process) {
  if (!options_.plugins_may_move) return;
  // The frame writes paths with either kind of separator, on every system.
  std::string text = main_process.path;
  std::replace(text.begin(), text.end(), '\\', '/');
  const fs::path folder = (os::Utf8Path(text).parent_path() / kPluginsFolder).lexically_normal();
  if (folder == options_.plugins) return;
  std::error_code error;
  if (!folder.is_absolute() || !fs::is_directory(folder, error)) {
    TOLM_LOG(kLogLevelInfo, kTag, "the main process %.512s has no folder %s beside it; plugins stay in %s",
             text.c_str(), kPluginsFolder, options_.plugins.string().c_str());
    return;
  }
  TOLM_LOG(kLogLevelInfo, kTag, "plugins are in %s", folder.string().c_str());
  options_.plugins = folder;
  // The list may have come before the path.
  if (is_list_in_force_) StartListed();
}

// ---------------------------------------------------------------------------------------- The plugins

void Supervisor::StartListed() {
  for (const std::string& id : listed_) Start(id, false);
}

void Supervisor::Start(const std::string& id, bool at_once) {
  const std::string not_an_id = WhyNotAPluginId(id);
  if (!not_an_id.empty()) {
    TOLM_LOG(kLogLevelError, kTag, "plugin \"%.128s\" is not started: %s", id.c_str(), not_an_id.c_str());
    return;
  }
  const fs::path folder = options_.plugins / os::Utf8Path(id);
  ManifestReading reading = ReadManifest(folder);
  const std::string file = (folder / kManifestFileName).string();
  if (!reading.file_exists) {
    TOLM_LOG(kLogLevelWarning, kTag, "plugin %s is not started: there is no %s", id.c_str(), file.c_str());
    return;
  }
  if (!reading.manifest) {
    std::string faults;
    for (const ManifestFault& fault : reading.faults) faults += "\n    " + Describe(file, fault);
    TOLM_LOG(kLogLevelError, kTag, "plugin %s is not started, its manifest is faulty:%s", id.c_str(),
             faults.c_str());
    return;
  }
  std::shared_ptr<PluginSupervisor>& plugin = plugins_[id];
  if (!plugin) plugin = PluginSupervisor::Make(id, options_.logs / os::Utf8Path(id + ".log"), surroundings_);
  plugin->Start(std::move(*reading.manifest), SplitArguments(command_line_), at_once);
}

void Supervisor::StopAll(PluginSupervisor::StopWay way) {
  is_list_in_force_ = false;
  for (const auto& [id, plugin] : plugins_) plugin->Stop(way);
}

void Supervisor::OnPluginEnded(const std::string& id) {
  ReportEnd(*Find(id));
  // Posted: the plugin is still in the middle of its end.
  if (shutting_down_) scheduler_.Post([this] { FinishShutdownWhenDone(); });
}

void Supervisor::ReportEnd(const PluginSupervisor& plugin) {
  ends_.OnEnded(plugin.id(), plugin.state() == PluginSupervisor::State::kWaiting);
}

void Supervisor::AskForStates() {
  channel_.Send(BuildInitStatesQuestion(Tolm::Base::GuidUtil::CreateGuid()));
}

// -------------------------------------------------------------------------------------- The guard's end

void Supervisor::Shutdown(std::function<void()> done) {
  if (std::exchange(shutting_down_, true)) return;
  done_ = std::move(done);
  scheduler_.Cancel(std::exchange(lost_timer_, 0));
  for (const auto& [id, plugin] : plugins_) {
    plugin->Stop(PluginSupervisor::StopWay::kAsk, options_.longest_stop);
  }
  shutdown_timer_ = scheduler_.After(options_.longest_stop + options_.wait_after_kill, [this] {
    TOLM_LOG(kLogLevelError, kTag, "some plugin was killed and is not gone; the guard ends all the same");
    std::exchange(done_, nullptr)();
  });
  FinishShutdownWhenDone();
}

void Supervisor::FinishShutdownWhenDone() {
  const bool some_left = std::any_of(plugins_.begin(), plugins_.end(),
                                     [](const auto& entry) { return entry.second->has_process(); });
  if (some_left || !done_) return;
  scheduler_.Cancel(std::exchange(shutdown_timer_, 0));
  TOLM_LOG(kLogLevelInfo, kTag, "all plugins have ended");
  std::exchange(done_, nullptr)();
}

}  // namespace guard
