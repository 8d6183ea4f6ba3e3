// Parsers against published rules: tables of cases with the verdict that the rule has for each, and figures
// of how many there were and how many came out wrong.
//
// usage: trust_sets [SET...]     json nesting utf8 base64 websocket_client

#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include "Sets.h"
#include "support/Figures.h"

namespace {

constexpr struct {
  std::string_view name;
  void (*run)();
} kSets[] = {
    {"json", trust::RunJson},
    {"nesting", trust::RunNesting},
    {"utf8", trust::RunUtf8},
    {"base64", trust::RunBase64},
    {"websocket_client", trust::RunWebSocketClient},
};

}  // namespace

int main(int argc, char** argv) try {
  int known = 0;
  for (const auto& [name, run] : kSets) {
    bool wanted = argc == 1;
    for (int i = 1; i < argc; ++i) wanted |= name == argv[i];
    if (!wanted) continue;
    ++known;
    run();
  }
  if (argc > 1 && known != argc - 1) {
    std::fprintf(stderr, "trust_sets: there is no such set\n");
    return 2;
  }
  return trust::AllKept() ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "trust_sets: %s\n", error.what());
  return 1;
}
