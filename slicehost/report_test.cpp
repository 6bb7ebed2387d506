#include "slicehost/report.h"

#include <gtest/gtest.h>

#include <string>

#include "slicehost/parent_summary.h"
#include "slicehost/player.h"
#include "slicehost/scenario.h"
#include "slicehost/timeline.h"

namespace tsm::sim {
namespace {

size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

ParentReport Parent(const std::wstring& key, int32_t qty) {
  ParentReport p;
  p.info.level_key = key;
  p.info.slice_id = L"S" + key;
  p.info.sliced_type = 1;
  p.info.qty = qty;
  p.info.submit_ms = 1000;
  p.account.children_sent = 2;
  p.remaining = {{1000, qty}, {2000, qty / 2}, {3000, 0}};
  ChildSpan filled;
  filled.level_key = L"C1";
  filled.qty = qty / 2;
  filled.start_ms = 1100;
  filled.end_ms = 2000;
  filled.outcome = "filled";
  ChildSpan cancelled = filled;
  cancelled.level_key = L"C2";
  cancelled.start_ms = 2100;
  cancelled.end_ms = 2500;
  cancelled.outcome = "cancelled";
  ChildSpan final_portion = filled;
  final_portion.level_key = key;
  final_portion.start_ms = 2600;
  final_portion.end_ms = -1;
  final_portion.outcome = "working";
  final_portion.final_portion = true;
  p.children = {filled, cancelled, final_portion};
  p.end_ms = 3000;
  return p;
}

RunResult TwoParents() {
  RunResult r;
  r.name = "two <parents>";
  r.description = "a & b";
  r.duration_ms = 10000;
  r.parents = {Parent(L"P1", 1000), Parent(L"P2", 600)};
  return r;
}

TEST(Report, IsOneHtmlDocument) {
  const std::string html = ReportHtml(TwoParents());
  EXPECT_EQ(html.rfind("<!DOCTYPE html>\n<html", 0), 0u);
  EXPECT_EQ(Count(html, "<html"), 1u);
  EXPECT_EQ(Count(html, "</html>"), 1u);
  EXPECT_EQ(Count(html, "<body>"), 1u);
  EXPECT_EQ(Count(html, "<style>"), 1u);
}

TEST(Report, NeedsNothingFromANetwork) {
  const std::string html = ReportHtml(TwoParents());
  EXPECT_EQ(html.find("http"), std::string::npos);
  EXPECT_EQ(html.find("src="), std::string::npos);
  EXPECT_EQ(html.find("<script"), std::string::npos);
  EXPECT_EQ(html.find("<link"), std::string::npos);
  EXPECT_EQ(html.find("@import"), std::string::npos);
}

TEST(Report, HasOneChartPerParent) {
  const std::string html = ReportHtml(TwoParents());
  EXPECT_EQ(Count(html, "<svg "), 2u);
  EXPECT_EQ(Count(html, "</svg>"), 2u);
  EXPECT_EQ(Count(html, "<section class=\"parent\""), 2u);
  EXPECT_EQ(Count(html, "<polyline "), 2u);  // quantity not yet filled
  EXPECT_NE(html.find("id=\"parent-P1\""), std::string::npos);
  EXPECT_NE(html.find("id=\"parent-P2\""), std::string::npos);
}

TEST(Report, DrawsEveryChildColouredByHowItEnded) {
  const std::string html = ReportHtml(TwoParents());
  EXPECT_EQ(Count(html, "<rect class=\"child "), 6u);
  EXPECT_EQ(Count(html, "<rect class=\"child filled\""), 2u);
  EXPECT_EQ(Count(html, "<rect class=\"child cancelled\""), 2u);
  EXPECT_EQ(Count(html, "<rect class=\"child working final\""), 2u);
}

TEST(Report, HasTheSummaryTableWithARowPerParent) {
  const std::string html = ReportHtml(TwoParents());
  EXPECT_EQ(Count(html, "<table class=\"summary\">"), 1u);
  const size_t body = html.find("<tbody>");
  const size_t end = html.find("</tbody>");
  ASSERT_NE(body, std::string::npos);
  EXPECT_EQ(Count(html.substr(body, end - body), "<tr>"), 2u);
  EXPECT_NE(html.find("<th>Final portion</th>"), std::string::npos);
}

TEST(Report, EscapesTexts) {
  const std::string html = ReportHtml(TwoParents());
  EXPECT_NE(html.find("two &lt;parents&gt;"), std::string::npos);
  EXPECT_NE(html.find("a &amp; b"), std::string::npos);
  EXPECT_EQ(html.find("<parents>"), std::string::npos);
}

TEST(Report, OfARealRun) {
  auto parsed = ParseScenario(R"({
    "start": "2026-11-23T01:30:00Z", "time_offset": 28800, "duration_ms": 5000,
    "securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100"}],
    "steps": [
      {"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1", "SliceID": "S1", "Symbol": "QX.S.TW.2330",
        "Side": "B", "SecurityType": "S", "OrderQty": 300, "LeavesQty": 300, "SendQty": 300,
        "DiscloseQty": 100, "SlicedType": 1}},
      {"at": 1000, "do": "Submit", "fields": {"LevelKey": "P2", "SliceID": "S2", "Symbol": "QX.S.TW.2330",
        "Side": "S", "SecurityType": "S", "OrderQty": 250, "LeavesQty": 250, "SendQty": 250,
        "DiscloseQty": 100, "SlicedType": 4}}
    ]})", "report.json");
  const RunResult result = RunScenario(std::get<Scenario>(parsed), RunOptions());
  ASSERT_EQ(result.parents.size(), 2u);
  EXPECT_EQ(result.parents[0].account.children_sent, 2);
  EXPECT_EQ(result.parents[0].account.final_portion_qty, 100);
  EXPECT_EQ(result.parents[1].account.children_sent, 2);
  EXPECT_EQ(result.parents[1].remaining.back().second, 0);
  const std::string html = ReportHtml(result);
  EXPECT_EQ(Count(html, "<svg "), 2u);
  EXPECT_EQ(Count(html, "<rect class=\"child filled"), 6u);  // two children and a final portion each
}

