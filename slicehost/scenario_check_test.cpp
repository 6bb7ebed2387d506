#include "slicehost/scenario_check.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tsm::sim {
namespace {

// A parent that draws no warning, with `extra` members added to its fields.
std::string Parent(const std::string& key, const std::string& extra = "") {
  return R"({"at": 1000, "do": "Submit", "fields": {"LevelKey": ")" + key + R"(", "SliceID": "S)" + key +
         R"(", "Symbol": "QX.S.TW.2330", "Side": "B", "SecurityType": "S", "OrderQty": 300, "LeavesQty": 300,
         "DiscloseQty": 100, "SlicedType": 1)" + extra + "}}";
}

// The warning lines of a scenario made of `members` (besides the steps)
// and `steps`.
std::vector<std::string> Warnings(const std::string& members, const std::string& steps) {
  const std::string json = "{" + members + (members.empty() ? "" : ",") + R"("steps": [)" + steps + "]}";
  auto parsed = ParseScenario(json, "doubtful.json");
  const Scenario* scenario = std::get_if<Scenario>(&parsed);
  if (scenario == nullptr) {
    ADD_FAILURE() << std::get<ScenarioError>(parsed).message;
    return {};
  }
  std::vector<std::string> lines;
  for (const ScenarioWarning& warning : CheckScenario(*scenario)) lines.push_back(WarningLine(*scenario, warning));
  return lines;
}

const char kSecurity[] = R"("securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100"}])";

TEST(ScenarioCheck, AGoodScenarioHasNoWarnings) {
  EXPECT_EQ(Warnings(kSecurity, Parent("P1")), std::vector<std::string>{});
}

TEST(ScenarioCheck, MalformedSessionsTextIsWarned) {
  const auto lines = Warnings(R"("securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100",
                                                "sessions": "09:00-11:30"}])",
                              Parent("P1"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /securities/0/sessions: warning: sessions \"09:00-11:30\" are not HH:MM~HH:MM joined by "
            "\";\", each opening before it closes: the manager takes the digits of each part as HHMM and holds "
            "orders back by what it reads");
}

TEST(ScenarioCheck, SessionClosingBeforeItOpensIsWarned) {
  const auto lines = Warnings(R"("securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100",
                                                "sessions": "09:00~11:30;15:00~13:00"}])",
                              Parent("P1"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("at /securities/0/sessions: warning: sessions \"09:00~11:30;15:00~13:00\""),
            std::string::npos);
}

TEST(ScenarioCheck, SecurityInfoWithoutSellLotIsWarned) {
  const auto lines = Warnings(R"("securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100"}])", Parent("P1"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /securities/0/info: warning: info \"2330|100\" has no sell lot (item 4): the manager "
            "reads a lot of 0 there and does not round those orders");
}

TEST(ScenarioCheck, SecurityInfoWithLotThatIsNoNumberIsWarned) {
  // Runs of bars count as one separator: item 2 here is "x".
  const auto lines = Warnings(R"("securities": [{"symbol": "QX.S.TW.2330", "info": "2330||x|y|100"}])", Parent("P1"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /securities/0/info: warning: info \"2330||x|y|100\": the buy lot (item 2) \"x\" is not "
            "a whole number; the manager reads it as 0");
}

TEST(ScenarioCheck, ParentOnUndeclaredSymbolIsWarned) {
  const auto lines = Warnings("", Parent("P1"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /steps/0/fields/Symbol: warning: parent \"P1\" is on \"QX.S.TW.2330\", which "
            "`securities` does not declare: no lot, no sessions and no quote record for it");
}

TEST(ScenarioCheck, ParentWithoutSlicedTypeIsWarned) {
  const auto lines = Warnings(kSecurity, R"({"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1",
      "Symbol": "QX.S.TW.2330", "OrderQty": 300, "LeavesQty": 300, "DiscloseQty": 100}})");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /steps/0/fields: warning: parent \"P1\" has no SlicedType: the manager logs it and does "
            "nothing with it");
}

