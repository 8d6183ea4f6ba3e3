#pragma once

namespace trust {

struct PressureSettings {
  /// A run of a few seconds, for builds in which times mean nothing: only what does not depend on them is
  /// bound.
  bool quick = false;
};

// Each needs a process of its own with one thread, and prints its figures.

/// A plugin stops reading while others are called.
void Stalled(const PressureSettings& settings);
/// A million notifications, from a plugin and to one.
void Flood(const PressureSettings& settings);
/// The largest bodies beside the smallest calls.
void LargeBody(const PressureSettings& settings);
/// Many threads call when the frame is stopped.
void StopInTheMiddle(const PressureSettings& settings);
/// A plugin's queue is full of its own messages when it has to register.
void FullStart(const PressureSettings& settings);
/// A host with hardly any descriptors, and very many who want to be connected.
void FewDescriptors(const PressureSettings& settings);
/// Large blocks of memory are refused.
void NoMemory(const PressureSettings& settings);

}  // namespace trust
