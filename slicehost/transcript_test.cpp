#include "slicehost/transcript.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <string>

#include <rapidjson/document.h>

#include "data/text.h"
#include "slicehost/player.h"
#include "slicehost/scenario.h"

namespace tsm::sim {
namespace {

HostEvent Event(const char* ev, const std::wstring& topic = L"", int32_t p1 = 0, int32_t p2 = 0,
                const std::wstring& text = L"", const std::string& data = "") {
  HostEvent e;
  e.t_ms = 1234;
  e.ev = ev;
  e.topic = topic;
  e.p1 = p1;
  e.p2 = p2;
  e.text = text;
  e.data_json = data;
  return e;
}

TEST(TranscriptLine, SetStage) {
  EXPECT_EQ(TranscriptLine(Event("SetStage", L"", 1, 2)), R"({"t":1234,"ev":"SetStage","kind":1,"stage":2})");
}

TEST(TranscriptLine, SetTopicWithARecord) {
  EXPECT_EQ(TranscriptLine(Event("SetTopic", L"TRADE.SLICE.MANAGER", 0, 0, L"3", R"({"record":"P1"})")),
            R"({"t":1234,"ev":"SetTopic","topic":"TRADE.SLICE.MANAGER","p1":0,"p2":0,"text":"3","data":{"record":"P1"}})");
}

TEST(TranscriptLine, EmptyDataIsNull) {
  EXPECT_EQ(TranscriptLine(Event("SendTopic", L"TRADE.CANCELORDER", 2, 1, L"REPORTID=C1", "null")),
            R"({"t":1234,"ev":"SendTopic","topic":"TRADE.CANCELORDER","p1":2,"p2":1,"text":"REPORTID=C1","data":null})");
  EXPECT_EQ(TranscriptLine(Event("SendTopic", L"T", 1, 1, L"", "")),
            R"({"t":1234,"ev":"SendTopic","topic":"T","p1":1,"p2":1,"text":"","data":null})");
}

TEST(TranscriptLine, RegisterAndGetTopicData) {
  EXPECT_EQ(TranscriptLine(Event("RegisterTopic", L"ORDERSET.LOCK")),
            R"({"t":1234,"ev":"RegisterTopic","topic":"ORDERSET.LOCK"})");
  EXPECT_EQ(TranscriptLine(Event("GetTopicData", L"NordaSystemTime")),
            R"({"t":1234,"ev":"GetTopicData","topic":"NordaSystemTime"})");
}

TEST(TranscriptLine, WriteLog) {
  EXPECT_EQ(TranscriptLine(Event("WriteLog", L"", 0, 0, L"<CTradeSliceManager>SetTopic:X, 1")),
            R"({"t":1234,"ev":"WriteLog","line":"<CTradeSliceManager>SetTopic:X, 1"})");
}

TEST(TranscriptLine, SimulatorEventsUseTheirOwnKeys) {
  EXPECT_EQ(TranscriptLine(Event("ExchangeFill", L"C1", 3, 0, L"Fill=5")),
            R"({"t":1234,"ev":"ExchangeFill","subject":"C1","exec_type":3,"text":"Fill=5"})");
  EXPECT_EQ(TranscriptLine(Event("ExchangeNew", L"C1", -1, 0, L"Qty=5")),
            R"({"t":1234,"ev":"ExchangeNew","subject":"C1","text":"Qty=5"})");
}

TEST(TranscriptLine, TextsAreEscapedUtf8) {
  EXPECT_EQ(TranscriptLine(Event("WriteLog", L"", 0, 0, L"a\"b\\c\nd\x01 \u00e9\u4e2d")),
            "{\"t\":1234,\"ev\":\"WriteLog\",\"line\":\"a\\\"b\\\\c\\nd\\u0001 \xc3\xa9\xe4\xb8\xad\"}");
}

TEST(TranscriptCompare, EqualTextsAgree) {
  EXPECT_FALSE(CompareTranscripts("a\nb\n", "a\nb\n"));
}

TEST(TranscriptCompare, CarriageReturnsDoNotCount) {
  EXPECT_FALSE(CompareTranscripts("a\r\nb\r\n", "a\nb\n"));
}

TEST(TranscriptCompare, FirstDifferenceIsReportedWithItsLine) {
  EXPECT_EQ(*CompareTranscripts("a\nb\nc\n", "a\nB\nC\n"), "line 2:\n  expected: b\n  actual:   B");
}

TEST(TranscriptCompare, MissingAndExtraLines) {
  EXPECT_EQ(*CompareTranscripts("a\nb\n", "a\n"), "line 2:\n  expected: b\n  actual:   (end of transcript)");
  EXPECT_EQ(*CompareTranscripts("a\n", "a\nb\n"), "line 2:\n  expected: (end of transcript)\n  actual:   b");
}

TEST(TranscriptFile, IsWrittenWithPlainLineFeeds) {
  const std::string path = (std::filesystem::temp_directory_path() / "slicehost_transcript_test.jsonl").string();
  ASSERT_TRUE(WriteTranscript(path, {Event("SetStage", L"", 1, 1), Event("SetStage", L"", 1, 2)}, nullptr));
  std::string bytes;
  ASSERT_TRUE(ReadFileBytes(path, &bytes));
  EXPECT_EQ(bytes,
            "{\"t\":1234,\"ev\":\"SetStage\",\"kind\":1,\"stage\":1}\n{\"t\":1234,\"ev\":\"SetStage\",\"kind\":1,"
            "\"stage\":2}\n");
  std::remove(path.c_str());
}

TEST(TranscriptFile, UnwritablePathIsReported) {
  std::string error;
  EXPECT_FALSE(WriteTranscript("/nonexistent/dir/t.jsonl", {}, &error));
  EXPECT_EQ(error, "/nonexistent/dir/t.jsonl: cannot be opened for writing");
}

// A small scenario that goes through every host-link call.
Scenario SmallScenario() {
  auto parsed = ParseScenario(R"({
    "start": "2026-11-23T01:30:00Z", "time_offset": 28800, "duration_ms": 5000, "vault": 1,
    "securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100", "sessions": "09:00~13:30",
                    "source": "vault"}],
    "steps": [
      {"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1", "SliceID": "S1", "Symbol": "QX.S.TW.2330",
        "Side": "B", "SecurityType": "S", "OrderQty": 300, "LeavesQty": 300, "SendQty": 300,
        "DiscloseQty": 100, "Variance": 0, "SlicedType": 1}}
    ]})", "small.json");
  return std::get<Scenario>(parsed);
}

