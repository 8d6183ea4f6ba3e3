#include "ManifestReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <initializer_list>
#include <iterator>
#include <set>
#include <sstream>

#include "support/TempDirectory.h"

namespace guard {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

class ManifestFile : public testing::Test {
 protected:
  fs::path folder() const { return directory_.path() / "clock"; }
  ManifestReading Read(const std::string& text) const {
    fs::create_directories(folder());
    std::ofstream(folder() / kManifestFileName, std::ios::binary) << text;
    return ReadManifest(folder());
  }
  Manifest ReadGood(const std::string& text) const {
    const ManifestReading reading = Read(text);
    for (const auto& fault : reading.faults) ADD_FAILURE() << Describe("plugin.json", fault) << "\n" << text;
    return reading.manifest.value_or(Manifest());
  }
  /// All faults, as people see them.
  std::vector<std::string> Faults(const std::string& text) const {
    const ManifestReading reading = Read(text);
    EXPECT_FALSE(reading.manifest.has_value()) << text;
    std::vector<std::string> faults;
    for (const auto& fault : reading.faults) faults.push_back(Describe("p", fault));
    return faults;
  }

  const tolm::test::TempDirectory directory_;
};

TEST_F(ManifestFile, NeedsNothingButAProgram) {
  const Manifest manifest = ReadGood(R"({"program": "bin/clock"})");
  EXPECT_EQ(manifest.id, "clock");
  EXPECT_EQ(manifest.program, folder() / "bin" / "clock");
  EXPECT_EQ(manifest.working_folder, folder());
  EXPECT_TRUE(manifest.arguments.empty());
  EXPECT_TRUE(manifest.environment.empty());
  EXPECT_EQ(manifest.description, "");
  EXPECT_EQ(manifest.stop_grace, Milliseconds(2000));
  EXPECT_EQ(manifest.restart, RestartRules());
  EXPECT_EQ(manifest.log, LogRules());
}

TEST_F(ManifestFile, SaysEveryFieldInItsTurn) {
  const Manifest manifest = ReadGood(R"({
    "$schema": "../plugin-manifest.schema.json",
    "id": "clock",
    "program": "../shared/clock",
    "arguments": ["--a", "", "b c", "ä"],
    "workingFolder": "data",
    "environment": {"TZ": "UTC", "EMPTY": ""},
    "description": "tells the time",
    "stopGraceMs": 1500,
    "restart": {"policy": "always", "firstDelayMs": 10, "factor": 1.5, "maxDelayMs": 2000, "jitter": 0,
                "giveUpAfter": 0, "withinMs": 1000, "stableAfterMs": 3000},
    "log": {"maxBytes": 2048, "files": 1}
  })");
  EXPECT_EQ(manifest.program, directory_.path() / "shared" / "clock");
  EXPECT_THAT(manifest.arguments, ElementsAre("--a", "", "b c", "ä"));
  EXPECT_EQ(manifest.working_folder, folder() / "data");
  EXPECT_EQ(manifest.environment, (std::map<std::string, std::string>{{"TZ", "UTC"}, {"EMPTY", ""}}));
  EXPECT_EQ(manifest.description, "tells the time");
  EXPECT_EQ(manifest.stop_grace, Milliseconds(1500));
  RestartRules rules;
  rules.when = RestartRules::When::kAlways;
  rules.first_delay = Milliseconds(10);
  rules.factor = 1.5;
  rules.max_delay = Milliseconds(2000);
  rules.jitter = 0;
  rules.give_up_after = 0;
  rules.within = Milliseconds(1000);
  rules.stable_after = Milliseconds(3000);
  EXPECT_EQ(manifest.restart, rules);
  EXPECT_EQ(manifest.log, (LogRules{2048, 1}));
}

TEST_F(ManifestFile, PoliciesHaveThreeNames) {
  using When = RestartRules::When;
  EXPECT_EQ(ReadGood(R"({"program": "x", "restart": {"policy": "always"}})").restart.when, When::kAlways);
  EXPECT_EQ(ReadGood(R"({"program": "x", "restart": {"policy": "onCrash"}})").restart.when, When::kOnCrash);
  EXPECT_EQ(ReadGood(R"({"program": "x", "restart": {"policy": "never"}})").restart.when, When::kNever);
}

