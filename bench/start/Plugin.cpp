// A plugin as small as it can be, for how long it takes to start one.

#include "TolmPlugin/Plugin.h"
#include "start/Names.h"

int main(int argc, char** argv) {
  TolmPlugin::Plugin plugin(bench::kStartPlugin);
  plugin.Serve(bench::kStartUrl, [](const TolmPlugin::Request& request) {
    return TolmPlugin::Message{.body = request.message.body};
  });
  return plugin.Run(argc, argv);
}
