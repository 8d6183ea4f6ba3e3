#include "LogCapture.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "TolmBase/Log.h"

namespace tolm::test {
namespace {

// A line that is under way on another thread when a capture ends finds nobody here, and not a capture
// that is gone.
struct Current {
  std::mutex mutex;
  LogCapture* capture = nullptr;
};

Current& TheCurrent() {
  static Current* const current = new Current;
  return *current;
}

}  // namespace

bool operator==(const LogLine& a, const LogLine& b) {
  return a.level == b.level && a.tag == b.tag && a.function == b.function && a.text == b.text;
}

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << line.level << ' ' << line.tag << " [" << line.function << ']' << line.text << " ("
             << line.file << ':' << line.line << ')';
}

LogLine ParseLogLine(int level, std::string_view tag, std::string_view whole) {
  LogLine line;
  line.level = level;
  line.tag = tag;
  line.whole = whole;
  line.text = whole;

  const std::size_t function_end = whole.find(']');
  const std::size_t place = whole.rfind('[');
  if (whole.empty() || whole.front() != '[' || function_end == std::string_view::npos ||
      place <= function_end || !whole.ends_with(")]")) {
    return line;
  }
  const std::size_t bracket = whole.rfind('(');
  if (bracket == std::string_view::npos || bracket < place) return line;
  const std::string_view number = whole.substr(bracket + 1, whole.size() - bracket - 3);
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), line.line);
  if (error != std::errc() || end != number.data() + number.size()) return line;

  line.function = whole.substr(1, function_end - 1);
  line.text = whole.substr(function_end + 1, place - function_end - 1);
  line.file = whole.substr(place + 1, bracket - place - 1);
  return line;
}

LogCapture::LogCapture(int level, std::function<void(const LogLine&)> observer)
    : observer_(std::move(observer)) {
  {
    const std::lock_guard lock(TheCurrent().mutex);
    TheCurrent().capture = this;
  }
  Tolm::Base::SetLogStderrLevel(Tolm::Base::kLogLevelOff);
  SetLevel(level);
}

LogCapture::~LogCapture() {
  Tolm::Base::SetLogCallback(nullptr, nullptr, Tolm::Base::kLogLevelOff);
  Tolm::Base::SetLogStderrLevel(Tolm::Base::kLogLevelError);
  const std::lock_guard lock(TheCurrent().mutex);
  TheCurrent().capture = nullptr;
}

void LogCapture::SetLevel(int level) {
  Tolm::Base::SetLogCallback(&LogCapture::Receive, nullptr, level);
}

std::vector<LogLine> LogCapture::Lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<LogLine> LogCapture::LinesOf(std::string_view function) const {
  std::vector<LogLine> lines = Lines();
  std::erase_if(lines, [function](const LogLine& line) {
    return !std::string_view(line.function).ends_with(function);
  });
  return lines;
}

std::size_t LogCapture::CountOf(const LogLine& line) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line));
}

void LogCapture::Clear() {
  const std::lock_guard lock(mutex_);
  lines_.clear();
}

void LogCapture::Receive(int level, const char* tag, const char* text, void*) {
  const std::lock_guard current(TheCurrent().mutex);
  LogCapture* const capture = TheCurrent().capture;
  if (capture == nullptr) return;
  const std::lock_guard lock(capture->mutex_);
  capture->lines_.push_back(ParseLogLine(level, tag, text));
  if (capture->observer_) capture->observer_(capture->lines_.back());
}

}  // namespace tolm::test
