#include "OutputLines.h"

#include <utility>

namespace tolm::agent {

OutputLines::OutputLines(std::function<void(const std::string&)> on_line) : on_line_(std::move(on_line)) {}

void OutputLines::Add(std::string_view piece) {
  if (piece.empty() && !line_.empty()) Complete();
  for (const char c : piece) {
    if (c == '\n') {
      Complete();
    } else if (c != '\r' && c != '\0') {  // neither belongs to a line of a log
      line_ += c;
      if (line_.size() == kLongest) Complete();
    }
  }
}

void OutputLines::Complete() {
  on_line_(line_);
  line_.clear();
}

}  // namespace tolm::agent
