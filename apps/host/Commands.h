#pragma once

#include <TolmLPCFrame.h>

#include <future>
#include <list>
#include <string>

#include "Console.h"

namespace host {

/// What a person may type, done with the frame. Calls run side by side; each prints its answer when it
/// comes. Destruction waits for them.
class Commands {
 public:
  static constexpr char kHelp[] =
      "  call URL [BODY]     asks, and prints the answer under the call's number\n"
      "  notify URL [BODY]   tells, and waits for nothing\n"
      "  announce [CMDLINE]  tells the guard that the plugins may be started, with this command line\n"
      "  start ID            asks the guard to start one plugin\n"
      "  who URL             prints whether a plugin serves it\n"
      "  stop                ends the frame and this program, as the end of input and Ctrl-C do";

  explicit Commands(Console& console) : console_(console) {}
  /// Carries out one line; false when it is "stop".
  bool Run(const std::string& line);

  /// For the frame: prints what it tells, and answers requests with their own body. `user` is the Console.
  static bool Callback(const TolmLPCFrame::FrameCallBackData& event, void* user);

 private:
  void Call(const std::string& url, const std::string& body);

  Console& console_;
  int calls_ = 0;
  std::list<std::future<void>> callers_;  ///< those that have ended go with the next call
};

}  // namespace host
