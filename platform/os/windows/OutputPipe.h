#pragma once

#include <memory>
#include <string_view>

#include "Handle.h"

namespace os {

/// The end of a pipe through which a child's output arrives. It is awaited together with other objects,
/// which is why it is no anonymous pipe.
class OutputPipe {
 public:
  OutputPipe();
  ~OutputPipe();
  OutputPipe(OutputPipe&&) noexcept;
  OutputPipe& operator=(OutputPipe&&) noexcept;

  /// The child's end, which it may inherit; none when the system says no (GetLastError). To be called once,
  /// before anything else.
  Handle Open();
  /// To be called once, on the thread that goes on with it: the system gives up what a thread was reading
  /// when the thread ends.
  void Begin();

  bool is_open() const;
  /// Signalled while Take has something to tell.
  HANDLE ready() const;

  enum class Came { kNothing, kPiece, kEnd };
  /// `piece` is there until the next call. At the end of all output the pipe is closed.
  Came Take(std::string_view& piece);
  void Close();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace os
