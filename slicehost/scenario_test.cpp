#include "slicehost/scenario.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "slicehost/demo_scenario.h"

namespace tsm::sim {
namespace {

// Parses `json`; fails the test when it does not parse.
Scenario Parsed(const std::string& json) {
  auto result = ParseScenario(json, "test.json");
  if (auto* error = std::get_if<ScenarioError>(&result)) {
    ADD_FAILURE() << error->message;
    return Scenario();
  }
  return std::get<Scenario>(std::move(result));
}

// The error message of `json`; empty (and a failure) when it parses.
std::string Error(const std::string& json) {
  auto result = ParseScenario(json, "bad.json");
  if (auto* error = std::get_if<ScenarioError>(&result)) return error->message;
  ADD_FAILURE() << "parsed although it should not: " << json;
  return {};
}

TEST(ScenarioParse, ReadsEveryPartOfAScenario) {
  const Scenario s = Parsed(R"({
    "name": "all", "description": "every part",
    "start": "2026-11-23T01:30:00Z", "time_offset": 28800, "duration_ms": 9000, "tick_ms": 500,
    "vault": 1, "vault_answer": "NO", "login_type": 3,
    "securities": [{"symbol": "QX.S.TW.2330", "info": "2330|1000|x|500", "sessions": "09:00~13:30",
                    "source": "vault", "volume": 77, "behaviour": {"ack_ms": 5, "reject": true}}],
    "topics": {"PERMISSIONS.General": {"Extra": "x"}},
    "records": {"R1": {"LevelKey": "R1"}},
    "exchange": {"fill_ms": 7, "fill_percent": 50, "fill_steps": 3, "level_key_prefix": "K",
                 "lock_order_set_on_add": true, "exec_types": {"filled": 2}},
    "steps": [
      {"at": 0, "do": "SetStage", "stage": 1},
      {"at": 10, "do": "SetTopic", "topic": "X", "p1": 4, "p2": 5, "text": "t", "data": {"record": "R1"}},
      {"at": 20, "do": "Submit", "fields": {"LevelKey": "P1", "SliceID": "S1"}, "in_order_set": false},
      {"at": 30, "do": "Release", "order": "P1"},
      {"at": 40, "do": "Cancel", "order": "P1", "all": true},
      {"at": 50, "do": "Update", "record": "R1", "fields": {"A": 1}},
      {"at": 60, "do": "Fill", "order": "K1", "qty": 10},
      {"at": 70, "do": "Volume", "symbol": "QX.S.TW.2330", "volume": 80},
      {"at": 80, "do": "SystemTime", "date": 20261124, "time": 90000, "time_diff": 3600},
      {"at": 90, "do": "Renumber", "order": ["P1"]}
    ]})");
  EXPECT_EQ(s.name, "all");
  EXPECT_EQ(s.start_utc_ms, 1795397400000LL);
  EXPECT_EQ(s.time_offset_s, 28800);
  EXPECT_EQ(s.duration_ms, 9000);
  EXPECT_EQ(s.tick_ms, 500);
  EXPECT_EQ(s.vault, 1);
  EXPECT_EQ(s.vault_answer, L"NO");
  EXPECT_EQ(s.login_type, 3);
  ASSERT_EQ(s.securities.size(), 1u);
  EXPECT_EQ(s.securities[0].source, "vault");
  EXPECT_EQ(s.securities[0].volume, 77);
  ASSERT_TRUE(s.securities[0].behaviour.has_value());
  EXPECT_TRUE(s.securities[0].behaviour->reject);
  EXPECT_EQ(s.securities[0].behaviour->ack_delay_ms, 5);
  EXPECT_EQ(s.securities[0].behaviour->fill_delay_ms, 7);  // from the exchange's default
  EXPECT_EQ(s.exchange.fill_percent, 50);
  EXPECT_EQ(s.exec_types.filled, 2);
  EXPECT_EQ(s.exec_types.cancelled, 8);
  EXPECT_EQ(s.level_key_prefix, L"K");
  EXPECT_TRUE(s.lock_order_set_on_add);
  ASSERT_EQ(s.topics.size(), 1u);
  ASSERT_EQ(s.records.size(), 1u);
  ASSERT_EQ(s.steps.size(), 10u);
  EXPECT_EQ(s.steps[0].kind, Step::Kind::kSetStage);
  EXPECT_EQ(s.steps[0].stage_kind, 1);
  EXPECT_EQ(s.steps[1].data.kind, StepData::Kind::kRecord);
  EXPECT_EQ(s.steps[1].data.record, L"R1");
  EXPECT_EQ(s.steps[1].p2, 5);
  EXPECT_FALSE(s.steps[2].in_order_set);
  EXPECT_TRUE(s.steps[4].all);
  EXPECT_EQ(s.steps[6].qty, 10);
  EXPECT_EQ(s.steps[7].volume, 80);
  EXPECT_EQ(*s.steps[8].time_diff, 3600);
  EXPECT_EQ(s.steps[9].new_order, std::vector<std::wstring>{L"P1"});
  EXPECT_EQ(s.steps[9].where, "/steps/9");
  EXPECT_TRUE(s.HasStageSteps());
}

TEST(ScenarioParse, NumbersThatFit32BitsAreI4AndOthersI8) {
  const Scenario s = Parsed(R"({"steps": [{"at": 0, "do": "Update", "record": "R", "fields": {
      "Small": 2147483647, "Low": -2147483648, "Big": 2147483648, "Huge": -9223372036854775808}}]})");
  const ScenarioFields& f = s.steps[0].fields;
  ASSERT_EQ(f.size(), 4u);
  EXPECT_EQ(f[0].second, Variant::I4(2147483647));
  EXPECT_EQ(f[1].second, Variant::I4(-2147483647 - 1));
  EXPECT_EQ(f[2].second, Variant::I8(2147483648LL));
  EXPECT_EQ(f[3].second, Variant::I8(INT64_MIN));
}

