#include "Measurements.h"

namespace bench {

std::vector<Measurement> FrameMeasurements() {
  std::vector<Measurement> all = {
      {"raw",
       "the yardstick: two processes and a bare stream (a Unix socket; on Windows a named pipe), blocking "
       "ping-pong and writes",
       MeasureRaw},
      {"sync_send", "host -> plugin and back, SyncSend, the plugin echoes; raw: ping-pong", MeasureSyncSend},
      {"plugin_to_host", "plugin -> host and back, echoed in the host's callback, measured in the plugin",
       MeasurePluginToHost},
      {"plugin_to_plugin", "plugin -> frame -> plugin and back, measured in the calling plugin",
       MeasurePluginToPlugin},
      {"notify", "notifications, host -> plugin, until the last has been handled; raw: writes",
       MeasureNotifications},
      {"plugin_notify", "notifications, plugin -> host", MeasurePluginNotifications},
      {"push", "pushes, plugin -> host", MeasurePushes},
      {"bandwidth", "1 MiB in a message, one byte the other way; raw: the same", MeasureBandwidth},
      {"lookup", "IsPluginURL for any of the registered urls, and for others", MeasureLookUp},
      {"convert", "headers and parts made ready for the wire, and read from it", MeasureConversion},
      {"pool", "a task handed to a thread; raw: ping-pong of 64 B", MeasurePool},
      {"log", "a log line that nobody wants", MeasureUnwantedLogLine},
      {"machine", "how often, and for how long, the core is taken from a program that only reads the clock",
       MeasureMachine},
      {"idle", "the processor's time of an idle host in ten seconds", MeasureIdle},
  };
  for (const Measurement& own : OwnMeasurements()) all.push_back(own);
  return all;
}

}  // namespace bench
