#include "ManifestReader.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "os/UserPlaces.h"
#include "os/Utf8Path.h"

namespace guard {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxFileBytes = 1048576;
constexpr std::size_t kMaxDepth = 8;
constexpr double kDayMs = 86400000;
constexpr double kHourMs = 3600000;

std::string InWords(double number) {
  std::string text = std::to_string(number);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

/// One pass over one document: each member is taken by the reader of its key, and what cannot be taken
/// becomes a fault.
class Reader {
 public:
  Reader(const fs::path& folder, ManifestReading& reading) : folder_(folder), reading_(reading) {
    manifest_.id = reading.claimed_id;
    manifest_.working_folder = folder;
  }

  void Read(const JsonValue& root) {
    if (root.kind != JsonValue::Kind::kObject) {
      Fault(root.position, "", "must be an object");
      return;
    }
    ReadMembers(
        root, "",
        {{"$schema", [this](const auto& value, const auto& key) { Text(value, key, ignored_); }},
         {"id", [this](const auto& value, const auto& key) { Id(value, key); }},
         {"program",
          [this](const auto& value, const auto& key) {
            reading_.program_position = value.position;
            Path(value, key, manifest_.program);
          }},
         {"arguments", [this](const auto& value, const auto& key) { Arguments(value, key); }},
         {"workingFolder",
          [this](const auto& value, const auto& key) {
            reading_.working_folder_position = value.position;
            Path(value, key, manifest_.working_folder);
          }},
         {"environment", [this](const auto& value, const auto& key) { Environment(value, key); }},
         {"description",
          [this](const auto& value, const auto& key) { Text(value, key, manifest_.description); }},
         {"stopGraceMs",
          [this](const auto& value, const auto& key) { Time(value, key, 0, kHourMs, manifest_.stop_grace); }},
         {"restart", [this](const auto& value, const auto& key) { Restart(value, key); }},
         {"log", [this](const auto& value, const auto& key) { Log(value, key); }}});
    const bool has_program = std::any_of(root.members.begin(), root.members.end(),
                                         [](const auto& member) { return member.key == "program"; });
    if (!has_program) Fault(root.position, "program", "is missing");
    if (reading_.faults.empty()) reading_.manifest = std::move(manifest_);
  }

 private:
  using MemberReader = std::function<void(const JsonValue& value, const std::string& key)>;
  struct KnownMember {
    std::string_view key;
    MemberReader read;
  };

  void Fault(Position position, std::string key, std::string what) {
    reading_.faults.push_back({position, std::move(key), std::move(what)});
  }

  void ReadMembers(const JsonValue& object, const std::string& prefix,
                   const std::vector<KnownMember>& known) {
    std::set<std::string_view> seen;
    for (const JsonValue::Member& member : object.members) {
      const std::string key = prefix + member.key;
      const auto reader = std::find_if(known.begin(), known.end(),
                                       [&](const KnownMember& one) { return one.key == member.key; });
      if (reader == known.end()) {
        Fault(member.position, key, "is not known");
      } else if (!seen.insert(reader->key).second) {
        Fault(member.position, key, "stands here a second time");
      } else {
        reader->read(member.value, key);
      }
    }
  }

  bool Text(const JsonValue& value, const std::string& key, std::string& into) {
    if (value.kind != JsonValue::Kind::kText) {
      Fault(value.position, key, "must be a text");
      return false;
    }
    if (value.text.find('\0') != std::string::npos) {
      Fault(value.position, key, "must not hold a NUL character");
      return false;
    }
    into = value.text;
    return true;
  }

  bool Number(const JsonValue& value, const std::string& key, double least, double most, bool whole,
              double& into) {
    const bool is_number = value.kind == JsonValue::Kind::kNumber && value.number >= least &&
                           value.number <= most && (!whole || value.number == std::floor(value.number));
    if (!is_number) {
      Fault(value.position, key,
            std::string("must be a ") + (whole ? "whole " : "") + "number from " + InWords(least) + " to " +
                InWords(most));
      return false;
    }
    into = value.number;
    return true;
  }

  bool Time(const JsonValue& value, const std::string& key, double least, double most, Milliseconds& into) {
    double number = 0;
    if (!Number(value, key, least, most, true, number)) return false;
    into = Milliseconds(static_cast<std::int64_t>(number));
    return true;
  }

  void Path(const JsonValue& value, const std::string& key, fs::path& into) {
    std::string text;
    if (!Text(value, key, text)) return;
    if (text.empty()) {
      Fault(value.position, key, "must not be empty");
      return;
    }
    into = (folder_ / os::Utf8Path(text)).lexically_normal();
  }

  void Id(const JsonValue& value, const std::string& key) {
    std::string id;
    if (!Text(value, key, id)) return;
    const std::string folder_name = std::exchange(reading_.claimed_id, id);
    if (id != folder_name) Fault(value.position, key, "must be the folder's name, \"" + folder_name + "\"");
  }

  void Arguments(const JsonValue& value, const std::string& key) {
    if (value.kind != JsonValue::Kind::kArray) {
      Fault(value.position, key, "must be an array of texts");
      return;
    }
    for (const JsonValue& element : value.elements) {
      const std::size_t n = manifest_.arguments.size() + 1;
      Text(element, key + "[" + std::to_string(n) + "]", manifest_.arguments.emplace_back());
    }
  }

  void Environment(const JsonValue& value, const std::string& key) {
    if (value.kind != JsonValue::Kind::kObject) {
      Fault(value.position, key, "must be an object of texts");
      return;
    }
    for (const JsonValue::Member& member : value.members) {
      const std::string name = key + "." + member.key;
      std::string text;
      if (member.key.empty() || member.key.find_first_of(std::string_view("=\0", 2)) != std::string::npos) {
        Fault(member.position, name, "a variable's name must not be empty nor hold \"=\" or NUL");
      } else if (manifest_.environment.contains(member.key)) {
        Fault(member.position, name, "stands here a second time");
      } else if (Text(member.value, name, text)) {
        manifest_.environment.emplace(member.key, text);
      }
    }
  }

  void Restart(const JsonValue& value, const std::string& key) {
    if (value.kind != JsonValue::Kind::kObject) {
      Fault(value.position, key, "must be an object");
      return;
    }
    RestartRules& rules = manifest_.restart;
    ReadMembers(
        value, key + ".",
        {{"policy", [this](const auto& member, const auto& name) { Policy(member, name); }},
         {"firstDelayMs",
          [&](const auto& member, const auto& name) { Time(member, name, 0, kHourMs, rules.first_delay); }},
         {"factor",
          [&](const auto& member, const auto& name) { Number(member, name, 1, 100, false, rules.factor); }},
         {"maxDelayMs",
          [&](const auto& member, const auto& name) { Time(member, name, 0, kDayMs, rules.max_delay); }},
         {"jitter",
          [&](const auto& member, const auto& name) { Number(member, name, 0, 1, false, rules.jitter); }},
         {"giveUpAfter",
          [&](const auto& member, const auto& name) {
            double count = rules.give_up_after;
            if (Number(member, name, 0, 10000, true, count)) rules.give_up_after = static_cast<int>(count);
          }},
         {"withinMs",
          [&](const auto& member, const auto& name) { Time(member, name, 1, kDayMs, rules.within); }},
         {"stableAfterMs",
          [&](const auto& member, const auto& name) { Time(member, name, 1, kDayMs, rules.stable_after); }}});
  }

  void Policy(const JsonValue& value, const std::string& key) {
    RestartRules::When& when = manifest_.restart.when;
    if (value.kind == JsonValue::Kind::kText && value.text == "always") {
      when = RestartRules::When::kAlways;
    } else if (value.kind == JsonValue::Kind::kText && value.text == "onCrash") {
      when = RestartRules::When::kOnCrash;
    } else if (value.kind == JsonValue::Kind::kText && value.text == "never") {
      when = RestartRules::When::kNever;
    } else {
      Fault(value.position, key, "must be \"always\", \"onCrash\" or \"never\"");
    }
  }

  void Log(const JsonValue& value, const std::string& key) {
    if (value.kind != JsonValue::Kind::kObject) {
      Fault(value.position, key, "must be an object");
      return;
    }
    LogRules& rules = manifest_.log;
    ReadMembers(value, key + ".",
                {{"maxBytes",
                  [&](const auto& member, const auto& name) {
                    double bytes = 0;
                    if (Number(member, name, 1024, 1073741824, true, bytes)) {
                      rules.max_bytes = static_cast<std::size_t>(bytes);
                    }
                  }},
                 {"files", [&](const auto& member, const auto& name) {
                    double files = 0;
                    if (Number(member, name, 1, 100, true, files)) rules.files = static_cast<int>(files);
                  }}});
  }

  const fs::path folder_;
  ManifestReading& reading_;
  Manifest manifest_;
  std::string ignored_;
};

/// False when the file cannot be read; `what` then says why, or is empty when there is none.
bool ReadFile(const fs::path& path, std::string& text, std::string& what) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (status.type() == fs::file_type::not_found) return false;
  if (status.type() != fs::file_type::regular) {
    what = error ? "cannot be read: " + error.message() : "is not a file";
    return false;
  }
  std::ifstream file(path, std::ios::binary);
  text.resize(kMaxFileBytes + 1);
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (!file.is_open() || file.bad()) {
    what = "cannot be read";
    return false;
  }
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.size() <= kMaxFileBytes) return true;
  what = "is longer than " + std::to_string(kMaxFileBytes) + " bytes";
  return false;
}

}  // namespace

std::string Describe(const fs::path& file, const ManifestFault& fault) {
  std::string text = file.string();
  if (fault.position.line > 0) {
    text += ":" + std::to_string(fault.position.line) + ":" + std::to_string(fault.position.column);
  }
  text += ": ";
  if (!fault.key.empty()) text += fault.key + ": ";
  return text + fault.what;
}

ManifestReading ReadManifest(const fs::path& folder) {
  ManifestReading reading;
  reading.claimed_id = folder.filename().string();
  std::string text;
  std::string what;
  if (!ReadFile(folder / kManifestFileName, text, what)) {
    reading.file_exists = !what.empty();
    reading.faults.push_back({{}, "", reading.file_exists ? what : "does not exist"});
    return reading;
  }
  if (const std::string why = WhyNotAPluginId(reading.claimed_id); !why.empty()) {
    reading.faults.push_back({{}, "", why});
  }
  JsonValue root;
  Position where;
  if (!ReadJson(text, kMaxDepth, root, where, what)) {
    reading.faults.push_back({where, "", what});
    return reading;
  }
  Reader(folder, reading).Read(root);
  return reading;
}

}  // namespace guard
