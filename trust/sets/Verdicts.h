#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace trust {

/// Counts what a set of cases came to. Those that came out wrong are printed, a line each; the first fifty.
class Verdicts {
 public:
  /// `set` stands in the figures' names: "sets.<set>.cases".
  explicit Verdicts(std::string_view set) : set_(set) {}

  /// One case; `what` tells it from the others.
  void Expect(bool right, std::string_view what, std::string_view expected = {}, std::string_view got = {});
  /// What is expected of a case is not what the rule has, and why.
  void Deviates(std::string_view why) { ++deviations_[std::string(why)]; }

  /// Prints how many cases there were, at least `least`, how many deviate and why, and how many are wrong,
  /// which is to be none.
  void Print(std::size_t least) const;

 private:
  const std::string set_;
  std::size_t cases_ = 0;
  std::size_t wrong_ = 0;
  std::map<std::string, std::size_t> deviations_;
};

/// Bytes as a line can show them: those that are not printable as \xNN.
std::string Shown(std::string_view bytes);

}  // namespace trust