TEST(ScenarioCheck, ParentWithSlicedTypeZeroIsWarned) {
  const auto lines = Warnings(kSecurity, R"({"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1",
      "Symbol": "QX.S.TW.2330", "OrderQty": 300, "LeavesQty": 300, "DiscloseQty": 100, "SlicedType": 0}})");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("has a SlicedType below 1: the manager logs it and does nothing with it"), std::string::npos);
}

TEST(ScenarioCheck, ParentWithoutLeavesQtyIsWarned) {
  const auto lines = Warnings(kSecurity, R"({"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1",
      "Symbol": "QX.S.TW.2330", "OrderQty": 300, "DiscloseQty": 100, "SlicedType": 2}})");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /steps/0/fields: warning: parent \"P1\" has no LeavesQty: the manager reads 0 left to "
            "slice and sends the parent as one final portion, without children");
}

TEST(ScenarioCheck, SliceAllParentWithoutLeavesQtyIsWarnedOfItsQuantitiesRewrittenToZero) {
  const auto lines = Warnings(kSecurity, R"({"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1",
      "Symbol": "QX.S.TW.2330", "OrderQty": 300, "DiscloseQty": 100, "SlicedType": 4}})");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("without children (its OrderQty, LeavesQty and SendQty rewritten to 0)"), std::string::npos);
}

TEST(ScenarioCheck, ParentWithoutOrderQtyIsWarned) {
  const auto lines = Warnings(kSecurity, R"({"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1",
      "Symbol": "QX.S.TW.2330", "LeavesQty": 300, "DiscloseQty": 100, "SlicedType": 1}})");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /steps/0/fields: warning: parent \"P1\" has no OrderQty: the manager slices by "
            "LeavesQty and writes OrderQty only when it cuts a child; a parent sent whole as its final portion goes "
            "without one");
}

TEST(ScenarioCheck, VolumeParentThatIsNeverWatchedIsWarned) {
  const auto lines = Warnings(kSecurity, R"({"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1",
      "Symbol": "QX.S.TW.2330", "OrderQty": 300, "LeavesQty": 300, "DiscloseQty": 100, "SlicedType": 3}},
      {"at": 1000, "do": "Submit", "fields": {"LevelKey": "P2", "Symbol": "QX.S.TW.2330", "OrderQty": 300,
      "LeavesQty": 300, "DiscloseQty": 100, "SlicedType": 3, "Interval": 1, "LeftoverAction": 0}},
      {"at": 1000, "do": "Submit", "fields": {"LevelKey": "P3", "Symbol": "QX.S.TW.2330", "OrderQty": 300,
      "LeavesQty": 300, "DiscloseQty": 100, "SlicedType": 3, "Interval": 1, "LeftoverAction": 1}})");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /steps/0/fields: warning: parent \"P1\" is sliced by volume (SlicedType 3) without an "
            "Interval of 1 or more and a LeftoverAction other than 0: the manager never watches its children, so "
            "none is cancelled by volume");
  EXPECT_NE(lines[1].find("at /steps/1/fields: warning: parent \"P2\" is sliced by volume"), std::string::npos);
}

TEST(ScenarioCheck, NegativeQuantityIsWarned) {
  const auto lines = Warnings(kSecurity, Parent("P1", R"(, "SendQty": -300)"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /steps/0/fields/SendQty: warning: SendQty -300 is negative: the manager slices and "
            "counts it as it stands");
}

TEST(ScenarioCheck, QuantityOverflowing32BitsIsWarned) {
  const auto lines = Warnings(kSecurity, R"({"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1",
      "Symbol": "QX.S.TW.2330", "OrderQty": 2147483648, "LeavesQty": 300, "DiscloseQty": 100, "SlicedType": 1}})");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /steps/0/fields/OrderQty: warning: OrderQty 2147483648 does not fit 32 bits: the "
            "manager reads its quantities as 32-bit numbers");
}

TEST(ScenarioCheck, QuantityInAnUpdateOrANamedRecordIsCheckedToo) {
  const auto lines = Warnings(std::string(kSecurity) + R"(, "records": {"R1": {"LeavesQty": -1}})",
                              Parent("P1") + R"(, {"at": 2000, "do": "Update", "record": "P1",
                                                   "fields": {"CumQty": {"i8": 5}}})");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("at /records/R1/LeavesQty: warning: LeavesQty -1 is negative"), std::string::npos);
  EXPECT_NE(lines[1].find("at /steps/1/fields/CumQty: warning: CumQty 5 does not fit 32 bits"), std::string::npos);
}