TEST(RunOutput, SimulatedTimesAreMinutesSecondsAndMilliseconds) {
  EXPECT_EQ(FormatSimTime(0), "00:00.000");
  EXPECT_EQ(FormatSimTime(61250), "01:01.250");
  EXPECT_EQ(FormatSimTime(3723004), "1:02:03.004");
  EXPECT_EQ(FormatSimTime(-1), "-");
}

TEST(RunOutput, TimelineShortensNewOrdersToTheirGist) {
  HostEvent e;
  e.t_ms = 1100;
  e.ev = "SendTopic";
  e.topic = L"TRADE.NEWORDER";
  e.text = L"TYPE=S,BROKERID=,ACCOUNT=A1,SYMBOL=QX.S.TW.2330,SIDE=B,QTY=300,PRICE=5000,SlicedID=S1,Sliced=1";
  e.data_json = "null";
  const std::string line = TimelineLine(e, false);
  EXPECT_NE(line.find("00:01.100"), std::string::npos) << line;
  EXPECT_NE(line.find("<-"), std::string::npos) << line;
  EXPECT_NE(line.find("SYMBOL=QX.S.TW.2330 SIDE=B QTY=300 PRICE=5000 SlicedID=S1"), std::string::npos) << line;
  EXPECT_EQ(line.find("ACCOUNT"), std::string::npos) << line;
}

TEST(RunOutput, TimelineHidesLogLinesUnlessVerbose) {
  HostEvent e;
  e.ev = "WriteLog";
  e.text = L"<CTradeSliceManager>ParseOrderInfo:End";
  EXPECT_EQ(TimelineLine(e, false), "");
  EXPECT_NE(TimelineLine(e, true).find("ParseOrderInfo:End"), std::string::npos);
  e.text = L"<CTradeSliceManager>CheckOpenCloseTime:0, 85801, 90000, 130000 ~ 150000";
  EXPECT_NE(TimelineLine(e, false).find("CheckOpenCloseTime:0"), std::string::npos);
}

TEST(RunOutput, TimelineCutsLongTextsAtWholeCharacters) {
  HostEvent e;
  e.ev = "SendTopic";
  e.topic = L"TRADE.CANCELORDER";
  e.text = std::wstring(99, L'a') + L"\u00e9\u00e9\u00e9";
  const std::string line = TimelineLine(e, false);
  EXPECT_EQ(line.substr(line.size() - 3), "...");
  EXPECT_NE(line.find(std::string(97, 'a') + "..."), std::string::npos) << line;
}

TEST(RunOutput, ChildrenAreCountedByHowTheyEndedWithoutTheFinalPortion) {
  ParentReport p = Parent(L"P1", 1000);
  p.account.children_failed = 1;
  ChildSpan rejected = p.children[0];
  rejected.outcome = "rejected";
  ChildSpan final_rejected = rejected;
  final_rejected.final_portion = true;
  p.children.push_back(rejected);
  p.children.push_back(final_rejected);
  const ChildCounts counts = CountChildren(p);
  EXPECT_EQ(counts.filled, 1);
  EXPECT_EQ(counts.cancelled, 1);
  EXPECT_EQ(counts.failed, 2);
}

TEST(RunOutput, SummaryHasARowPerParent) {
  const std::string text = SummaryText(TwoParents());
  EXPECT_NE(text.find("Parent"), std::string::npos);
  EXPECT_NE(text.find("Cancelled"), std::string::npos);
  EXPECT_NE(text.find("\nP1 "), std::string::npos) << text;
  EXPECT_NE(text.find("\nP2 "), std::string::npos) << text;
  EXPECT_NE(text.find("iceberg"), std::string::npos);
}

}  // namespace
}  // namespace tsm::sim
