#include "Narration.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "System.h"

namespace tour {
namespace {

constexpr char kBold[] = "1";
constexpr char kDim[] = "2";
constexpr char kGreen[] = "32";
constexpr char kRed[] = "1;31";
constexpr char kHeading[] = "1;36";

}  // namespace

Narration::Narration() : colour_(std::getenv("NO_COLOR") == nullptr && ShowsColours()) {}

void Narration::Title(const std::string& text) {
  std::cout << '\n' << Styled(kBold, text) << std::endl;
}

void Narration::Step(const std::string& heading, const std::string& explanation) {
  ++step_;
  const std::string number = (step_ < 10 ? " " : "") + std::to_string(step_);
  std::cout << '\n' << Styled(kHeading, number + ". " + heading) << '\n';
  Note(explanation);
}

void Narration::Does(const std::string& text) {
  std::cout << "    → " << text << std::endl;
}

void Narration::Seen(const std::string& text) {
  std::cout << "    " << Styled(kGreen, "✓") << ' ' << text << std::endl;
}

void Narration::Missing(const std::string& text) {
  std::cout << "    " << Styled(kRed, "✗ " + text) << std::endl;
}

void Narration::Note(const std::string& text) {
  std::cout << "    " << Styled(kDim, text) << std::endl;
}

std::string Narration::Styled(const char* style, const std::string& text) const {
  return colour_ ? std::string("\033[") + style + 'm' + text + "\033[0m" : text;
}

std::string InWords(std::chrono::steady_clock::duration duration) {
  const double ms = std::chrono::duration<double, std::milli>(duration).count();
  char text[32];
  if (ms >= 1000) {
    std::snprintf(text, sizeof text, "%.1f s", ms / 1000);
  } else {
    std::snprintf(text, sizeof text, ms < 10 ? "%.2f ms" : "%.0f ms", ms);
  }
  return text;
}

}  // namespace tour