TEST_F(ManifestFile, AnAbsoluteProgramStaysOne) {
  const fs::path program = fs::current_path().root_path() / "usr" / "bin" / "env";
  EXPECT_EQ(ReadGood("{\"program\": \"" + program.generic_string() + "\"}").program, program);
}

TEST_F(ManifestFile, AByteOrderMarkIsSkipped) {
  EXPECT_EQ(ReadGood("\xef\xbb\xbf{\"program\": \"x\"}").program, folder() / "x");
}

TEST_F(ManifestFile, FaultsNameLineColumnAndKey) {
  struct Case {
    const char* text;
    const char* fault;
  };
  const Case cases[] = {
      {"[]", "p:1:1: must be an object"},
      {"{}", "p:1:1: program: is missing"},
      {"\n  {\"id\": \"clock\"}", "p:2:3: program: is missing"},
      {R"({"program": 5})", "p:1:13: program: must be a text"},
      {R"({"program": ""})", "p:1:13: program: must not be empty"},
      {R"({"program": "a\u0000b"})", "p:1:13: program: must not hold a NUL character"},
      {R"({"program": null})", "p:1:13: program: must be a text"},
      {"{\"program\": \"x\",\n\"id\": \"watch\"}", "p:2:7: id: must be the folder's name, \"clock\""},
      {"{\"program\": \"x\",\n\"id\": 7}", "p:2:7: id: must be a text"},
      {"{\"program\": \"x\",\n \"prgram\": \"x\"}", "p:2:2: prgram: is not known"},
      {"{\"program\": \"x\",\n \"program\": \"y\"}", "p:2:2: program: stands here a second time"},
      {"{\"program\": \"x\",\n\"arguments\": \"-a\"}", "p:2:14: arguments: must be an array of texts"},
      {"{\"program\": \"x\",\n\"arguments\": [\"a\",\n\n  1]}", "p:4:3: arguments[2]: must be a text"},
      {"{\"program\": \"x\",\n\"arguments\": [\"a\\u0000\"]}",
       "p:2:15: arguments[1]: must not hold a NUL character"},
      {"{\"program\": \"x\",\n\"workingFolder\": []}", "p:2:18: workingFolder: must be a text"},
      {"{\"program\": \"x\",\n\"workingFolder\": \"\"}", "p:2:18: workingFolder: must not be empty"},
      {"{\"program\": \"x\",\n\"environment\": []}", "p:2:16: environment: must be an object of texts"},
      {"{\"program\": \"x\",\n\"environment\": {\"A\": 1}}", "p:2:22: environment.A: must be a text"},
      {"{\"program\": \"x\",\n\"environment\": {\"A=B\": \"1\"}}",
       "p:2:17: environment.A=B: a variable's name must not be empty nor hold \"=\" or NUL"},
      {"{\"program\": \"x\",\n\"environment\": {\"\": \"1\"}}",
       "p:2:17: environment.: a variable's name must not be empty nor hold \"=\" or NUL"},
      {"{\"program\": \"x\",\n\"environment\": {\"A\": \"1\", \"A\": \"2\"}}",
       "p:2:27: environment.A: stands here a second time"},
      {"{\"program\": \"x\",\n\"description\": 1}", "p:2:16: description: must be a text"},
      {"{\"program\": \"x\",\n\"stopGraceMs\": -1}",
       "p:2:16: stopGraceMs: must be a whole number from 0 to 3600000"},
      {"{\"program\": \"x\",\n\"stopGraceMs\": 1.5}",
       "p:2:16: stopGraceMs: must be a whole number from 0 to 3600000"},
      {"{\"program\": \"x\",\n\"stopGraceMs\": \"2000\"}",
       "p:2:16: stopGraceMs: must be a whole number from 0 to 3600000"},
      {"{\"program\": \"x\",\n\"stopGraceMs\": 1e300}",
       "p:2:16: stopGraceMs: must be a whole number from 0 to 3600000"},
      {"{\"program\": \"x\",\n\"restart\": true}", "p:2:12: restart: must be an object"},
      {"{\"program\": \"x\",\n\"restart\": {\"policy\": \"oncrash\"}}",
       "p:2:23: restart.policy: must be \"always\", \"onCrash\" or \"never\""},
      {"{\"program\": \"x\",\n\"restart\": {\"policy\": 1}}",
       "p:2:23: restart.policy: must be \"always\", \"onCrash\" or \"never\""},
      {"{\"program\": \"x\",\n\"restart\": {\"firstDelayMs\": -1}}",
       "p:2:29: restart.firstDelayMs: must be a whole number from 0 to 3600000"},
      {"{\"program\": \"x\",\n\"restart\": {\n\n  \"factor\": 0.5}}",
       "p:4:13: restart.factor: must be a number from 1 to 100"},
      {"{\"program\": \"x\",\n\"restart\": {\"maxDelayMs\": 86400001}}",
       "p:2:27: restart.maxDelayMs: must be a whole number from 0 to 86400000"},
      {"{\"program\": \"x\",\n\"restart\": {\"jitter\": 1.1}}",
       "p:2:23: restart.jitter: must be a number from 0 to 1"},
      {"{\"program\": \"x\",\n\"restart\": {\"giveUpAfter\": -1}}",
       "p:2:28: restart.giveUpAfter: must be a whole number from 0 to 10000"},
      {"{\"program\": \"x\",\n\"restart\": {\"withinMs\": 0}}",
       "p:2:25: restart.withinMs: must be a whole number from 1 to 86400000"},
      {"{\"program\": \"x\",\n\"restart\": {\"stableAfterMs\": 0}}",
       "p:2:30: restart.stableAfterMs: must be a whole number from 1 to 86400000"},
      {"{\"program\": \"x\",\n\"restart\": {\"delay\": 0}}", "p:2:13: restart.delay: is not known"},
      {"{\"program\": \"x\",\n\"restart\": {\"factor\": 2, \"factor\": 2}}",
       "p:2:26: restart.factor: stands here a second time"},
      {"{\"program\": \"x\",\n\"log\": []}", "p:2:8: log: must be an object"},
      {"{\"program\": \"x\",\n\"log\": {\"maxBytes\": 1023}}",
       "p:2:21: log.maxBytes: must be a whole number from 1024 to 1073741824"},
      {"{\"program\": \"x\",\n\"log\": {\"files\": 0}}",
       "p:2:18: log.files: must be a whole number from 1 to 100"},
      {"{\"program\": \"x\",\n\"log\": {\"file\": 0}}", "p:2:9: log.file: is not known"},
  };
  for (const Case& one : cases) EXPECT_THAT(Faults(one.text), ElementsAre(one.fault)) << one.text;
}

