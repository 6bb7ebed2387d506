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
  r.clock_origin_ms = *ParseUtcTime("2026-11-23T01:30:00Z") + 28800 * 1000LL;
  r.time_offset_s = 28800;
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
  EXPECT_EQ(Count(html, "<svg class=\"chart\""), 2u);
  EXPECT_EQ(Count(html, "<svg "), Count(html, "</svg>"));
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
  EXPECT_NE(html.find("<th>Final</th>"), std::string::npos);
  EXPECT_NE(html.find("<th>Filled qty</th>"), std::string::npos);
  EXPECT_NE(html.find("<th>Cancelled qty</th>"), std::string::npos);
  EXPECT_NE(html.find("<th>Outcome</th>"), std::string::npos);
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
  EXPECT_EQ(Count(html, "<svg class=\"chart\""), 2u);
  EXPECT_EQ(Count(html, "<svg class=\"overview\""), 1u);
  EXPECT_EQ(Count(html, "<rect class=\"child filled"), 6u);  // two children and a final portion each
  EXPECT_EQ(Count(html, "<p class=\"outcome\">finished at "), 2u);
}

TEST(Report, OverviewComesFirstWithARowPerParent) {
  const std::string html = ReportHtml(TwoParents());
  const size_t overview = html.find("<svg class=\"overview\"");
  ASSERT_NE(overview, std::string::npos);
  EXPECT_LT(overview, html.find("<svg class=\"chart\""));
  const std::string svg = html.substr(overview, html.find("</svg>", overview) - overview);
  EXPECT_EQ(Count(svg, "<rect class=\"parent "), 2u);
  EXPECT_NE(svg.find("<a href=\"#parent-P1\">"), std::string::npos);
  EXPECT_NE(svg.find("<a href=\"#parent-P2\">"), std::string::npos);
  EXPECT_NE(svg.find("exchange time (UTC+08:00)"), std::string::npos);
}

TEST(Report, EachParentSaysHowItEnded) {
  const RunResult run = TwoParents();
  const std::string html = ReportHtml(run);
  EXPECT_EQ(Count(html, "<p class=\"outcome\">"), 2u);
  EXPECT_NE(html.find("<p class=\"outcome\">" + ParentOutcome(run.parents[0]) + "; filled "), std::string::npos);
  EXPECT_EQ(Count(html, "<td class=\"outcome\">"), 2u);
}

TEST(Report, TimeAxisIsInExchangeClockTimeWithRoundTicksAndATitle) {
  const std::string html = ReportHtml(TwoParents());
  // P1's chart runs from 1000 to 3000 ms after 09:30:00: ticks every 500 ms.
  const size_t chart = html.find("<svg class=\"chart\"");
  const std::string svg = html.substr(chart, html.find("</svg>", chart) - chart);
  EXPECT_NE(svg.find(">09:30:01.000</text>"), std::string::npos) << svg;
  EXPECT_NE(svg.find(">09:30:01.500</text>"), std::string::npos);
  EXPECT_NE(svg.find(">09:30:03.000</text>"), std::string::npos);
  EXPECT_EQ(Count(svg, "class=\"tick-label\""), 5u);
  EXPECT_EQ(Count(svg, ">exchange time (UTC+08:00)</text>"), 1u);
}

TEST(Report, ChildBarsCarryQuantityFillsAndCommandOnHover) {
  RunResult run = TwoParents();
  ChildSpan& c1 = run.parents[0].children[0];
  c1.filled = 500;
  c1.fills = {{1500, 200}, {2000, 300}};
  c1.command = L"TYPE=S,SYMBOL=QX.S.TW.2330,QTY=500";
  const std::string html = ReportHtml(run);
  EXPECT_NE(html.find("<title>C1: qty 500, filled 500, filled; 00:01.100 to 00:02.000\nfills: 200 at 00:01.500; "
                      "300 at 00:02.000\nTYPE=S,SYMBOL=QX.S.TW.2330,QTY=500</title>"),
            std::string::npos);
  EXPECT_EQ(Count(html, "class=\"fill-mark\""), 2u);
  EXPECT_NE(html.find("class=\"bar-label\""), std::string::npos);
}

TEST(Report, ParkedStretchIsShadedWithItsReason) {
  RunResult run = TwoParents();
  run.parents[0].parked = {{1000, 1100, "09:00"}};
  const std::string html = ReportHtml(run);
  // Shaded in the overview and in the parent's chart.
  EXPECT_EQ(Count(html, "<rect class=\"parked\""), 2u);
  EXPECT_NE(html.find("<title>parked outside its sessions: waiting for the session that opens at 09:00 (00:01.000 "
                      "to 00:01.100)</title>"),
            std::string::npos);
}

TEST(Report, RejectedBarsAreHatchedAndMarkedNotOnlyColoured) {
  RunResult run = TwoParents();
  run.parents[0].children[1].outcome = "rejected";
  const std::string html = ReportHtml(run);
  EXPECT_NE(html.find("<pattern id=\"hatch-rejected\""), std::string::npos);
  EXPECT_EQ(Count(html, "fill=\"url(#hatch-rejected)\""), 2u);  // the bar and the legend
  EXPECT_EQ(Count(html, "class=\"reject-mark\""), 1u);
  // No red against green.
  EXPECT_EQ(html.find("#2e7d32"), std::string::npos);
  EXPECT_EQ(html.find("#c62828"), std::string::npos);
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
