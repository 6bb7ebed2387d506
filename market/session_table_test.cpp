// Trading session tables: the keys of a symbol, where the session text comes
// from (the security info record or the host-filled document) and how it is
// parsed, sorted and stored.
#include <atomic>
#include <thread>

#include "platform/system_text.h"
#include "testing/manager_fixture.h"
#include "testing/mutex_waiters.h"
#include "testing/read_counting_object.h"

namespace tsm {

// Found by argument-dependent lookup, so beside stcOCTime.
bool operator==(const stcOCTime& a, const stcOCTime& b) {
  return a.nOpenTime == b.nOpenTime && a.nCloseTime == b.nCloseTime;
}
void PrintTo(const stcOCTime& t, std::ostream* os) { *os << "(" << t.nOpenTime << ", " << t.nCloseTime << ")"; }

namespace {

const wchar_t kSymbol[] = L"QX.F.CN.IF2612";
const wchar_t kSecurity[] = L"QX.F.CN.IF2612";
const wchar_t kProduct[] = L"QX.F.CN";

std::wstring SessionJson(const std::wstring& member, const std::wstring& text) {
  return L"{\"" + member + L"\":\"" + text + L"\"}";
}

class SessionTableTest : public ManagerTest {
 protected:
  // The security info record's child under `product`; its fields hold JSON.
  void PublishEntry(const std::wstring& product, const sim::FieldList& fields) {
    TsmSetChild(host_.Topic(L"Security.Info"), product.c_str(), Record(L"entry", fields));
  }

  void StartWithVaultMode(int32_t mode) {
    host_.Write(host_.Topic(L"Security.Info"), {{L"VAULT", Variant::I4(mode)}});
    Start();
    host_.ClearEvents();
  }

  std::vector<stcOCTime> Table(const std::wstring& security_key) {
    void* slot = nullptr;
    if (!peer_.SessionTimes().Lookup(security_key, slot)) return {};
    return *static_cast<std::vector<stcOCTime>*>(slot);
  }

  std::wstring Range(const std::wstring& security_key) {
    CString range;
    return peer_.SessionRange().Lookup(security_key, range) ? range.wstr() : L"<none>";
  }

  void Init(const std::wstring& symbol = kSymbol) { manager_->InitSecurityInfo(symbol); }
};

// Keys of a symbol.

TEST_F(SessionTableTest, ThreePartSymbolGivesASecurityKeyEndingInADot) {
  PublishEntry(kProduct, {{L"QX.F.CN.", Variant::Text(SessionJson(L"OpenCloseTime", L"09:30~11:30"))}});
  StartWithVaultMode(0);
  Init(L"QX.F.CN");
  EXPECT_EQ(Range(L"QX.F.CN."), L"09:30~11:30");
  EXPECT_EQ(Table(L"QX.F.CN."), (std::vector<stcOCTime>{{930, 1130}}));
}

TEST_F(SessionTableTest, EmptyPartsAreSkippedAndPartsAfterTheFourthDropped) {
  PublishEntry(kProduct, {{kSecurity, Variant::Text(SessionJson(L"OpenCloseTime", L"09:30~11:30"))}});
  StartWithVaultMode(0);
  Init(L"QX..F.CN.IF2612.X.Y");
  EXPECT_EQ(Range(kSecurity), L"09:30~11:30");
}

// Parsing and storing.

TEST_F(SessionTableTest, TwoSessionsGiveTwoEntriesAndTheOverallRange) {
  manager_->BuildSessionTable(kSecurity, L"09:00~11:30;13:00~15:00");
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{900, 1130}, {1300, 1500}}));
  EXPECT_EQ(Range(kSecurity), L"09:00~15:00");
}

TEST_F(SessionTableTest, OvernightSessionIsOneEntryAndItsTextIsTheRange) {
  manager_->BuildSessionTable(kSecurity, L"21:00~02:30");
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{2100, 230}}));
  EXPECT_EQ(Range(kSecurity), L"21:00~02:30");
}

