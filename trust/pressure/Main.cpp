// trust_pressure CASE: slow readers, floods and shortages, one case in each run. See --help.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <map>
#include <string>

#include "Process.h"
#include "pressure/Cases.h"
#include "pressure/Crowd.h"
#include "support/Figures.h"
#include "traffic/PluginProcess.h"

namespace {

using Case = void (*)(const trust::PressureSettings& settings);

const std::map<std::string, Case>& Cases() {
  static const std::map<std::string, Case> cases{{"flood", trust::Flood},
                                                 {"full_start", trust::FullStart},
                                                 {"large_body", trust::LargeBody},
                                                 {"no_memory", trust::NoMemory},
                                                 {"nofile", trust::FewDescriptors},
                                                 {"stalled", trust::Stalled},
                                                 {"stop_in_the_middle", trust::StopInTheMiddle}};
  return cases;
}

}  // namespace

int main(int argc, char** argv) try {
  trust::PressureSettings settings;
  std::string name;
  std::string role;
  CLI::App options("What the frame keeps under pressure");
  options.add_flag("--short", settings.quick, "a few seconds; times are not bound");
  options.add_option("case", name, "what to measure; of a plugin, its id");
  options.add_option("--role", role)->group("");
  CLI11_PARSE(options, argc, argv);
  if (role == "plugin") return trust::RunPluginRole(name);
  if (role == "few-host") return trust::RunFewHostRole(name);
  if (role == "few-clients") return trust::RunFewClientsRole();
  if (role == "few-guards") return trust::RunFewGuardsRole();
  if (role == "no-memory") return trust::RunNoMemoryRole(name);
  const auto found = Cases().find(name);
  if (found == Cases().end()) {
    std::fprintf(stderr, "no such case: %s\n", name.c_str());
    return 2;
  }
  bench::EndInOrderOnSignals();
  const bench::RuntimeFolder folder;
  found->second(settings);
  return trust::AllKept() ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "trust_pressure: %s\n", error.what());
  return 2;
}