TEST(TranscriptOfARun, EveryLineHasExactlyTheKeysOfItsEvent) {
  const RunResult result = RunScenario(SmallScenario(), RunOptions());
  const std::string text = TranscriptText(result.events);
  std::set<std::string> seen;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    rapidjson::Document d;
    d.Parse(line.c_str());
    ASSERT_FALSE(d.HasParseError()) << line;
    std::string keys;
    for (auto it = d.MemberBegin(); it != d.MemberEnd(); ++it) keys += std::string(it->name.GetString()) + ",";
    const std::string ev = d["ev"].GetString();
    seen.insert(ev);
    if (ev == "SetStage") {
      EXPECT_EQ(keys, "t,ev,kind,stage,") << line;
    } else if (ev == "SetTopic" || ev == "SendTopic") {
      EXPECT_EQ(keys, "t,ev,topic,p1,p2,text,data,") << line;
    } else if (ev == "RegisterTopic" || ev == "GetTopicData") {
      EXPECT_EQ(keys, "t,ev,topic,") << line;
    } else if (ev == "WriteLog") {
      EXPECT_EQ(keys, "t,ev,line,") << line;
      EXPECT_EQ(std::string(d["line"].GetString()).rfind("<CTradeSliceManager>", 0), 0u) << line;
    } else {
      EXPECT_TRUE(keys == "t,ev,subject,text," || keys == "t,ev,subject,exec_type,text,") << line;
    }
  }
  for (const char* ev : {"SetStage", "SetTopic", "SendTopic", "RegisterTopic", "GetTopicData", "WriteLog"}) {
    EXPECT_EQ(seen.count(ev), 1u) << ev;
  }
}

