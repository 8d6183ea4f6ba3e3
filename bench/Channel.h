#pragma once

// What the measuring process and its children say to each other, over the system's own local stream: a
// socket pair, or a pipe that goes both ways. Twin files: posix/Channel.cpp and windows/Channel.cpp.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bench {

/// What a child is to do.
enum class Task : std::uint32_t {
  // A bare stream's other end. Each is done `count` times.
  kRawEcho,    ///< read `size` bytes, write them back
  kRawAnswer,  ///< read `size` bytes, write one
  kRawSource,  ///< read one byte, write `size`
  kRawSink,    ///< read `size` bytes; at the very end write one
  kRawGroups,  ///< read kGroup times `size` bytes, write one
  // A plugin. Each is answered when it is done.
  kConnect,           ///< start to look for the frame
  kCallHost,          ///< `count` calls of the host with `size` bytes; the answer is what CallRunner gives
  kCallPlugin,        ///< the same, of another plugin through the frame
  kNotifyHost,        ///< `count` notifications
  kNotifyHostGroups,  ///< `count` groups of them, each when the one before was handled; how many in a second
  kPushHost,          ///< `count` pushes
  kExpect,            ///< wait until `count` more notifications have been handled
  kExpectGroups,      ///< the same, of `count` groups, and write one byte for each
  kRegister,          ///< register `count` urls beginning with number `size`
  kIdlePeers,         ///< connect `count` more clients that do nothing
  kIdlePlugins,       ///< start `count` more plugins that do nothing, of PluginName
  // A host. Each is answered when it is done.
  kSilence,        ///< print no line of the frame's log
  kStartFrame,     ///< start the frame as frame_type `size` with `count` listed plugins; milliseconds
  kStartPlugins,   ///< wait for the guard that frame_type 1 brings, and have it start them
  kAwaitInit,      ///< wait until plugin `size` has initialised for the `count`-th time; when, in seconds
  kForgetPeak,     ///< forget how much memory was resident at most; how much is, in KiB
  kPeak,           ///< how much was resident at most since then, in KiB
  kProcessorTime,  ///< how much of the processor's time it has used, in milliseconds
  kStopFrame,      ///< stop the frame in order
};

/// Messages that are sent without waiting, up to the one that the receiver says a byte for.
inline constexpr std::size_t kGroup = 16;

/// What the bytes of a call are, there and back.
enum class Shape : std::uint32_t {
  kBody,
  kHeaders,  ///< the body, with three headers beside it
  kPart,     ///< one part of a multipart message, without a body
};

struct Order {
  Task task = Task::kRawEcho;
  std::uint32_t size = 0;
  std::uint64_t count = 0;
  std::uint32_t callers = 1;  ///< threads that make the calls
  Shape shape = Shape::kBody;
};

/// One end, which reads and writes without any detour: what is measured beside the frame is this. Every
/// failure but the other side's end is a std::runtime_error.
class Channel {
 public:
  /// Takes over a descriptor or handle.
  explicit Channel(std::intptr_t descriptor) : descriptor_(descriptor) {}
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  void Write(const char* data, std::size_t size);
  /// Reads all of `size` bytes; false when the other side has ended instead.
  bool Read(char* data, std::size_t size);

  void Send(const Order& order);
  std::optional<Order> Receive();

  void Answer(const std::vector<double>& samples = {});
  /// Waits for at most a minute, where pipes can be waited for with a limit.
  std::vector<double> TakeAnswer();

  std::intptr_t descriptor() const { return descriptor_; }

  void Say(const std::string& text);
  std::string TakeText();

 private:
  /// Waits for the first byte, or the end, for at most a minute; throws when that is over.
  void AwaitInput() const;

  const std::intptr_t descriptor_;
};

}  // namespace bench
