// Any plugin.json in a folder: it is a manifest within the bounds of its page, or each fault has its place
// and its words.

#include <algorithm>

#include "ManifestReader.h"
#include "support/Folder.h"
#include "support/Input.h"

namespace {

using fuzz::Require;
using guard::Milliseconds;

bool IsTime(Milliseconds time, std::int64_t least, std::int64_t most) {
  return time >= Milliseconds(least) && time <= Milliseconds(most);
}

void RequireBounds(const guard::Manifest& manifest) {
  constexpr std::int64_t kHour = 3600000;
  constexpr std::int64_t kDay = 24 * kHour;
  const guard::RestartRules& restart = manifest.restart;
  Require(manifest.program.is_absolute() && manifest.working_folder.is_absolute(), "paths are absolute");
  Require(IsTime(manifest.stop_grace, 0, kHour) && IsTime(restart.first_delay, 0, kHour) &&
              IsTime(restart.max_delay, 0, kDay) && IsTime(restart.within, 1, kDay) &&
              IsTime(restart.stable_after, 1, kDay),
          "times are within their bounds");
  Require(restart.factor >= 1 && restart.factor <= 100 && restart.jitter >= 0 && restart.jitter <= 1,
          "factors are within their bounds");
  Require(restart.give_up_after >= 0 && restart.give_up_after <= 10000, "so is the number of restarts");
  Require(manifest.log.max_bytes >= 1024 && manifest.log.max_bytes <= 1073741824 && manifest.log.files >= 1 &&
              manifest.log.files <= 100,
          "so is the log");
  for (const auto& [name, value] : manifest.environment) {
    Require(!name.empty() && name.find('=') == std::string::npos && value.find('\0') == std::string::npos,
            "a variable can be set");
  }
  for (const std::string& argument : manifest.arguments) {
    Require(argument.find('\0') == std::string::npos, "an argument can be given");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::filesystem::path folder = fuzz::OwnFolder().path() / "clock";
  std::filesystem::create_directory(folder);
  fuzz::OwnFolder().Write("clock/plugin.json", text);

  const guard::ManifestReading reading = guard::ReadManifest(folder);
  Require(reading.file_exists, "the file is there");
  Require(reading.manifest.has_value() == reading.faults.empty(), "it is a manifest, or has a fault");
  if (reading.manifest) RequireBounds(*reading.manifest);
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  for (const guard::ManifestFault& fault : reading.faults) {
    Require(!fault.what.empty() && fault.position.line <= lines && fault.position.column <= size + 1,
            "a fault has its words and its place");
    Require(!Describe("plugin.json", fault).empty(), "a fault can be told");
  }
  Require((guard::WhyNotAPluginId(text).empty()) <= (!text.empty() && text.size() <= 128), "an id is short");
  return 0;
}
