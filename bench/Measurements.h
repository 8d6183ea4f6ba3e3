#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Row.h"
#include "Settings.h"

namespace bench {

/// One block of the table. What its rows are called begins with its name.
struct Measurement {
  const char* name;  ///< for --only
  const char* title;
  std::vector<Row> (*make)(const Settings& settings);  ///< null: another program makes it
};

/// All of this program, in order.
std::vector<Measurement> FrameMeasurements();
/// Those that only this system has. Twin files: posix/OwnMeasurements.cpp and windows/OwnMeasurements.cpp.
std::vector<Measurement> OwnMeasurements();

// Each runs in a process of its own, with a frame of its own where it needs one.
std::vector<Row> MeasureRaw(const Settings& settings);
std::vector<Row> MeasureRawAgain(const Settings& settings);
std::vector<Row> MeasureSyncSend(const Settings& settings);
std::vector<Row> MeasurePluginToHost(const Settings& settings);
std::vector<Row> MeasurePluginToPlugin(const Settings& settings);
std::vector<Row> MeasureNotifications(const Settings& settings);
std::vector<Row> MeasurePluginNotifications(const Settings& settings);
std::vector<Row> MeasurePushes(const Settings& settings);
std::vector<Row> MeasureBandwidth(const Settings& settings);
std::vector<Row> MeasureLookUp(const Settings& settings);
std::vector<Row> MeasureConversion(const Settings& settings);
std::vector<Row> MeasurePool(const Settings& settings);
std::vector<Row> MeasureUnwantedLogLine(const Settings& settings);
std::vector<Row> MeasureMachine(const Settings& settings);
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
  std::size_t calls;
};
inline constexpr BodySize kBodySizes[] = {{64, "64", 4000},
                                          {1u << 10, "1K", 4000},
                                          {64u << 10, "64K", 400},
                                          {1u << 20, "1M", 40},
                                          {16u << 20, "16M", 4}};

/// The same of messages one way. They fit into the queues, so that what is measured is not waiting.
struct BurstSize {
  std::size_t bytes;
  const char* name;
  std::size_t count;
};
inline constexpr BurstSize kBurstSizes[] = {
    {64, "64", 60'000}, {1u << 10, "1K", 20'000}, {64u << 10, "64K", 600}, {1u << 20, "1M", 40}};

}  // namespace bench