TEST_F(SessionTableTest, SessionsGivenOutOfOrderAreStoredSortedByOpenTime) {
  manager_->BuildSessionTable(kSecurity, L"21:00~02:30;13:00~15:00;09:30~11:30");
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{930, 1130}, {1300, 1500}, {2100, 230}}));
  // The range is built from the text as given, not from the sorted table.
  EXPECT_EQ(Range(kSecurity), L"21:00~11:30");
}

TEST_F(SessionTableTest, SessionsWithEqualOpenTimesAreBothKept) {
  manager_->BuildSessionTable(kSecurity, L"13:00~15:00;09:00~10:00;09:00~09:30");
  const std::vector<stcOCTime> table = Table(kSecurity);
  ASSERT_EQ(table.size(), 3u);
  EXPECT_EQ(table[0].nOpenTime, 900);
  EXPECT_EQ(table[1].nOpenTime, 900);
  EXPECT_EQ(table[2], (stcOCTime{1300, 1500}));
}

TEST_F(SessionTableTest, SecondsAreKeptBecauseOnlyTheColonsAreRemoved) {
  manager_->BuildSessionTable(kSecurity, L"09:00:00~11:30:00");
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{90000, 113000}}));
  EXPECT_EQ(Range(kSecurity), L"09:00:00~11:30:00");
}

TEST_F(SessionTableTest, SessionWithoutTildeGetsCloseTimeZeroAndNonNumbersConvertToZero) {
  manager_->BuildSessionTable(kSecurity, L"09:30;ab~cd");
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{0, 0}, {930, 0}}));
}

TEST_F(SessionTableTest, RangePiecesSkipEmptyPiecesWhileEntriesKeepThem) {
  manager_->BuildSessionTable(kSecurity, L"~11:30;13:00~");
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{0, 1130}, {1300, 0}}));
  EXPECT_EQ(Range(kSecurity), L"11:30~");
}

TEST_F(SessionTableTest, EmptyTokensBetweenSeparatorsAreSkipped) {
  manager_->BuildSessionTable(kSecurity, L";09:30~11:30;;13:00~15:00;");
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{930, 1130}, {1300, 1500}}));
  EXPECT_EQ(Range(kSecurity), L"09:30~15:00");
}

TEST_F(SessionTableTest, RebuildEmptiesAndReusesTheSecuritysTable) {
  manager_->BuildSessionTable(kSecurity, L"09:00~10:00;11:00~12:00");
  void* first = nullptr;
  ASSERT_TRUE(peer_.SessionTimes().Lookup(kSecurity, first));
  manager_->BuildSessionTable(kSecurity, L"13:00~14:00");
  void* second = nullptr;
  ASSERT_TRUE(peer_.SessionTimes().Lookup(kSecurity, second));
  EXPECT_EQ(first, second);
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{1300, 1400}}));
  EXPECT_EQ(Range(kSecurity), L"13:00~14:00");
}

// The security info record.

TEST_F(SessionTableTest, SecurityOpenCloseTimeWinsOverEveryOtherText) {
  PublishEntry(kProduct, {{kSecurity, Variant::Text(L"{\"OpenCloseTime\":\"09:00~10:00\",\"TradeTime\":\"11:00~12:00\"}")},
                          {kProduct, Variant::Text(L"{\"OpenCloseTime\":\"13:00~14:00\",\"TradeTime\":\"15:00~16:00\"}")}});
  StartWithVaultMode(0);
  Init();
  EXPECT_EQ(Range(kSecurity), L"09:00~10:00");
}

TEST_F(SessionTableTest, ProductOpenCloseTimeComesSecond) {
  PublishEntry(kProduct, {{kSecurity, Variant::Text(SessionJson(L"TradeTime", L"11:00~12:00"))},
                          {kProduct, Variant::Text(L"{\"OpenCloseTime\":\"13:00~14:00\",\"TradeTime\":\"15:00~16:00\"}")}});
  StartWithVaultMode(0);
  Init();
  EXPECT_EQ(Range(kSecurity), L"13:00~14:00");
}

