#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace trust {

/// What was done, by kind, and how it ended. From any thread.
class Tally {
 public:
  /// `kind` went as it should.
  void Good(const std::string& kind) { Count(kind, true, {}); }
  /// It did not, and nobody knows why: `why` is kept, the first few times.
  void Unexplained(const std::string& kind, const std::string& why) { Count(kind, false, why); }
  void Expect(const std::string& kind, bool good, const std::string& why) { Count(kind, good, why); }

  /// The figures soak.count.KIND, of all kinds that there are, and soak.unexplained, after a run of so many
  /// seconds.
  void Print(double seconds) const;

 private:
  void Count(const std::string& kind, bool good, const std::string& why);

  mutable std::mutex mutex_;
  // All below is guarded by mutex_.
  std::map<std::string, std::uint64_t> good_;
  std::uint64_t unexplained_ = 0;
};

}  // namespace trust
