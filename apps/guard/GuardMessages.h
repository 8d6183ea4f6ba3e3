#pragma once

// The texts that the guard and the frame exchange: one JSON document each, with a "guid" that a reply
// repeats; the members of requests stand under "requestData", those of answers under "responseData".

#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace guard {

// What the frame says.

/// The frame has started; it waits for the echo.
struct FrameStarted {};
/// Which plugins are to run, with which command line.
struct StartPlugins {
  std::vector<std::string> plugins;
  std::string command_line;
};
/// Which plugins are to be kept alive and which not any more; it waits for the echo.
struct SetProtection {
  std::vector<std::pair<std::string, bool>> plugins;
};
struct StartPlugin {
  std::string plugin;
};
struct StopPlugin {
  std::string plugin;
};
/// Some plugin's initialisation state has changed.
struct InitStatesChanged {};
/// The frame ends, and has asked all plugins to end.
struct FrameEnds {};
/// Its answer to a question for the states: which plugins are initialised.
struct InitStates {
  std::vector<std::pair<std::string, bool>> plugins;
};
/// Its answer to a question for the path.
struct MainProcessPath {
  std::string path;
};

using FrameSays = std::variant<FrameStarted, StartPlugins, SetProtection, StartPlugin, StopPlugin,
                               InitStatesChanged, FrameEnds, InitStates, MainProcessPath>;

struct FrameMessage {
  std::string guid;
  FrameSays says;
};

/// False when `text` is none of the frame's messages; `why` then says what is wrong, in bounded length.
bool ParseFrameMessage(const std::string& text, FrameMessage& message, std::string& why);

// What the guard says.

std::string BuildMainProcessPathQuestion();
/// Its answer carries `guid`.
std::string BuildInitStatesQuestion(const std::string& guid);
/// The plugin's process has ended.
std::string BuildProcessEnded(const std::string& plugin);
// The replies that the frame waits for.
std::string BuildFrameStartedReply(const std::string& guid);
std::string BuildSetProtectionReply(const std::string& guid);

}  // namespace guard