TEST_F(SessionTableTest, SecurityTradeTimeComesThird) {
  PublishEntry(kProduct, {{kSecurity, Variant::Text(SessionJson(L"TradeTime", L"11:00~12:00"))},
                          {kProduct, Variant::Text(SessionJson(L"TradeTime", L"15:00~16:00"))}});
  StartWithVaultMode(0);
  Init();
  EXPECT_EQ(Range(kSecurity), L"11:00~12:00");
}

TEST_F(SessionTableTest, ProductTradeTimeComesLast) {
  PublishEntry(kProduct, {{kProduct, Variant::Text(SessionJson(L"TradeTime", L"15:00~16:00"))}});
  StartWithVaultMode(0);
  Init();
  EXPECT_EQ(Range(kSecurity), L"15:00~16:00");
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{1500, 1600}}));
}

TEST_F(SessionTableTest, SessionGivenAsAJsonNumberIsPassedOver) {
  PublishEntry(kProduct, {{kSecurity, Variant::Text(L"{\"OpenCloseTime\":930}")},
                          {kProduct, Variant::Text(SessionJson(L"OpenCloseTime", L"13:00~14:00"))}});
  StartWithVaultMode(0);
  Init();
  EXPECT_EQ(Range(kSecurity), L"13:00~14:00");
}

TEST_F(SessionTableTest, EntryWithoutSessionTextLeavesTheSecurityUnknownUntilATextAppears) {
  PublishEntry(kProduct, {{kSecurity, Variant::Text(L"{\"Other\":\"x\"}")}});
  StartWithVaultMode(0);
  Init();
  EXPECT_EQ(Range(kSecurity), L"<none>");
  EXPECT_TRUE(Table(kSecurity).empty());
  EXPECT_TRUE(Logs().empty());
  PublishEntry(kProduct, {{kSecurity, Variant::Text(SessionJson(L"OpenCloseTime", L"09:30~11:30"))}});
  Init();
  EXPECT_EQ(Range(kSecurity), L"09:30~11:30");
}

TEST_F(SessionTableTest, NoEntryAndNoDocumentLogsTheFailureWithTheProductKey) {
  StartWithVaultMode(0);
  Init();
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"InitSecurityInfo fail:QX.F.CN")}));
  EXPECT_EQ(Range(kSecurity), L"<none>");
}

TEST_F(SessionTableTest, WithoutASecurityInfoRecordNothingHappens) {
  Start();
  host_.ClearEvents();
  Init();
  EXPECT_TRUE(host_.Events().empty());
  EXPECT_EQ(peer_.SessionTimes().GetCount(), 0);
  EXPECT_EQ(peer_.SessionRange().GetCount(), 0);
}

TEST_F(SessionTableTest, SecondInitOfAnInitialisedSecurityTouchesNeitherRecordNorDatabaseNorLog) {
  PublishEntry(kProduct, {{kSecurity, Variant::Text(SessionJson(L"OpenCloseTime", L"09:30~11:30"))}});
  StartWithVaultMode(1);
  Init();
  ASSERT_EQ(Range(kSecurity), L"09:30~11:30");
  host_.ClearEvents();
  PublishEntry(kProduct, {{kSecurity, Variant::Text(SessionJson(L"OpenCloseTime", L"21:00~23:00"))}});
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":{\"OpenCloseTime\":\"13:00~15:00\"}}", L"TRUE");
  Init();
  EXPECT_TRUE(host_.Events().empty());
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{930, 1130}}));
}

TEST_F(SessionTableTest, SecondInitOfAnInitialisedSecurityDoesNotReadTheSecurityInfoRecord) {
  PublishEntry(kProduct, {{kSecurity, Variant::Text(SessionJson(L"OpenCloseTime", L"09:30~11:30"))}});
  // The host serves its security info record through an object that counts
  // the reads; the host keeps the only reference.
  auto* counting = new ReadCountingObject(host_.Topic(L"Security.Info"));
  host_.SetTopicRecord(L"Security.Info", counting);
  counting->Release();
  StartWithVaultMode(1);
  Init();
  ASSERT_EQ(Range(kSecurity), L"09:30~11:30");
  ASSERT_GT(counting->reads(), 0);
  const int reads = counting->reads();
  host_.ClearEvents();
  Init();
  EXPECT_EQ(counting->reads(), reads);
  EXPECT_TRUE(host_.Events().empty());
}