TEST(ScenarioParse, AStepCanForceTheType) {
  const Scenario s = Parsed(R"({"steps": [
      {"at": 0, "do": "Update", "record": "R", "fields": {"A": {"i8": 5}, "B": {"i4": 6}, "C": {"text": "7"}}},
      {"at": 0, "do": "SetTopic", "topic": "T", "data": {"i8": 9}},
      {"at": 0, "do": "SetTopic", "topic": "T", "data": "text"},
      {"at": 0, "do": "SetTopic", "topic": "T", "data": null},
      {"at": 0, "do": "SetTopic", "topic": "T"}]})");
  const ScenarioFields& f = s.steps[0].fields;
  EXPECT_EQ(f[0].second, Variant::I8(5));
  EXPECT_EQ(f[1].second, Variant::I4(6));
  EXPECT_EQ(f[2].second, Variant::Text(L"7"));
  EXPECT_EQ(s.steps[1].data.value, Variant::I8(9));
  EXPECT_EQ(s.steps[2].data.value, Variant::Text(L"text"));
  EXPECT_EQ(s.steps[3].data.kind, StepData::Kind::kNone);
  EXPECT_EQ(s.steps[4].data.kind, StepData::Kind::kNone);
}

TEST(ScenarioParse, TextsAreUtf8) {
  const Scenario s = Parsed("{\"steps\": [{\"at\": 0, \"do\": \"SetTopic\", \"topic\": \"T\", \"text\": "
                            "\"\xc3\xa9\\u4e2d\"}]}");
  EXPECT_EQ(s.steps[0].text, L"\u00e9\u4e2d");
}

TEST(ScenarioParse, SyntaxErrorNamesFileLineAndColumn) {
  const std::string message = Error("{\n  \"steps\": [\n    {\"at\": 0,, }\n  ]\n}");
  EXPECT_EQ(message.rfind("bad.json:3:14: not valid JSON: ", 0), 0u) << message;
}

TEST(ScenarioParse, InvalidUtf8IsReported) {
  const std::string message = Error(std::string("{\"name\": \"\xff\", \"steps\": []}"));
  EXPECT_NE(message.find("bad.json:1:"), std::string::npos) << message;
  EXPECT_NE(message.find("not valid JSON"), std::string::npos) << message;
}

TEST(ScenarioParse, WrongKindNamesThePointerAndWhatWasExpected) {
  EXPECT_EQ(Error(R"({"steps": [{"at": "soon", "do": "Fill"}]})"),
            "bad.json: at /steps/0/at: expected an integer from 0 to 60000, found a string");
  EXPECT_EQ(Error(R"({"steps": {}})"), "bad.json: at /steps: expected an array of timed steps, found an object");
  EXPECT_EQ(Error(R"([])"), "bad.json: at /: expected an object, found an array");
}

TEST(ScenarioParse, MissingStepsIsReported) {
  EXPECT_EQ(Error(R"({"name": "x"})"), "bad.json: at /steps: missing member; expected an array of timed steps");
}

TEST(ScenarioParse, UnknownMemberIsReported) {
  const std::string message = Error(R"({"steps": [], "secruities": []})");
  EXPECT_EQ(message.rfind("bad.json: at /secruities: unknown member; expected one of ", 0), 0u) << message;
}

TEST(ScenarioParse, UnknownStepKindListsTheKinds) {
  const std::string message = Error(R"({"steps": [{"at": 0, "do": "Explode"}]})");
  EXPECT_NE(message.find("at /steps/0/do: expected one of SetStage, SetTopic"), std::string::npos) << message;
  EXPECT_NE(message.find("found \"Explode\""), std::string::npos) << message;
}

TEST(ScenarioParse, StepAfterTheEndIsReported) {
  EXPECT_EQ(Error(R"({"duration_ms": 100, "steps": [{"at": 101, "do": "SetStage", "stage": 1}]})"),
            "bad.json: at /steps/0/at: expected an integer from 0 to 100, found 101");
}

TEST(ScenarioParse, FractionalNumberIsReported) {
  EXPECT_EQ(Error(R"({"steps": [{"at": 1.5, "do": "SetStage", "stage": 1}]})"),
            "bad.json: at /steps/0/at: expected an integer from 0 to 60000, found a fractional number");
}

