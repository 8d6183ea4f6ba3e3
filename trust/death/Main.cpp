// Death, of real processes over the real transport.
//
//   trust_death kills [--kills N] [--seed N]
//   trust_death crowd [--plugins N] [--rounds N]
//   trust_death moments [--rounds N]

#include <cstdio>
#include <exception>
#include <map>
#include <string>

#include "Crowd.h"
#include "Kills.h"
#include "Moments.h"
#include "support/Figures.h"

namespace {

int Number(const std::map<std::string, std::string>& options, const char* name, int otherwise) {
  const auto found = options.find(name);
  return found == options.end() ? otherwise : std::stoi(found->second);
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const std::string what = argc > 1 ? argv[1] : "";
  std::map<std::string, std::string> options;
  for (int i = 2; i + 1 < argc; i += 2) options[argv[i]] = argv[i + 1];
  try {
    if (what == "kills") {
      trust::death::KillOptions kills;
      kills.kills = Number(options, "--kills", kills.kills);
      kills.seed = static_cast<unsigned>(Number(options, "--seed", static_cast<int>(kills.seed)));
      trust::death::RunKills(kills);
    } else if (what == "crowd") {
      trust::death::CrowdOptions crowd;
      crowd.plugins = Number(options, "--plugins", crowd.plugins);
      crowd.rounds = Number(options, "--rounds", crowd.rounds);
      trust::death::RunCrowd(crowd);
    } else if (what == "moments") {
      trust::death::RunMoments(Number(options, "--rounds", 20));
    } else {
      std::fprintf(stderr, "kills, crowd or moments?\n");
      return 2;
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "trust_death: %s\n", error.what());
    return 1;
  }
  return trust::AllKept() ? 0 : 1;
}