TEST_F(SessionTableTest, UnknownSecurityAsksTheDatabaseAgainOnItsNextInit) {
  StartWithVaultMode(1);
  Init();
  Init();
  EXPECT_EQ(Sent(L"MARZIPAN.REQUEST").size(), 2u);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"GetInfoFromVaultDb:false"), Log(L"InitSecurityInfo fail:QX.F.CN"),
                                               Log(L"GetInfoFromVaultDb:false"), Log(L"InitSecurityInfo fail:QX.F.CN")}));
}

TEST_F(SessionTableTest, EntryPresentWithVaultModeOneSkipsTheDatabase) {
  PublishEntry(kProduct, {{kSecurity, Variant::Text(SessionJson(L"OpenCloseTime", L"09:30~11:30"))}});
  StartWithVaultMode(1);
  Init();
  EXPECT_TRUE(Sent(L"MARZIPAN.REQUEST").empty());
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"GetInfoFromVaultDb not null:QX.F.CN")}));
  EXPECT_EQ(Range(kSecurity), L"09:30~11:30");
}

// The host-filled document.

TEST_F(SessionTableTest, DocumentFilledByTheHostBuildsTheTable) {
  StartWithVaultMode(1);
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":{\"OpenCloseTime\":\"09:30~11:30;13:00~15:00\"}}", L"OK");
  Init();
  const auto requests = Sent(L"MARZIPAN.REQUEST");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].text, kSecurity);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"OpenCloseTime:QX.F.CN.IF2612, 09:30~11:30;13:00~15:00.")}));
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{930, 1130}, {1300, 1500}}));
}

TEST_F(SessionTableTest, FilledDocumentWinsOverAnEntryTheHostAddedMeanwhile) {
  StartWithVaultMode(1);
  HostAddsEntryOnVaultRequest(kProduct, kSecurity, SessionJson(L"OpenCloseTime", L"21:00~23:00"));
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":{\"OpenCloseTime\":\"09:30~11:30\"}}", L"OK");
  Init();
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{930, 1130}}));
}

TEST_F(SessionTableTest, SecurityInitialisedMeanwhileStillLogsTheOpenCloseTimeLine) {
  StartWithVaultMode(1);
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":{\"OpenCloseTime\":\"09:30~11:30\"}}", L"OK");
  // Another thread builds the security's table while the host answers.
  host_.on_send = [this](const std::wstring& topic, int32_t, int32_t, const std::wstring&, Variant*, Variant*) {
    if (topic == L"MARZIPAN.REQUEST") manager_->BuildSessionTable(kSecurity, L"21:00~23:00");
  };
  Init();
  // The line is written with no text found, and the table built meanwhile
  // is left as it is.
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"OpenCloseTime:QX.F.CN.IF2612, .")}));
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{2100, 2300}}));
}

TEST_F(SessionTableTest, DocumentWithoutTheSecurityDoesNotFallBackToTheProduct) {
  StartWithVaultMode(1);
  host_.SetVaultAnswer("{\"QX.F.CN\":{\"OpenCloseTime\":\"09:30~11:30\"}}", L"OK");
  Init();
  EXPECT_TRUE(Logs().empty());
  EXPECT_EQ(Range(kSecurity), L"<none>");
}

TEST_F(SessionTableTest, SecurityWithoutOpenCloseTimeTakesTheProductsText) {
  StartWithVaultMode(1);
  host_.SetVaultAnswer(
      "{\"QX.F.CN.IF2612\":{\"TradeTime\":\"21:00~23:00\"},\"QX.F.CN\":{\"OpenCloseTime\":\"13:00~15:00\"}}", L"OK");
  Init();
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"OpenCloseTime:QX.F.CN.IF2612, 13:00~15:00.")}));
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{1300, 1500}}));
}