TEST(TranscriptOfARun, VaultDocumentAddressIsWrittenAsAddressTrue) {
  const RunResult result = RunScenario(SmallScenario(), RunOptions());
  bool found = false;
  for (const HostEvent& e : result.events) {
    if (e.ev == "SendTopic" && e.topic == L"MARZIPAN.REQUEST" && e.p2 == 64) {
      EXPECT_EQ(TranscriptLine(e).find(R"("data":{"address":true})") != std::string::npos, true) << TranscriptLine(e);
      found = true;
    }
  }
  EXPECT_TRUE(found);
}

TEST(TranscriptOfARun, TimeIsSimulatedMillisecondsSinceTheStart) {
  const RunResult result = RunScenario(SmallScenario(), RunOptions());
  ASSERT_FALSE(result.events.empty());
  EXPECT_EQ(result.events.front().t_ms, 0);
  EXPECT_EQ(result.events.back().ev, "SetStage");
  EXPECT_EQ(result.events.back().t_ms, 5000);
  int64_t last = 0;
  for (const HostEvent& e : result.events) {
    EXPECT_GE(e.t_ms, last);
    last = e.t_ms;
  }
}

TEST(TranscriptOfARun, SameScenarioGivesTheSameTranscript) {
  const Scenario scenario = SmallScenario();
  const std::string first = TranscriptText(RunScenario(scenario, RunOptions()).events);
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(CompareTranscripts(first, TranscriptText(RunScenario(scenario, RunOptions()).events)));
  }
}

TEST(TranscriptOfARun, StepNamingAnUnknownOrderIsSkippedWithAnEvent) {
  auto parsed = ParseScenario(R"({"duration_ms": 2000, "steps": [
      {"at": 500, "do": "Cancel", "order": "P404", "all": true},
      {"at": 600, "do": "SetTopic", "topic": "TRADE.SLICE.MANAGER", "text": "0", "data": {"record": "nowhere"}}]})",
                              "unknown.json");
  const RunResult result = RunScenario(std::get<Scenario>(parsed), RunOptions());
  std::vector<std::string> ignored;
  for (const HostEvent& e : result.events) {
    if (e.ev == "HostStepIgnored") ignored.push_back(TranscriptLine(e));
  }
  ASSERT_EQ(ignored.size(), 2u);
  EXPECT_EQ(ignored[0], R"({"t":500,"ev":"HostStepIgnored","subject":"P404","text":"Reason=unknown order,Step=/steps/0"})");
  EXPECT_EQ(ignored[1],
            R"({"t":600,"ev":"HostStepIgnored","subject":"nowhere","text":"Reason=unknown record,Step=/steps/1"})");
  EXPECT_EQ(result.events.back().ev, "SetStage");
  EXPECT_EQ(result.events.back().p2, 4);
}