TEST_F(ManifestFile, AllFaultsAreNamedInTheOrderOfTheFile) {
  EXPECT_THAT(
      Faults("{\n\"programm\": 1,\n\"stopGraceMs\": \"x\",\n\"log\": {\"files\": 0}\n}"),
      ElementsAre("p:2:1: programm: is not known",
                  "p:3:16: stopGraceMs: must be a whole number from 0 to 3600000",
                  "p:4:18: log.files: must be a whole number from 1 to 100", "p:1:1: program: is missing"));
}

TEST_F(ManifestFile, WhatIsNoJsonSaysWhere) {
  EXPECT_THAT(Faults("")[0], HasSubstr("p:1:1: The document is empty"));
  EXPECT_THAT(Faults("{\n  \"program\": \"x\",\n}")[0], HasSubstr("p:3:1: Missing a name"));
  EXPECT_THAT(Faults("{\"program\": \"x\"} more")[0], HasSubstr("p:1:18: "));
  EXPECT_THAT(Faults("{\"program\": 'x'}")[0], HasSubstr("p:1:13: Invalid value"));
  EXPECT_THAT(Faults("{\"program\": \"\xff\"}")[0], HasSubstr("p:1:1"));
  EXPECT_THAT(Faults("// no comments\n{\"program\": \"x\"}")[0], HasSubstr("p:1:1: "));
  EXPECT_THAT(Faults("{\"stopGraceMs\": 1e999}")[0], HasSubstr("p:1:1"));
  EXPECT_THAT(Faults(std::string("{\"program\": \"x\"}\n\0 more", 23))[0], HasSubstr("p:2:1: "));
  EXPECT_THAT(Faults("{\"program\":\n \"a\\udc00\"}")[0], HasSubstr("p:2:4: The surrogate pair"));
}

