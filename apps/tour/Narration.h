#pragma once

#include <chrono>
#include <string>

namespace tour {

/// What the tour shows, line by line. For one thread at a time.
class Narration {
 public:
  /// Colours are for terminals only; files get plain text.
  Narration();

  void Title(const std::string& text);
  /// Begins a step: its number, what it is about, and one sentence or two for newcomers.
  void Step(const std::string& heading, const std::string& explanation);
  /// Something that the host does now.
  void Does(const std::string& text);
  /// Something that was observed.
  void Seen(const std::string& text);
  /// Something that was expected and did not happen.
  void Missing(const std::string& text);
  /// A remark.
  void Note(const std::string& text);

 private:
  std::string Styled(const char* style, const std::string& text) const;

  const bool colour_;
  int step_ = 0;
};

/// "0.42 ms", "12 ms", "1.3 s".
std::string InWords(std::chrono::steady_clock::duration duration);

}  // namespace tour
