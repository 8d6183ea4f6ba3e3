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

std::string Ratio(double ratio) {
  return ratio == kNone ? "" : Format("%.2fx", ratio);
}

std::string Verdict(double missed) {
  if (missed == kNone) return "";
  return missed == 0 ? "met" : "missed by " + Format("%.1f%%", missed * 100);
}

struct Line {
  std::string name, min, median, max, unit, p99, raw, raw_p99, ratio, rest;
};

void Print(const Line& line) {
  std::printf("  %-31s %10s %10s %10s %-5s %10s  %10s %10s %8s  %s\n", line.name.c_str(), line.min.c_str(),
              line.median.c_str(), line.max.c_str(), line.unit.c_str(), line.p99.c_str(), line.raw.c_str(),
              line.raw_p99.c_str(), line.ratio.c_str(), line.rest.c_str());
}

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char letter : text) {
    if (letter == '"' || letter == '\\') quoted += '\\';
    quoted += letter;
  }
  return quoted + '"';
}

}  // namespace

void PrintBlock(const std::string& name, const std::string& title, const std::vector<Row>& rows) {
  std::printf("\n%s: %s\n", name.c_str(), title.c_str());
  Print({"", "min", "median", "max", "", "p99", "raw", "raw p99", "ratio", "target"});
  for (const Row& row : rows) {
    std::string rest = row.target;
    if (row.missed != kNone) rest += "  " + Verdict(row.missed);
    if (!row.note.empty()) rest += (rest.empty() ? "" : "; ") + row.note;
    Print({row.name, Number(row.min), Number(row.median), Number(row.max), row.unit, Number(row.p99),
           Number(row.raw_median), Number(row.raw_p99), Ratio(row.ratio), rest});
  }
  std::fflush(stdout);
}

std::string RowsAsJson(const std::vector<Row>& rows) {
  std::string text;
  for (const Row& row : rows) {
    text += text.empty() ? "" : ",\n";
    text += "  {\"row\": " + Quoted(row.name) + ", \"unit\": " + Quoted(row.unit);
    const auto add = [&text](const char* key, double value) {
      text += ", " + Quoted(key) + ": " + (value == kNone ? "null" : Format("%.6g", value));
    };
    add("median", row.median);
    add("min", row.min);
    add("max", row.max);
    add("p99", row.p99);
    add("ratio", row.ratio);
    if (row.raw_median != kNone) add("raw_median", row.raw_median);
    if (row.raw_min != kNone) add("raw_min", row.raw_min);
    if (row.raw_max != kNone) add("raw_max", row.raw_max);
    if (row.raw_p99 != kNone) add("raw_p99", row.raw_p99);
    if (!row.target.empty()) text += ", \"target\": " + Quoted(row.target);
    if (row.missed != kNone) add("missed_by", row.missed);
    if (!row.note.empty()) text += ", \"note\": " + Quoted(row.note);
    text += '}';
  }
  return text;
}

}  // namespace bench
