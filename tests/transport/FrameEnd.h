#pragma once

// A frame for the tests: the transport's server end with a journal of what reached its callback.

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TolmLPCServer/LpcError.h"
#include "TolmLPCServer/LpcOptions.h"
#include "TolmLPCServer/LpcRecords.h"
#include "server/ServerCore.h"

namespace tolm::test {

inline constexpr char kEndpoint[] = "frame";
/// Longer than any test should need; only a failing one waits for so long.
inline constexpr int kLong = 30'000;

class FrameEnd {
 public:
  /// Runs behind the journal, on the transport's thread. May throw.
  using Handler = std::function<void(FrameEnd& frame, const tag_LPCCallBackData& data)>;

  /// The default handler answers requests with what they carried.
  explicit FrameEnd(os::LocalTransport& transport, const lpc::Options& options = {}, Handler handler = Echo);
  ~FrameEnd();
  FrameEnd(const FrameEnd&) = delete;
  FrameEnd& operator=(const FrameEnd&) = delete;

  int Listen(const std::string& name = kEndpoint) { return core_->Start(name); }
  void Stop() { core_->Stop(); }
  lpc::ServerCore& core() { return *core_; }
  lpc::Statistics statistics() const { return core_->GetStatistics(); }

  /// A waiting request; the error.
  int Ask(const std::string& id, const std::string& body, std::string* answer = nullptr,
          int time_out = kLong);
  int Ask(tag_LPCRequestData request, tag_LPCResponseData& response, int time_out = kLong);
  /// An asynchronous request: its id, or 0.
  std::uint64_t Request(const std::string& id, const std::string& body);
  int Notify(const std::string& id, const std::string& body);
  int Answer(const tag_LPCCallBackData& request, const std::string& body);

  /// What arrived so far, without leases.
  std::vector<tag_LPCCallBackData> Records() const;
  /// Of these, what is no status event.
  std::vector<tag_LPCCallBackData> Messages() const;
  /// "connected" and "disconnected" of one peer, in their order.
  std::vector<std::string> StatusesOf(const std::string& id) const;
  /// Waits until the last of them is `status`.
  bool WaitStatus(const std::string& id, const std::string& status) const;

  static void Echo(FrameEnd& frame, const tag_LPCCallBackData& data);
  /// "connected", "disconnected", or empty when it is no such event.
  static std::string StatusIn(const tag_LPCCallBackData& data);

 private:
  const Handler handler_;
  mutable std::mutex mutex_;
  std::vector<tag_LPCCallBackData> records_;  // guarded by mutex_
  const std::shared_ptr<lpc::ServerCore> core_;
};

}  // namespace tolm::test
