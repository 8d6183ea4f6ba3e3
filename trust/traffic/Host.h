#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "TolmLPCFrame.h"

namespace trust {

/// Urls that the host serves itself.
inline constexpr char kHostEcho[] = "/host/echo";
inline constexpr char kHostSize[] = "/host/size";      ///< answers with the number of the body's bytes
inline constexpr char kHostCount[] = "/host/count";    ///< for notifications
inline constexpr char kHostSilent[] = "/host/silent";  ///< never answers

/// What became of a call.
struct Outcome {
  bool answered = false;
  int code = 0;  ///< of lpc::Error, when it was not answered
  double microseconds = 0;
  std::string body;
};

/// The frame in this process, and its one callback. One at a time.
class Host {
 public:
  /// Listens as `endpoint` for the plugins `ids`. Throws when it does not start.
  Host(std::string endpoint, const std::vector<std::string>& ids);
  /// As Stop.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  const std::string& endpoint() const { return endpoint_; }
  /// What TolmLPCFrameUnInit gives; 0 when it was stopped before.
  int Stop();

  Outcome Call(const std::string& url, std::string_view body, int time_out_ms) const;
  Outcome Call(const TolmLPCFrame::LPCData& request, int time_out_ms) const;
  /// kOk or the code.
  static int Notify(const std::string& url, const std::string& body);

  /// How often an event of the kind `type` has come for the plugin `id`.
  std::uint64_t Events(std::int32_t type, const std::string& id) const;
  /// Waits until it has come `count` times.
  bool AwaitEvents(std::int32_t type, const std::string& id, std::uint64_t count, int time_out_ms) const;
  /// The same for an id's "InitFinish"; throws when it does not come.
  void AwaitInited(const std::string& id, std::uint64_t count = 1) const;

  /// From here on, or no more, the callback stays in every notification.
  void Hold(bool holds);

  std::uint64_t notified() const { return notified_.load(); }
  std::uint64_t pushed() const { return pushed_.load(); }
  std::uint64_t answered_later() const { return answered_later_.load(); }

 private:
  static bool Callback(const TolmLPCFrame::FrameCallBackData& data, void* user);
  void Receive(const TolmLPCFrame::LPCData& data);

  const std::string endpoint_;
  bool running_ = true;
  std::atomic<std::uint64_t> notified_{0};
  std::atomic<std::uint64_t> pushed_{0};
  std::atomic<std::uint64_t> answered_later_{0};
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  // All below is guarded by mutex_.
  std::map<std::pair<std::int32_t, std::string>, std::uint64_t> events_;
  bool holds_ = false;
};

}  // namespace trust