TEST(ScenarioCheck, StepNamingAnUnknownOrderIsWarned) {
  const auto lines = Warnings(kSecurity, Parent("P1") + R"(, {"at": 2000, "do": "Cancel", "order": "P404"})");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /steps/1/order: warning: names the order \"P404\", which no Submit step before it "
            "enters and no child is called: the step will be skipped");
}

TEST(ScenarioCheck, StepNamingAnOrderBeforeItsSubmitIsWarned) {
  // Played by time: the Release at 500 comes before the Submit at 1000.
  const auto lines = Warnings(kSecurity, Parent("P1") + R"(, {"at": 500, "do": "Release", "order": "P1"})");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("at /steps/1/order: warning: names the order \"P1\""), std::string::npos);
}

TEST(ScenarioCheck, StepNamingAChildOrAKnownRecordIsNotWarned) {
  const auto lines = Warnings(std::string(kSecurity) + R"(, "records": {"R1": {"SlicedType": 5}})",
                              Parent("P1") + R"(, {"at": 2000, "do": "Fill", "order": "C3", "qty": 10},
                                {"at": 2000, "do": "Update", "record": "NordaSystemTime", "fields": {"TimeDiff": 0}},
                                {"at": 2000, "do": "SetTopic", "topic": "TRADE.SLICE.ORDER", "data": {"record": "R1"}})");
  EXPECT_EQ(lines, std::vector<std::string>{});
}

TEST(ScenarioCheck, StepNamingAnUnknownRecordIsWarned) {
  const auto lines = Warnings(kSecurity, Parent("P1") + R"(, {"at": 2000, "do": "SetTopic",
      "topic": "TRADE.SLICE.ORDER", "data": {"record": "R9"}})");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /steps/1/data/record: warning: names the record \"R9\", which is no order entered "
            "before it, no name of `records` and no host topic: the step will be skipped");
}

TEST(ScenarioCheck, TimeOffsetLeavingEverySessionOutsideTheRunIsWarned) {
  // 08:00 UTC plus 8 hours: 16:00 exchange time, after the last session.
  const auto lines = Warnings(R"("start": "2026-11-23T08:00:00Z", "time_offset": 28800, "duration_ms": 60000,
      "securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100", "sessions": "09:00~11:30;13:00~15:00"}])",
                              Parent("P1"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "doubtful.json: at /steps/0: warning: parent \"P1\" on \"QX.S.TW.2330\": the run covers 16:00:01 to "
            "16:01:00 exchange time (start plus time_offset 28800 s), outside every session "
            "\"09:00~11:30;13:00~15:00\"; the manager holds it back all the run");
}

TEST(ScenarioCheck, RunReachingASessionOpenIsNotWarned) {
  // 08:59:30 exchange time, the session opens 30 s later.
  const auto lines = Warnings(R"("start": "2026-11-23T00:59:30Z", "time_offset": 28800, "duration_ms": 60000,
      "securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100", "sessions": "09:00~11:30"}])",
                              Parent("P1"));
  EXPECT_EQ(lines, std::vector<std::string>{});
}

TEST(ScenarioCheck, SessionsAreReadAsMinutesOfTheDay) {
  std::vector<std::pair<int, int>> sessions;
  EXPECT_TRUE(ParseSessions(L"09:00~11:30;13:00~15:00", &sessions));
  EXPECT_EQ(sessions, (std::vector<std::pair<int, int>>{{540, 690}, {780, 900}}));
  EXPECT_FALSE(ParseSessions(L"", nullptr));
  EXPECT_FALSE(ParseSessions(L"09:00~11:30;", nullptr));
  EXPECT_FALSE(ParseSessions(L"9:0~11:30", nullptr));
  EXPECT_FALSE(ParseSessions(L"25:00~26:00", nullptr));
}

}  // namespace
}  // namespace tsm::sim