TEST_F(ManifestFile, DeepNestingEndsAtItsBound) {
  const std::string deep(100000, '[');
  EXPECT_THAT(Faults("{\"arguments\": " + deep), ElementsAre("p:1:22: nested more than 8 deep"));
}

TEST_F(ManifestFile, AFileThatIsTooLongIsNotRead) {
  const std::string text = R"({"program": "x"})";
  EXPECT_TRUE(Read(text + std::string(1048576 - text.size(), ' ')).manifest.has_value());
  EXPECT_THAT(Faults(text + std::string(1048577 - text.size(), ' ')),
              ElementsAre("p: is longer than 1048576 bytes"));
}

TEST_F(ManifestFile, AMissingFileIsTheOneFaultThatMayBeNone) {
  const ManifestReading missing = ReadManifest(folder());
  EXPECT_FALSE(missing.file_exists);
  EXPECT_FALSE(missing.manifest.has_value());
  EXPECT_TRUE(Read("{}").file_exists);
  fs::remove(folder() / kManifestFileName);
  fs::create_directories(folder() / kManifestFileName);
  const ManifestReading directory = ReadManifest(folder());
  EXPECT_TRUE(directory.file_exists);
  ASSERT_EQ(directory.faults.size(), 1u);
  EXPECT_EQ(directory.faults[0].what, "is not a file");
}

TEST(PluginId, IsAFolderNameOnEverySystem) {
  for (const char* const good : {"clock", "Clock-2", "a.b", "a b", "\xc3\xa4", "guardian", "0"}) {
    EXPECT_EQ(WhyNotAPluginId(good), "") << good;
  }
  EXPECT_EQ(WhyNotAPluginId(std::string(128, 'x')), "");
  for (const std::string bad :
       {"",   ".",  "..",   "../x", "x..y",  "a/b",   "a\\b",    "/",    "C:x",   ".hidden",     "dot.",
        " x", "x ", "a\nb", "a*",   "guard", "GUARD", "guard.1", "\xff", "a\xc3", "\xed\xb0\x80"}) {
    EXPECT_NE(WhyNotAPluginId(bad), "") << bad;
  }
  EXPECT_NE(WhyNotAPluginId(std::string(129, 'x')), "");
  EXPECT_NE(WhyNotAPluginId(std::string("a\0b", 3)), "");
}

// ------------------------------------------------------------------------------------- The schema