TEST(TranscriptOfARun, StepsOfOneMillisecondReachTheManagerInFileOrder) {
  // A parent on release (SlicedType 5) only waits, so every step's call
  // reaches the manager whatever it does with it.
  auto parsed = ParseScenario(R"({"duration_ms": 3000,
    "securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100"}],
    "steps": [
      {"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1", "SliceID": "S1", "Symbol": "QX.S.TW.2330",
        "Side": "B", "SecurityType": "S", "OrderQty": 300, "LeavesQty": 300, "SendQty": 300,
        "DiscloseQty": 100, "SlicedType": 5, "TimeInForce": 6}},
      {"at": 1000, "do": "SetTopic", "topic": "TRADE.SLICE.ORDER", "data": {"record": "P1"}},
      {"at": 1000, "do": "Release", "order": "P1"},
      {"at": 1000, "do": "Renumber", "order": ["P1"]},
      {"at": 1000, "do": "Cancel", "order": "P1", "all": true}]})",
                              "order.json");
  const RunResult result = RunScenario(std::get<Scenario>(parsed), RunOptions());
  std::vector<std::string> calls;
  for (const HostEvent& e : result.events) {
    if (e.ev == "SetTopic" && e.t_ms == 1000) calls.push_back(Utf8FromWide(e.topic));
  }
  EXPECT_EQ(calls, (std::vector<std::string>{"TRADE.SLICE.MANAGER", "TRADE.SLICE.ORDER", "TRADE.SLICE.ORDER",
                                              "ORDERSET.LOCK", "ORDERSET.UNLOCK", "TRADE.SLICE.MANAGER.CANCEL"}));
}

TEST(TranscriptOfARun, SystemTimeTickComesAfterTheStepsOfItsMillisecond) {
  // 08:59:31 exchange time at 1000: a parent parked less than a minute
  // before its session opens hears every system time tick, the one at
  // 1000 included when the tick comes after the step that parks it.
  auto parsed = ParseScenario(R"({"duration_ms": 2500, "start": "2026-11-23T00:59:30Z", "time_offset": 28800,
    "securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100", "sessions": "09:00~11:30"}],
    "steps": [
      {"at": 1000, "do": "Submit", "fields": {"LevelKey": "P1", "SliceID": "S1", "Symbol": "QX.S.TW.2330",
        "Side": "B", "SecurityType": "S", "OrderQty": 300, "LeavesQty": 300, "SendQty": 300,
        "DiscloseQty": 100, "SlicedType": 1}}]})",
                              "tick.json");
  const RunResult result = RunScenario(std::get<Scenario>(parsed), RunOptions());
  std::vector<int64_t> heard;
  for (const HostEvent& e : result.events) {
    if (e.ev == "WriteLog" && e.text.find(L"OnDataUpdate : LevelKey=P1") != std::wstring::npos) heard.push_back(e.t_ms);
  }
  EXPECT_EQ(heard, (std::vector<int64_t>{1000, 2000}));
}

TEST(TranscriptOfARun, RealTimeRunPlaysTheSameSteps) {
  // No sessions: on the wall clock the time of day is whatever it is.
  auto parsed = ParseScenario(R"({"duration_ms": 1500,
    "securities": [{"symbol": "QX.S.TW.2330", "info": "2330|100|x|100"}],
    "steps": [
      {"at": 200, "do": "Submit", "fields": {"LevelKey": "P1", "SliceID": "S1", "Symbol": "QX.S.TW.2330",
        "Side": "B", "SecurityType": "S", "OrderQty": 100, "LeavesQty": 100, "SendQty": 100,
        "DiscloseQty": 100, "SlicedType": 1}}]})", "real.json");
  const Scenario scenario = std::get<Scenario>(parsed);
  RunOptions options;
  options.real_time = true;
  const RunResult result = RunScenario(scenario, options);
  std::vector<std::string> calls;
  for (const HostEvent& e : result.events) {
    if (e.ev == "SetStage") calls.push_back("stage " + std::to_string(e.p2));
    if (e.ev == "SetTopic") calls.push_back(Utf8FromWide(e.topic));
    if (e.ev == "SendTopic" && e.topic == L"TRADE.HOT.MONTH") calls.push_back("final " + e.data_json);
  }
  EXPECT_EQ(calls, (std::vector<std::string>{"stage 1", "stage 2", "TRADE.SLICE.MANAGER", R"(final {"record":"P1"})",
                                             "stage 4"}));
  EXPECT_GE(result.wall_seconds, 1.4);
}

}  // namespace
}  // namespace tsm::sim
