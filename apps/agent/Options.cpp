#include "Options.h"

#include <charconv>
#include <string_view>
#include <system_error>

#include "common/AgentNames.h"

namespace tolm::agent {
namespace {

struct TimeOption {
  std::string_view name;
  std::chrono::milliseconds Times::*time;
};

// For tests and for machines on which the usual times do not fit.
constexpr TimeOption kTimeOptions[] = {
    {"--grace-ms", &Times::grace},
    {"--host-gone-ms", &Times::host_gone},
    {"--host-interval-ms", &Times::host_interval},
    {"--restart-ms", &Times::restart},
    {"--longest-restart-ms", &Times::longest_restart},
    {"--stable-ms", &Times::stable},
};

const TimeOption* FindTimeOption(std::string_view name) {
  for (const TimeOption& option : kTimeOptions) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

bool ReadTime(std::string_view text, std::chrono::milliseconds& time) {
  constexpr long kDay = 24L * 60 * 60 * 1000;
  long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 1 || number > kDay) return false;
  time = std::chrono::milliseconds(number);
  return true;
}

}  // namespace

// The frame's own form has an option with one dash behind the words, which the usual libraries read as
// several short options; hence by hand.
Order ReadCommandLine(const std::vector<std::string>& command_line, Options& options, std::string& fault) {
  std::vector<std::string_view> words(command_line.begin(), command_line.end());
  if (!words.empty()) {
    options.agent_path = words.front();
    words.erase(words.begin());
  }
  for (const std::string_view word : words) {
    if (word == "--help" || word == "-h") return Order::kShowHelp;
    if (word == "--version") return Order::kShowVersion;
  }

  std::vector<std::string_view> plain;
  bool is_process = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "-process") {
      is_process = true;
    } else if (const TimeOption* option = FindTimeOption(words[i])) {
      if (++i == words.size() || !ReadTime(words[i], options.times.*option->time)) {
        fault = std::string(option->name) + " needs a number of milliseconds from 1 to one day";
        return Order::kRefuse;
      }
    } else if (words[i].starts_with("-")) {
      fault = "unknown option " + std::string(words[i]);
      return Order::kRefuse;
    } else {
      plain.push_back(words[i]);
    }
  }
  if (plain.size() != 2) {
    fault = "a main process path and a role are needed, and nothing else";
    return Order::kRefuse;
  }
  if (plain[1] != TolmLPCFrame::kRoleClient) {
    fault = "unknown role " + std::string(plain[1]);
    return Order::kRefuse;
  }
  if (!is_process) {
    fault = "-process is missing";
    return Order::kRefuse;
  }
  options.host_path = plain[0];
  options.role = plain[1];
  return Order::kRun;
}

std::string UsageLine() {
  return "usage: TolmAgent_Exe64.exe <main process path> Client -process";
}

std::string HelpText() {
  return UsageLine() + R"(
       TolmAgent_Exe64.exe --help | --version

Keeps the guard running that starts and watches a host's plugin processes. It is started by the
plugin frame in the host, and does nothing that a person would have to do by hand.

  <main process path>  the host's executable: when it was running and has not been for 10 seconds,
                       the agent and the guard end; an empty path, or one of a file that does not
                       exist, is not watched
  Client               the role in which the guard is started
  -process             the form in which the frame starts it

  --help               shows this text
  --version            shows the version
Times in milliseconds, for tests and special cases; see the manual page TolmAgent_Exe64.exe(1):
  --grace-ms, --host-gone-ms, --host-interval-ms, --restart-ms, --longest-restart-ms, --stable-ms

It ends, and the guard before it, when its named event is set (the frame does so when the host
stops), on SIGTERM or SIGINT (on Windows Ctrl-C, the console's end and the event
Local\tolm-stop-<process id>), and when the host is gone. A guard that ends without having been
asked to is started again.

Files, seen from the folder of this program:
  ../TolmGuard/TolmGuard.exe  the guard
  ../log/agent.log            what happened; where that cannot be written, it is in
                              $XDG_STATE_HOME/tolm-agent or ~/.local/state/tolm-agent,
                              on Windows in %LOCALAPPDATA%\tolm-agent

Exit status: 0 when it ended as asked, or an agent is already running for this place; 1 when it
cannot begin; 2 when the command line is not understood.
)";
}

}  // namespace tolm::agent
