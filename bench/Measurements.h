#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Row.h"

namespace bench {

struct Settings {
  bool quick = false;
  /// Rounds, or samples in one: fewer when it has to be quick.
  int Rounds(int usual) const { return quick ? (usual + 2) / 3 : usual; }
  std::size_t Samples(std::size_t usual) const { return quick ? (usual + 3) / 4 : usual; }
};

/// One block of the table.
struct Measurement {
  const char* name;  ///< for --only
  const char* title;
  std::vector<Row> (*make)(const Settings& settings);
};

/// Those that only this system has. Twin files: posix/OwnMeasurements.cpp and windows/OwnMeasurements.cpp.
std::vector<Measurement> OwnMeasurements();

// Each runs in a process of its own, with a frame of its own where it needs one.
std::vector<Row> MeasureRaw(const Settings& settings);
std::vector<Row> MeasureSyncSend(const Settings& settings);
std::vector<Row> MeasurePluginToHost(const Settings& settings);
std::vector<Row> MeasurePluginToPlugin(const Settings& settings);
std::vector<Row> MeasureNotifications(const Settings& settings);
std::vector<Row> MeasureCallers(const Settings& settings);
std::vector<Row> MeasureBandwidth(const Settings& settings);
std::vector<Row> MeasureLookUp(const Settings& settings);
std::vector<Row> MeasureUnwantedLogLine(const Settings& settings);
std::vector<Row> MeasureIdle(const Settings& settings);
std::vector<Row> MeasureMemory(const Settings& settings);
std::vector<Row> MeasureStart(const Settings& settings);
std::vector<Row> MeasurePortTables(const Settings& settings);
std::vector<Row> MeasureGuardEndpoint(const Settings& settings);
std::vector<Row> MeasureGuardMessages(const Settings& settings);
std::vector<Row> MeasureReturn(const Settings& settings);
std::vector<Row> MeasureLargeGuardText(const Settings& settings);

/// A body's size, and how many exchanges make up a round with it.
struct BodySize {
  std::size_t bytes;
  const char* name;
  std::size_t calls_per_round;
};
inline constexpr BodySize kBodySizes[] = {
    {64, "64 B", 4000}, {1u << 10, "1 KiB", 4000}, {64u << 10, "64 KiB", 400}, {1u << 20, "1 MiB", 40}};

}  // namespace bench