TEST(ScenarioParse, IntegerBeyond64BitsIsCalledTooLargeNotFractional) {
  EXPECT_EQ(Error(R"({"steps": [{"at": 0, "do": "Submit", "fields": {"LevelKey": "P1",
                      "OrderQty": 99999999999999999999}}]})"),
            "bad.json: at /steps/0/fields/OrderQty: expected an integer from -9223372036854775808 to "
            "9223372036854775807, found a number too large for 64 bits");
  EXPECT_EQ(Error(R"({"steps": [{"at": 99999999999999999999, "do": "SetStage", "stage": 1}]})"),
            "bad.json: at /steps/0/at: expected an integer from 0 to 60000, found a number too large for 64 bits");
}

TEST(ScenarioParse, VolumeOfAnUndeclaredSymbolIsReported) {
  EXPECT_EQ(Error(R"({"steps": [{"at": 0, "do": "Volume", "symbol": "QX.S.TW.1", "volume": 3}]})"),
            "bad.json: at /steps/0/symbol: expected a symbol of the scenario's securities");
}

TEST(ScenarioParse, SubmitWithoutLevelKeyIsReported) {
  EXPECT_EQ(Error(R"({"steps": [{"at": 0, "do": "Submit", "fields": {"SliceID": "S1"}}]})"),
            "bad.json: at /steps/0/fields/LevelKey: missing member; expected the parent's level key text");
}

TEST(ScenarioParse, OrderSetLockAsASingleTopicIsRefused) {
  const std::string message = Error(R"({"steps": [{"at": 0, "do": "SetTopic", "topic": "ORDERSET.LOCK"}]})");
  EXPECT_NE(message.find("at /steps/0/topic: expected another topic"), std::string::npos) << message;
}

TEST(ScenarioParse, SymbolNeedsFourParts) {
  const std::string message = Error(R"({"securities": [{"symbol": "QX.S.TW"}], "steps": []})");
  EXPECT_NE(message.find("at /securities/0/symbol: expected a symbol id of at least four"), std::string::npos)
      << message;
}

TEST(ScenarioParse, PointerEscapesSlashAndTilde) {
  const std::string message = Error(R"({"records": {"a/b~c": {"F": true}}, "steps": []})");
  EXPECT_NE(message.find("at /records/a~1b~0c/F: expected an integer, a string"), std::string::npos) << message;
}

TEST(ScenarioParse, UnreadableFileIsReported) {
  auto result = LoadScenarioFile("/nonexistent/scenario.json");
  ASSERT_TRUE(std::holds_alternative<ScenarioError>(result));
  EXPECT_EQ(std::get<ScenarioError>(result).message, "/nonexistent/scenario.json: cannot be opened for reading");
}

TEST(ScenarioParse, NameDefaultsToTheFileName) {
  auto result = ParseScenario(R"({"steps": []})", "dir/my_case.json");
  ASSERT_TRUE(std::holds_alternative<Scenario>(result));
  EXPECT_EQ(std::get<Scenario>(result).name, "my_case");
}

TEST(ScenarioParse, UtcTimes) {
  EXPECT_EQ(ParseUtcTime("1970-01-01T00:00:00Z"), 0);
  EXPECT_EQ(ParseUtcTime("2026-11-23T09:30:00Z"), 1795426200000LL);
  EXPECT_EQ(ParseUtcTime("2026-11-23T09:30:00.250Z"), 1795426200250LL);
  EXPECT_EQ(ParseUtcTime("2024-02-29T12:00:00Z"), 1709208000000LL);
  EXPECT_FALSE(ParseUtcTime("2026-11-23 09:30:00"));
  EXPECT_FALSE(ParseUtcTime("2026-13-23T09:30:00Z"));
  EXPECT_FALSE(ParseUtcTime("2026-11-23T09:30:00+08:00"));
}

TEST(ScenarioFiles, EveryScenarioOfTheRepositoryParses) {
  const std::filesystem::path folder = std::filesystem::path(TSM_SOURCE_DIR) / "scenarios";
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() != ".json") continue;
    auto result = LoadScenarioFile(entry.path().string());
    if (auto* error = std::get_if<ScenarioError>(&result)) ADD_FAILURE() << error->message;
    EXPECT_TRUE(std::filesystem::exists(entry.path().parent_path() / (entry.path().stem().string() + ".transcript.jsonl")))
        << entry.path() << " has no golden transcript";
    ++count;
  }
  EXPECT_GE(count, 10);
}

TEST(ScenarioFiles, TheDemoParses) {
  auto result = ParseScenario(DemoScenarioJson(), "demo");
  if (auto* error = std::get_if<ScenarioError>(&result)) FAIL() << error->message;
  const Scenario& demo = std::get<Scenario>(result);
  std::set<int32_t> kinds;
  for (const Step& step : demo.steps) {
    for (const auto& [name, value] : step.fields) {
      if (name == L"SlicedType") kinds.insert(value.i4());
    }
  }
  EXPECT_EQ(kinds, (std::set<int32_t>{1, 2, 3, 4, 5}));
}

}  // namespace
}  // namespace tsm::sim