/// The published format of manifests.
class Schema : public testing::Test {
 protected:
  void SetUp() override {
    std::ifstream file(TOLM_MANIFEST_SCHEMA, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    Position where;
    std::string why;
    ASSERT_TRUE(ReadJson(text, 16, schema_, where, why)) << why << " in line " << where.line;
  }

  static const JsonValue& At(const JsonValue& value, const std::string& key) {
    for (const auto& member : value.members) {
      if (member.key == key) return member.value;
    }
    static const JsonValue kNone;
    return kNone;
  }
  static double NumberAt(const JsonValue& properties, const char* key, const char* what) {
    const JsonValue& value = At(At(properties, key), what);
    EXPECT_EQ(value.kind, JsonValue::Kind::kNumber) << key << what;
    return value.number;
  }
  static std::set<std::string> Keys(const JsonValue& object) {
    std::set<std::string> keys;
    for (const auto& member : object.members) keys.insert(member.key);
    return keys;
  }

  JsonValue schema_;
};

TEST_F(Schema, HasTheDefaultsThatTheGuardUses) {
  const JsonValue& properties = At(schema_, "properties");
  const JsonValue& restart = At(At(properties, "restart"), "properties");
  const JsonValue& log = At(At(properties, "log"), "properties");
  const Manifest manifest;
  const auto in_ms = [](Milliseconds time) { return static_cast<double>(time.count()); };
  EXPECT_EQ(NumberAt(properties, "stopGraceMs", "default"), in_ms(manifest.stop_grace));
  EXPECT_EQ(NumberAt(restart, "firstDelayMs", "default"), in_ms(manifest.restart.first_delay));
  EXPECT_EQ(NumberAt(restart, "factor", "default"), manifest.restart.factor);
  EXPECT_EQ(NumberAt(restart, "maxDelayMs", "default"), in_ms(manifest.restart.max_delay));
  EXPECT_EQ(NumberAt(restart, "jitter", "default"), manifest.restart.jitter);
  EXPECT_EQ(NumberAt(restart, "giveUpAfter", "default"), manifest.restart.give_up_after);
  EXPECT_EQ(NumberAt(restart, "withinMs", "default"), in_ms(manifest.restart.within));
  EXPECT_EQ(NumberAt(restart, "stableAfterMs", "default"), in_ms(manifest.restart.stable_after));
  EXPECT_EQ(NumberAt(log, "maxBytes", "default"), static_cast<double>(manifest.log.max_bytes));
  EXPECT_EQ(NumberAt(log, "files", "default"), manifest.log.files);
  EXPECT_EQ(At(At(restart, "policy"), "default").text, "onCrash");
  EXPECT_EQ(manifest.restart.when, RestartRules::When::kOnCrash);
}

TEST_F(Schema, KnowsTheKeysThatTheGuardKnowsAndDescribesEach) {
  const JsonValue& properties = At(schema_, "properties");
  const tolm::test::TempDirectory directory;
  fs::create_directories(directory.path() / "clock");
  // A value that no key takes: known keys complain of it, unknown ones of themselves.
  const auto is_known = [&](const std::string& before, const std::string& key, const std::string& after) {
    std::ofstream(directory.path() / "clock" / kManifestFileName)
        << before << "\"" << key << "\": null" << after;
    const ManifestReading reading = ReadManifest(directory.path() / "clock");
    return !reading.faults.empty() && reading.faults[0].what != "is not known";
  };
  std::set<std::string> known;
  const auto look = [&](const JsonValue& object, const std::string& prefix, const std::string& before,
                        const std::string& after) {
    for (const auto& member : object.members) {
      EXPECT_TRUE(is_known(before, member.key, after)) << prefix << member.key;
      EXPECT_FALSE(At(member.value, "description").text.empty()) << prefix << member.key;
      known.insert(prefix + member.key);
    }
  };
  look(properties, "", "{", "}");
  look(At(At(properties, "restart"), "properties"), "restart.", "{\"restart\": {", "}}");
  look(At(At(properties, "log"), "properties"), "log.", "{\"log\": {", "}}");
  EXPECT_EQ(known.size(), 20u);
  for (const JsonValue* object : std::initializer_list<const JsonValue*>{&schema_, &At(properties, "restart"),
                                                                         &At(properties, "log")}) {
    EXPECT_EQ(At(*object, "additionalProperties").kind, JsonValue::Kind::kBoolean);
    EXPECT_FALSE(At(*object, "additionalProperties").boolean);
  }
}

TEST_F(Schema, HasTheBoundsThatTheGuardHas) {
  const tolm::test::TempDirectory directory;
  fs::create_directories(directory.path() / "clock");
  const auto is_accepted = [&](const std::string& before, const std::string& key, double value) {
    std::ostringstream number;
    number.precision(17);
    number << value;
    std::ofstream(directory.path() / "clock" / kManifestFileName)
        << "{\"program\": \"x\", " << before << "{\"" << key << "\": " << number.str() << "}}";
    return ReadManifest(directory.path() / "clock").manifest.has_value();
  };
  int bounds = 0;
  for (const char* const object : {"restart", "log"}) {
    const JsonValue& properties = At(At(At(schema_, "properties"), object), "properties");
    for (const auto& member : properties.members) {
      if (At(member.value, "minimum").kind != JsonValue::Kind::kNumber) continue;
      const std::string before = std::string("\"") + object + "\": ";
      const double least = At(member.value, "minimum").number;
      const double most = At(member.value, "maximum").number;
      EXPECT_TRUE(is_accepted(before, member.key, least)) << member.key;
      EXPECT_TRUE(is_accepted(before, member.key, most)) << member.key;
      EXPECT_FALSE(is_accepted(before, member.key, least - 1)) << member.key;
      EXPECT_FALSE(is_accepted(before, member.key, most + 1)) << member.key;
      const bool takes_fractions = At(member.value, "type").text == "number";
      EXPECT_EQ(is_accepted(before, member.key, (least + most) / 2 + (takes_fractions ? 0.25 : 0.3)),
                takes_fractions)
          << member.key;
      ++bounds;
    }
  }
  EXPECT_EQ(bounds, 9);
}

}  // namespace
}  // namespace guard
