#include "Measurements.h"

namespace bench {

// They rely on copies of a process, on files of the system's, or on an agent and a guard.
std::vector<Measurement> OwnMeasurements() {
  return {
      {"memory", "resident memory of the host with idle plugins", MeasureMemory},
      {"start",
       "a host's and a plugin's process, or TolmLPCFrameInit while a plugin looks for it, to the first "
       "answered "
       "call",
       MeasureStart},
      {"ports", "who holds which port, on a busy machine; raw: the same files read once and not looked into",
       MeasurePortTables},
      {"endpoint", "TolmLPCFrameInit with the guard's endpoint; raw: without LpcFrame.xml, hence without it",
       MeasureGuardEndpoint},
      {"guard", "a guard's question and its answer; raw: as many bytes over a bare loopback TCP socket",
       MeasureGuardMessages},
      {"return", "kill -9 of a plugin to its successor's InitFinish; raw: the plugin started directly",
       MeasureReturn},
      {"large", "a guard's text of 60 MiB: how much memory of the host it takes, in copies of it",
       MeasureLargeGuardText},
  };
}

}  // namespace bench
