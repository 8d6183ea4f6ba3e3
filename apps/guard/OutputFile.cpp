#include "OutputFile.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <system_error>
#include <utility>

#include "TolmBase/LogLine.h"
#include "TolmBase/StringUtil.h"
#include "os/PrivateFiles.h"

namespace guard {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxPiece = 8192;
/// Time and tag, with something to spare.
constexpr std::size_t kFrontBytes = 64;
constexpr std::size_t kLastLines = 20;
constexpr std::size_t kMaxLastLine = 512;
constexpr std::chrono::seconds kRetryInterval{1};

std::string TimeText(std::chrono::system_clock::time_point now) {
  using namespace std::chrono;
  const std::time_t seconds = system_clock::to_time_t(floor<std::chrono::seconds>(now));
  const auto fraction = duration_cast<milliseconds>(now - floor<std::chrono::seconds>(now)).count();
  // Several files are written at a time, and localtime has one result for all.
  static os::Mutex mutex;
  const os::MutexLock lock(mutex);
  char day[32] = "";
  if (const std::tm* const local = std::localtime(&seconds)) {
    std::strftime(day, sizeof day, "%Y-%m-%d %H:%M:%S", local);
  }
  char text[48];
  std::snprintf(text, sizeof text, "%s.%03d", day, static_cast<int>(fraction));
  return text;
}

bool IsPlain(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return code == '\t' || (code >= 0x20 && code != 0x7f);
}

}  // namespace

OutputFile::OutputFile(fs::path path, const LogRules& rules, Now now)
    : path_(std::move(path)), now_(now), rules_(rules) {}

void OutputFile::SetRules(const LogRules& rules) {
  const os::MutexLock lock(mutex_);
  rules_ = rules;
}

void OutputFile::Write(std::string_view bytes) {
  const os::MutexLock lock(mutex_);
  if (bytes.empty() && !line_.empty()) EndPiece(false);
  for (const char byte : bytes) AddByte(byte);
}

void OutputFile::AddByte(char byte) {
  if (byte == '\n') {
    constexpr std::string_view kCarriageReturn = "\\x0d";
    if (line_.ends_with(kCarriageReturn)) line_.resize(line_.size() - kCarriageReturn.size());
    EndPiece(false);
    return;
  }
  if (IsPlain(byte)) {
    line_ += byte;
  } else {
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(byte));
    line_ += escaped;
  }
  const std::size_t longest = std::min(kMaxPiece, rules_.max_bytes - std::min(rules_.max_bytes, kFrontBytes));
  if (line_.size() >= longest) EndPiece(true);
}

void OutputFile::EndPiece(bool continues) {
  // The end of a line that was cut just there is no line of its own.
  if (!line_.empty() || !is_continued_) {
    WriteLine(is_continued_ ? "[...] " : "[out] ", line_);
    last_lines_.push_back(line_.substr(0, kMaxLastLine));
    if (last_lines_.size() > kLastLines) last_lines_.pop_front();
  }
  line_.clear();
  is_continued_ = continues;
}

void OutputFile::Note(std::string_view line) {
  const os::MutexLock lock(mutex_);
  WriteLine("[guard] ", Tolm::Base::StringUtil::MaskSessionIds(line));
}

std::vector<std::string> OutputFile::LastLines() const {
  const os::MutexLock lock(mutex_);
  std::vector<std::string> lines(last_lines_.begin(), last_lines_.end());
  if (!line_.empty()) lines.push_back(line_.substr(0, kMaxLastLine));
  if (lines.size() > kLastLines) lines.erase(lines.begin());
  return lines;
}

void OutputFile::ForgetLastLines() {
  const os::MutexLock lock(mutex_);
  last_lines_.clear();
}

void OutputFile::WriteLine(std::string_view tag, std::string_view text) {
  std::string line = TimeText(now_()) + " ";
  line.append(tag).append(text).append("\n");
  if (Append(line)) return;
  ++lost_lines_;
}

bool OutputFile::Append(const std::string& line) {
  const auto now = std::chrono::steady_clock::now();
  if (failed_ && now < retry_at_) return false;
  if (!file_.is_open()) {
    os::MakePrivateFolders(path_.parent_path());
    // It holds what the plugin prints, and its command line.
    os::MakePrivateFile(path_);
    std::error_code error;
    file_.open(path_, std::ios::binary | std::ios::app);
    const auto size = fs::file_size(path_, error);
    size_ = error ? 0 : static_cast<std::size_t>(size);
  }
  if (file_.is_open() && size_ > 0 && size_ + line.size() > rules_.max_bytes) Rotate();
  // Flushed each time: what a full disk refuses shows only then, and whoever reads the file after a
  // crash needs the last lines most.
  file_ << line << std::flush;
  if (file_.is_open() && file_.good()) {
    size_ += line.size();
    if (std::exchange(failed_, false)) {
      TOLM_LOG(Tolm::Base::kLogLevelWarning, "TolmGuard", "%s can be written again, %zu lines are lost",
               path_.string().c_str(), std::exchange(lost_lines_, 0));
    }
    return true;
  }
  file_.close();
  file_.clear();
  retry_at_ = now + kRetryInterval;
  if (!std::exchange(failed_, true)) {
    TOLM_LOG(Tolm::Base::kLogLevelError, "TolmGuard", "Lines are lost: cannot write %s",
             path_.string().c_str());
  }
  return false;
}

void OutputFile::Rotate() {
  file_.close();
  file_.clear();
  std::error_code ignored;
  // What is left over from a time with more files goes as well.
  for (int n = rules_.files; fs::remove(OldFile(n), ignored); ++n) {
  }
  for (int n = rules_.files - 1; n > 0; --n) {
    fs::rename(n == 1 ? path_ : OldFile(n - 1), OldFile(n), ignored);
  }
  os::MakePrivateFile(path_);
  // Truncated in any case: when the renaming fails, the bound still holds.
  file_.open(path_, std::ios::binary | std::ios::trunc);
  size_ = 0;
}

fs::path OutputFile::OldFile(int n) const {
  fs::path path = path_;
  path += "." + std::to_string(n);
  return path;
}

}  // namespace guard
