#include "slicehost/parent_summary.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <variant>

#include "data/text.h"
#include "slicehost/demo_scenario.h"
#include "slicehost/player.h"
#include "slicehost/scenario.h"

namespace tsm::sim {
namespace {

RunResult Play(const std::string& json, const std::string& name) {
  auto parsed = ParseScenario(json, name);
  EXPECT_TRUE(std::holds_alternative<Scenario>(parsed)) << std::get<ScenarioError>(parsed).message;
  return RunScenario(std::get<Scenario>(parsed), RunOptions());
}

std::map<std::string, const ParentReport*> ByKey(const RunResult& result) {
  std::map<std::string, const ParentReport*> parents;
  for (const ParentReport& p : result.parents) parents[Utf8FromWide(p.info.level_key)] = &p;
  return parents;
}

// The demo ends its parents in most of the ways there are.
TEST(ParentSummary, DemoParentsSayHowTheyEnded) {
  const RunResult result = Play(DemoScenarioJson(), "demo");
  auto parents = ByKey(result);
  ASSERT_EQ(parents.size(), 9u);
  EXPECT_EQ(ParentOutcome(*parents["P1"]), "finished at 00:32.470");
  EXPECT_EQ(ParentOutcome(*parents["P5"]), "children replaced and not filled (1000), the rest finished at 00:42.530");
  EXPECT_EQ(ParentOutcome(*parents["P8"]), "final portion transferred at 00:39.100");
  EXPECT_EQ(ParentOutcome(*parents["P9"]), "cancelled by the host at 00:40.000");
}

TEST(ParentSummary, FilledAndCancelledQuantitiesAreShown) {
  const RunResult result = Play(DemoScenarioJson(), "demo");
  auto parents = ByKey(result);
  // P9: one child of 1000 filled, the second cancelled with the parent
  // after 500 of it filled.
  EXPECT_EQ(parents["P9"]->account.qty_filled, 1500);
  EXPECT_EQ(parents["P9"]->qty_cancelled, 500);
  // P4 (leftover action 1): what its cancelled children left rolled over.
  EXPECT_EQ(parents["P4"]->qty_cancelled, 1250);
  const std::vector<std::string> cells = SummaryCells(*parents["P9"]);
  ASSERT_EQ(cells.size(), SummaryColumns().size());
  EXPECT_EQ(SummaryColumns()[9], "Filled qty");
  EXPECT_EQ(cells[9], "1500");
  EXPECT_EQ(SummaryColumns()[10], "Cancelled qty");
  EXPECT_EQ(cells[10], "500");
  EXPECT_EQ(cells.back(), "cancelled by the host at 00:40.000");
}

const char kParkedAndWorking[] = R"({"duration_ms": 3000, "start": "2026-11-23T00:58:00Z", "time_offset": 28800,
  "securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100", "sessions": "09:00~11:30"},
                 {"symbol": "QX.S.TW.2317", "info": "2317|100|x|100"}],
  "exchange": {"fill_percent": 0},
  "steps": [
    {"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1", "SliceID": "S1", "Symbol": "QX.S.TW.2330",
      "Side": "B", "SecurityType": "S", "OrderQty": 3000, "LeavesQty": 3000, "DiscloseQty": 1000, "SlicedType": 1}},
    {"at": 1000, "do": "Submit", "fields": {"LevelKey": "P2", "SliceID": "S2", "Symbol": "QX.S.TW.2317",
      "Side": "B", "SecurityType": "S", "OrderQty": 3000, "LeavesQty": 3000, "DiscloseQty": 1000, "SlicedType": 1}},
    {"at": 1000, "do": "Submit", "fields": {"LevelKey": "P3", "SliceID": "S3", "Symbol": "QX.S.TW.2317",
      "OrderQty": 3000, "LeavesQty": 3000}}]})";

TEST(ParentSummary, ParkedParentSaysWhenItsSessionOpens) {
  const RunResult result = Play(kParkedAndWorking, "parked.json");
  auto parents = ByKey(result);
  EXPECT_EQ(ParentOutcome(*parents["P1"]), "still parked until its session opens at 09:00");
  ASSERT_EQ(parents["P1"]->parked.size(), 1u);
  EXPECT_EQ(parents["P1"]->parked[0].start_ms, 1000);
  EXPECT_EQ(parents["P1"]->parked[0].end_ms, -1);
  EXPECT_EQ(parents["P1"]->parked[0].opens_at, "09:00");
}

TEST(ParentSummary, UnfilledParentIsStillWorkingAndOneWithoutSlicedTypeIsNotTakenIn) {
  const RunResult result = Play(kParkedAndWorking, "parked.json");
  auto parents = ByKey(result);
  EXPECT_EQ(ParentOutcome(*parents["P2"]), "still working at the end of the run");
  EXPECT_TRUE(parents["P2"]->parked.empty());
  EXPECT_EQ(ParentOutcome(*parents["P3"]), "not taken in (SlicedType below 1)");
}

TEST(ParentSummary, ParkedStretchEndsWhenTheFirstOrderReachesTheExchange) {
  // session_parked: taken in at 08:58:01, sliced from the open.
  auto parsed = LoadScenarioFile(std::string(TSM_SOURCE_DIR) + "/scenarios/session_parked.json");
  ASSERT_TRUE(std::holds_alternative<Scenario>(parsed));
  const RunResult result = RunScenario(std::get<Scenario>(parsed), RunOptions());
  ASSERT_EQ(result.parents.size(), 1u);
  const ParentReport& p = result.parents[0];
  ASSERT_EQ(p.parked.size(), 1u);
  EXPECT_EQ(p.parked[0].start_ms, 1000);
  ASSERT_FALSE(p.children.empty());
  EXPECT_EQ(p.parked[0].end_ms, p.children[0].start_ms);
  EXPECT_EQ(p.parked[0].opens_at, "09:00");
}

TEST(ParentSummary, QuantityBeyond32BitsIsShownAsItIs) {
  const RunResult result = Play(R"({"duration_ms": 3000,
    "securities": [{"symbol": "QX.S.TW.2317", "info": "2317|100|x|100"}],
    "steps": [{"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1", "SliceID": "S1", "Symbol": "QX.S.TW.2317",
      "Side": "B", "SecurityType": "S", "OrderQty": 2147483648, "DiscloseQty": 1000, "SlicedType": 1}}]})",
                                "big.json");
  ASSERT_EQ(result.parents.size(), 1u);
  const std::vector<std::string> cells = SummaryCells(result.parents[0]);
  EXPECT_EQ(cells[3], "2147483648");   // Qty
  EXPECT_EQ(cells[8], "2147483648");   // Final: sent whole, no LeavesQty
  EXPECT_EQ(cells[9], "2147483648");   // Filled qty
  EXPECT_EQ(SummaryText(result).find("-2147483648"), std::string::npos);
}

}  // namespace
}  // namespace tsm::sim
