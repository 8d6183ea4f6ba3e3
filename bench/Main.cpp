// frame_bench: the frame measured beside the bare stream that it stands on. See --help.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Measurements.h"
#include "Peers.h"
#include "Process.h"
#include "RawPeer.h"
#include "Roles.h"
#include "Row.h"
#include "Samples.h"
#include "Table.h"

namespace bench {
namespace {

std::vector<Measurement> AllMeasurements() {
  auto all = FrameMeasurements();
  for (const Measurement& peer : PeerMeasurements()) all.push_back(peer);
  all.push_back({"raw_again", "the yardstick once more: has the machine changed its pace?", MeasureRawAgain});
  return all;
}

constexpr int kSecondsForOne = 120;
constexpr int kLastCore = -1;

struct Options {
  Settings settings;
  std::vector<std::string> only;
  std::string json;
  int core = kLastCore;
  bool free = false;
  std::string role;
  std::string endpoint;
  std::string id;
};

/// Makes the measurement `name` and says its rows; the first character says how it went.
[[noreturn]] void RunMeasureRole(const std::string& name, const Settings& settings) {
  Channel channel(ParentDescriptor());
  RaisePriority();
  std::ostringstream text;
  try {
    for (const Measurement& measurement : AllMeasurements()) {
      if (measurement.name != name || measurement.make == nullptr) continue;
      text << '+';
      for (const Row& row : measurement.make(settings)) text << row;
    }
  } catch (const std::exception& error) {
    text.str(std::string(1, '-') + error.what());
  }
  channel.Say(text.str());
  // Without destructors: the frame's threads still run, and its end is not what is measured.
  std::_Exit(0);
}

int RunRole(const Options& options) {
  if (options.role == "measure") RunMeasureRole(options.id, options.settings);
  if (options.role == "raw") return RunRawRole();
  if (options.role == "idle") return RunIdleRole(options.endpoint, options.id);
  if (options.role == "host") return RunHostRole(options.endpoint);
  if (options.role == "guarded") return RunGuardedRole(options.endpoint, options.id);
  return RunPluginRole(options.endpoint, options.id);
}

bool IsWanted(const Options& options, const std::string& name) {
  if (options.only.empty()) return true;
  return std::find(options.only.begin(), options.only.end(), name) != options.only.end();
}

/// Has a program, this one or another, make the measurement in a process of its own.
std::vector<Row> Measure(const std::string& program, const std::string& name, const Settings& settings) {
  std::vector<std::string> arguments{"--role", "measure", "--id", name};
  if (settings.quick) arguments.push_back("--quick");
  Child apart(program, arguments);
  apart.AwaitWord(kSecondsForOne);
  const std::string said = apart.channel().TakeText();
  if (said.empty() || said.front() != '+')
    throw std::runtime_error(said.substr(std::min<std::size_t>(1, said.size())));
  std::istringstream rows_text(said.substr(1));
  std::vector<Row> rows;
  for (Row row; rows_text >> row;) rows.push_back(row);
  return rows;
}

std::vector<Row> Measure(const Measurement& measurement, const Settings& settings) {
  if (measurement.make != nullptr) return Measure(ThisProgram().string(), measurement.name, settings);
  const std::string program = PeerProgram(measurement.name);
  if (!std::filesystem::exists(program)) return RowsNotInstalled(measurement.name);
  return Measure(program, measurement.name, settings);
}

void SayLoad(const char* when) {
  if (const std::string load = Load(); !load.empty()) std::printf("load %s: %s\n", when, load.c_str());
}

void SayHowItIsMeasured(const Options& options, int core) {
  if (options.free) {
    std::printf("The system places the processes as it likes.\n");
  } else {
    std::printf(
        "All processes stay on core %d, so that the figures are of work done and not of waking cores.\n",
        core);
  }
  std::printf(MayRaisePriority()
                  ? "They have the highest priority, so that other programs disturb them less.\n"
                  : "Their priority is the usual one: other programs disturb them.\n");
  std::printf(
      "What is compared takes turns, round by round. median and p99 are of all samples; min and max of the "
      "rounds'\n"
      "medians; raw is the bare stream with the same bytes, in the same unit, one after another; ratio is "
      "median to\n"
      "raw median.\n");
}

int RunAll(const Options& options) {
  const auto begin = Clock::now();
  EndInOrderOnSignals();
  const RuntimeFolder folder;
  const int core = options.core == kLastCore ? LastCore() : options.core;
  if (!options.free) PinTo(core);
  SayHowItIsMeasured(options, core);
  SayLoad("before");

  int failed = 0;
  int met = 0;
  int missed = 0;
  std::string json;
  for (const Measurement& measurement : AllMeasurements()) {
    if (!IsWanted(options, measurement.name)) continue;
    try {
      const auto rows = Measure(measurement, options.settings);
      PrintBlock(measurement.name, measurement.title, rows);
      for (const Row& row : rows) {
        if (row.missed != kNone) ++(row.missed == 0 ? met : missed);
      }
      json += (json.empty() ? "" : ",\n") + RowsAsJson(rows);
    } catch (const std::exception& error) {
      std::printf("\n%s: could not be measured: %s\n", measurement.name, error.what());
      if (std::string(error.what()) == "interrupted") return 130;
      ++failed;
    }
  }
  std::printf("\n%d targets met, %d missed; %.0f s\n", met, missed, SecondsSince(begin));
  SayLoad("after");
  if (!options.json.empty()) {
    std::ofstream file(options.json);
    file << "[\n" << json << "\n]\n";
    if (!file.flush()) {
      std::fprintf(stderr, "frame_bench: cannot write %s\n", options.json.c_str());
      return 1;
    }
  }
  return failed == 0 ? 0 : 1;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) try {
  bench::Options options;
  CLI::App app("Measures the frame beside the bare stream that it stands on.");
  app.add_flag("--quick", options.settings.quick, "Fewer and shorter rounds");
  std::vector<std::string> names;
  for (const auto& measurement : bench::AllMeasurements()) names.emplace_back(measurement.name);
  app.add_option("--only", options.only, "Only this measurement; may be given several times")
      ->check(CLI::IsMember(names));
  app.add_option("--json", options.json, "Also write the figures into this file");
  app.add_option("--core", options.core, "The core to stay on; without it, the last one")
      ->check(CLI::NonNegativeNumber);
  app.add_flag("--free", options.free, "Let the system choose the cores")->excludes("--core");
  // For the processes that are measured; not for people.
  app.add_option("--role", options.role)->group("");
  app.add_option("--endpoint", options.endpoint)->group("");
  app.add_option("--id", options.id)->group("");
  CLI11_PARSE(app, argc, argv);
  return options.role.empty() ? bench::RunAll(options) : bench::RunRole(options);
} catch (const std::exception& error) {
  std::fprintf(stderr, "frame_bench: %s\n", error.what());
  return 1;
}
