// The smallest useful plugin: tells the time at one URL. Start it beside example_host:
//   example_clock_plugin --endpoint example
#include <TolmPlugin/Plugin.h>

#include <ctime>
#include <string>

int main(int argc, char** argv) {
  TolmPlugin::Plugin plugin("clock", "tells the time");
  plugin.Serve("/clock/now", [](const TolmPlugin::Request&) {
    return TolmPlugin::Message{.body = std::to_string(std::time(nullptr))};
  });
  return plugin.Run(argc, argv);
}
