// The library for hosts and the one for plugins in one program.
#include <TolmLPCFrame.h>
#include <TolmPlugin/Plugin.h>

#include <cstdio>

int main() {
  const TolmPlugin::Plugin plugin("nobody", "is not started");
  int time_out = 0;
  if (TolmLPCFrame::IsPluginURL(time_out, "/nowhere")) return 1;
  std::printf("both sides work\n");
  return 0;
}
