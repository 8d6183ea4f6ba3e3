#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace tolm::test {

/// Another user of this machine: a process of this program's that has given up who it is, for good. Only root
/// can have one. To be made before the test has threads, in whose locks a copy of it could be caught.
class Stranger {
 public:
  /// A user that nobody is.
  static constexpr unsigned kUser = 65534;
  static bool IsPossible();

  /// `act` runs over there, once for each question, and gives the answer. Neither holds a line feed.
  explicit Stranger(std::function<std::string(std::string_view question)> act);
  ~Stranger();
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  /// Waits for the answer; "gone" when there will be none.
  std::string Ask(std::string_view question);

 private:
  int channel_ = -1;
  long id_ = -1;
};

/// Connects to the Unix socket at `path`, says `words`, and gives what came back to the end: "said 12"
/// (bytes), or "refused 13" (errno) when there was no connection.
std::string TryUnixSocket(const std::string& path, std::string_view words);

}  // namespace tolm::test