TEST_F(SessionTableTest, DocumentPathDoesNotConsultTradeTime) {
  StartWithVaultMode(1);
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":{\"TradeTime\":\"21:00~23:00\"},\"QX.F.CN\":{\"TradeTime\":\"13:00~15:00\"}}",
                       L"OK");
  Init();
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"OpenCloseTime:QX.F.CN.IF2612, .")}));
  EXPECT_EQ(Range(kSecurity), L"<none>");
}

TEST_F(SessionTableTest, SecurityTextIsConvertedThroughTheSystemCodePage) {
  StartWithVaultMode(1);
  const std::string suffix = "\xC3\xA9";
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":{\"OpenCloseTime\":\"09:30~11:30" + suffix + "\"}}", L"OK");
  Init();
  const std::wstring text = L"09:30~11:30" + FromSystemCodePage(suffix);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"OpenCloseTime:QX.F.CN.IF2612, " + text + L".")}));
  EXPECT_EQ(Range(kSecurity), text);
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{930, 1130}}));
}

TEST_F(SessionTableTest, ProductTextIsConvertedFromUtf8) {
  StartWithVaultMode(1);
  const std::string suffix = "\xC3\xA9";
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":{},\"QX.F.CN\":{\"OpenCloseTime\":\"09:30~11:30" + suffix + "\"}}", L"OK");
  Init();
  const std::wstring text = L"09:30~11:30\u00e9";
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"OpenCloseTime:QX.F.CN.IF2612, " + text + L".")}));
  EXPECT_EQ(Range(kSecurity), text);
}

TEST_F(SessionTableTest, UnparsableDocumentFallsBackToTheEntry) {
  StartWithVaultMode(1);
  HostAddsEntryOnVaultRequest(kProduct, kSecurity, SessionJson(L"OpenCloseTime", L"21:00~23:00"));
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":", L"OK");
  Init();
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{2100, 2300}}));
}

TEST_F(SessionTableTest, DocumentThatIsNotAnObjectIsLoggedAndIgnored) {
  StartWithVaultMode(1);
  host_.SetVaultAnswer("[\"QX.F.CN.IF2612\"]", L"OK");
  Init();
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"InitSecurityInfo document is not an object:QX.F.CN.IF2612")}));
  EXPECT_EQ(Range(kSecurity), L"<none>");
}

TEST_F(SessionTableTest, SecurityMemberThatIsNotAnObjectHasNoOwnText) {
  StartWithVaultMode(1);
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":\"21:00~23:00\",\"QX.F.CN\":{\"OpenCloseTime\":\"13:00~15:00\"}}", L"OK");
  Init();
  EXPECT_EQ(Range(kSecurity), L"13:00~15:00");
}

// Threads.

TEST_F(SessionTableTest, TableRebuiltOnOneThreadWhileCheckedOnAnother) {
  StartWithVaultMode(0);
  CBaseData* order = Bound({{L"LevelKey", Variant::Text(L"K1")}});
  std::atomic<bool> done{false};
  std::thread checker([&] {
    while (!done.load()) manager_->CheckOpenCloseTime(order, kSymbol);
  });
  for (int i = 0; i < 200; ++i) manager_->BuildSessionTable(kSecurity, i % 2 ? L"09:30~11:30" : L"09:30~11:30;13:00~15:00");
  done = true;
  checker.join();
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{930, 1130}}));
}

TEST_F(SessionTableTest, TableCopyWaitsForTheSessionLock) {
  manager_->BuildSessionTable(kSecurity, L"09:30~11:30");
  std::atomic<bool> built{false};
  peer_.SessionTimesLock().Lock();
  std::thread builder([&] {
    manager_->BuildSessionTable(kSecurity, L"13:00~15:00");
    built = true;
  });
  EXPECT_TRUE(WaitForWaiter(peer_.SessionTimesLock(), &built));
  EXPECT_FALSE(built.load());
  peer_.SessionTimesLock().Unlock();
  builder.join();
  EXPECT_EQ(Table(kSecurity), (std::vector<stcOCTime>{{1300, 1500}}));
}

}  // namespace
}  // namespace tsm
