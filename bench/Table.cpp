#include "Table.h"

#include <cstdio>

namespace bench {
namespace {

std::string Format(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::string Number(double value) {
  if (value == kNone) return "";
  return Format(value < 100 ? "%.2f" : value < 10'000 ? "%.1f" : "%.0f", value);
}

std::string Percent(double part) {
  return part == kNone ? "" : Format("%.0f%%", part * 100);
}

std::string Ratio(double ratio) {
  return ratio == kNone ? "" : Format("%.2fx", ratio);
}

std::string Verdict(double missed) {
  if (missed == kNone) return "";
  return missed == 0 ? "met" : "missed by " + Format("%.1f%%", missed * 100);
}

void PrintLine(const std::string& name, const std::string& unit, const std::string& median,
               const std::string& p99, const std::string& spread, const std::string& raw,
               const std::string& raw_p99, const std::string& raw_spread, const std::string& ratio,
               const std::string& rest) {
  std::printf("  %-42s %10s %-5s %10s %7s  %10s %10s %7s %8s  %s\n", name.c_str(), median.c_str(),
              unit.c_str(), p99.c_str(), spread.c_str(), raw.c_str(), raw_p99.c_str(), raw_spread.c_str(),
              ratio.c_str(), rest.c_str());
}

std::string Quoted(const std::string& text) {
  return '"' + text + '"';
}

}  // namespace

void PrintBlock(const std::string& name, const std::string& title, const std::vector<Row>& rows) {
  std::printf("\n%s: %s\n", name.c_str(), title.c_str());
  PrintLine("", "", "median", "p99", "spread", "raw", "raw p99", "spread", "ratio", "target");
  for (const Row& row : rows) {
    std::string rest = row.target;
    if (row.missed != kNone) rest += "  " + Verdict(row.missed);
    if (!row.note.empty()) rest += (rest.empty() ? "" : "; ") + row.note;
    PrintLine(row.name, row.unit, Number(row.median), Number(row.p99), Percent(row.spread),
              Number(row.raw_median), Number(row.raw_p99), Percent(row.raw_spread), Ratio(row.ratio), rest);
  }
  std::fflush(stdout);
}

std::string BlockAsJson(const std::string& name, const std::vector<Row>& rows) {
  std::string text;
  for (const Row& row : rows) {
    text += text.empty() ? "" : ",\n";
    text += "  {\"block\": " + Quoted(name) + ", \"row\": " + Quoted(row.name) +
            ", \"unit\": " + Quoted(row.unit);
    const auto add = [&text](const char* key, double value) {
      if (value != kNone) text += ", " + Quoted(key) + ": " + Format("%.6g", value);
    };
    add("median", row.median);
    add("p99", row.p99);
    add("spread", row.spread);
    add("raw_median", row.raw_median);
    add("raw_p99", row.raw_p99);
    add("raw_spread", row.raw_spread);
    add("ratio", row.ratio);
    if (!row.target.empty()) text += ", \"target\": " + Quoted(row.target);
    add("missed_by", row.missed);
    text += '}';
  }
  return text;
}

}  // namespace bench
