// A plugin that calls another one: it asks for a URL, and the frame finds who serves it. Start it beside
// example_host and example_clock_plugin:
//   example_relay_plugin --endpoint example
#include <TolmPlugin/Plugin.h>

#include <stdexcept>

int main(int argc, char** argv) {
  TolmPlugin::Plugin plugin("relay", "says what the clock says");
  plugin.Serve("/relay/now", [&plugin](const TolmPlugin::Request&) {
    TolmPlugin::Message answer;
    if (!plugin.Call(answer, {.url = "/clock/now", .method = "GET"}, 2000)) {
      throw std::runtime_error("the clock does not answer");
    }
    return TolmPlugin::Message{.body = "the clock says " + answer.body};
  });
  return plugin.Run(argc, argv);
}
