// The open/close time check: exchange time against a security's sessions,
// parking of orders outside them. Each fixture starts the virtual clock at
// the time of day under test on 2026-11-23.
#include <climits>

#include "testing/manager_fixture.h"

namespace tsm {
namespace {

constexpr int64_t kDayStartMs = 1795392000000LL;  // 2026-11-23 00:00:00 UTC

constexpr int64_t At(int hour, int minute, int second) {
  return kDayStartMs + (hour * 3600LL + minute * 60LL + second) * 1000LL;
}

const wchar_t kSymbol[] = L"QX.F.CN.IF2612";
const wchar_t kSecurity[] = L"QX.F.CN.IF2612";
const wchar_t kDaySessions[] = L"09:30~11:30;13:00~15:00";
const wchar_t kNightSession[] = L"21:00~02:30";

template <int64_t kStartUtcMs>
class CheckAt : public ManagerTest {
 protected:
  CheckAt() : ManagerTest(kStartUtcMs) {}

  CBaseData* Order(const std::wstring& level_key = L"K1") { return Bound({{L"LevelKey", Variant::Text(level_key)}}); }

  int32_t Check(CBaseData* order, const std::wstring& symbol = kSymbol) {
    return manager_->CheckOpenCloseTime(order, symbol);
  }

  stcWaitOrder* Parked(const std::wstring& level_key) {
    void* slot = nullptr;
    return peer_.WaitOpenOrders().Lookup(level_key, slot) ? static_cast<stcWaitOrder*>(slot) : nullptr;
  }

  std::vector<std::wstring> CheckLines() const {
    std::vector<std::wstring> lines;
    for (const std::wstring& line : Logs()) {
      if (line.rfind(Log(L"CheckOpenCloseTime:"), 0) == 0) lines.push_back(line);
    }
    return lines;
  }
};

using At0800 = CheckAt<At(8, 0, 0)>;
using At0929 = CheckAt<At(9, 29, 59)>;
using At0930 = CheckAt<At(9, 30, 0)>;
using At0959 = CheckAt<At(9, 59, 59)>;
using At1129 = CheckAt<At(11, 29, 59)>;
using At1130 = CheckAt<At(11, 30, 0)>;
using At1500 = CheckAt<At(15, 0, 0)>;
using At1530 = CheckAt<At(15, 30, 0)>;
using At2300 = CheckAt<At(23, 0, 0)>;
using At0100 = CheckAt<At(1, 0, 0)>;
using At0130 = CheckAt<At(1, 30, 0)>;
using At0230 = CheckAt<At(2, 30, 0)>;
using BeforeTheEpoch = CheckAt<-1000>;

TEST_F(At1130, CloseOfTheMorningSessionParksTheOrderUntilTheAfternoonOpen) {
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  CBaseData* order = Order();
  EXPECT_EQ(Check(order), 0);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:0, 113000, 130000, 130000 ~ 150000")}));
  stcWaitOrder* parked = Parked(L"K1");
  ASSERT_NE(parked, nullptr);
  EXPECT_EQ(parked->pOrder, order);
  EXPECT_EQ(parked->nOpenTime, 130000);
  EXPECT_EQ(parked->strLevelKey, CString(L"K1"));
}

TEST_F(At0930, OpenMinuteOfTheSessionLetsTheOrderGo) {
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  EXPECT_EQ(Check(Order()), 1);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:1, 93000, 93000, 93000 ~ 113000")}));
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 0);
}

TEST_F(At0800, BeforeTheFirstSessionWaitsForItsOpen) {
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  EXPECT_EQ(Check(Order()), 0);
  // The scan stops at the second later session: the first one opens sooner.
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:0, 80000, 93000, 130000 ~ 150000")}));
  ASSERT_NE(Parked(L"K1"), nullptr);
  EXPECT_EQ(Parked(L"K1")->nOpenTime, 93000);
}

TEST_F(At0800, ScanStopsAtTheFirstLaterSessionOnceANextOpenIsKnown) {
  manager_->BuildSessionTable(kSecurity, L"09:30~11:30;13:00~15:00;21:00~23:00");
  EXPECT_EQ(Check(Order()), 0);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:0, 80000, 93000, 130000 ~ 150000")}));
}

TEST_F(At1530, AfterTheLastSessionTheNextOpenIsTheFirstSessionOfTheTable) {
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  EXPECT_EQ(Check(Order()), 0);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:0, 153000, 93000, 130000 ~ 150000")}));
  ASSERT_NE(Parked(L"K1"), nullptr);
  EXPECT_EQ(Parked(L"K1")->nOpenTime, 93000);
}

TEST_F(At1500, LaterOvernightSessionBecomesTheNextOpen) {
  manager_->BuildSessionTable(kSecurity, L"09:30~11:30;21:00~02:30");
  EXPECT_EQ(Check(Order()), 0);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:0, 150000, 210000, 210000 ~ 23000")}));
  EXPECT_EQ(Parked(L"K1")->nOpenTime, 210000);
}

TEST_F(At2300, OvernightSessionIsOpenLateInTheEvening) {
  manager_->BuildSessionTable(kSecurity, kNightSession);
  EXPECT_EQ(Check(Order()), 1);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:1, 230000, 210000, 210000 ~ 23000")}));
}

TEST_F(At0100, OvernightSessionIsOpenAfterMidnight) {
  manager_->BuildSessionTable(kSecurity, kNightSession);
  EXPECT_EQ(Check(Order()), 1);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:1, 10000, 210000, 210000 ~ 23000")}));
}

TEST_F(At0230, OvernightSessionIsClosedAtItsCloseTimeAndWaitsForItsOpen) {
  manager_->BuildSessionTable(kSecurity, kNightSession);
  EXPECT_EQ(Check(Order()), 0);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:0, 23000, 210000, 210000 ~ 23000")}));
  EXPECT_EQ(Parked(L"K1")->nOpenTime, 210000);
}

TEST_F(At0130, TimeOffsetOf28800SecondsChecksUtc0130As0930) {
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  peer_.TimeDiff() = 28800;
  EXPECT_EQ(Check(Order()), 1);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:1, 93000, 93000, 93000 ~ 113000")}));
}

TEST_F(At0130, TimeOffsetOf28800SecondsFromTheSystemTimeRecordChecksUtc0130As0930) {
  host_.Topic(L"NordaSystemTime");
  Start();
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  sim::SimHost::Write(host_.Topic(L"NordaSystemTime"), {{L"SystemDate", Variant::I4(20261123)},
                                                       {L"SystemTime", Variant::I4(93000)},
                                                       {L"TimeDiff", Variant::I4(28800)}});
  Advance(0);
  ASSERT_EQ(peer_.TimeDiff().load(), 28800);
  EXPECT_EQ(Check(Order()), 1);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:1, 93000, 93000, 93000 ~ 113000")}));
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 0);
}

TEST_F(At0130, WithoutTheTimeOffsetUtc0130IsBeforeTheSessions) {
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  EXPECT_EQ(Check(Order()), 0);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:0, 13000, 93000, 130000 ~ 150000")}));
}

TEST_F(At0930, MidnightWhenTheTimeBreakdownFails) {
  // An offset that takes the exchange time before 1970: the breakdown rejects it.
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  peer_.TimeDiff() = INT32_MIN;
  EXPECT_EQ(Check(Order()), 0);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:0, 0, 93000, 130000 ~ 150000")}));
}

TEST_F(BeforeTheEpoch, MidnightWhenTheClockIsBeforeTheEpoch) {
  // 1969-12-31 23:59:59 would be inside the overnight session; midnight is too.
  manager_->BuildSessionTable(kSecurity, L"23:00~00:30");
  EXPECT_EQ(Check(Order()), 1);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:1, 0, 230000, 230000 ~ 3000")}));
}

TEST_F(At0930, SecurityWithoutSessionTableIsOpenWithoutALogLine) {
  EXPECT_EQ(Check(Order()), 1);
  EXPECT_TRUE(Logs().empty());
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 0);
}

TEST_F(At0930, SecurityWithAnEmptySessionTableIsOpenWithoutALogLine) {
  manager_->BuildSessionTable(kSecurity, L";;");
  EXPECT_EQ(Check(Order()), 1);
  EXPECT_TRUE(Logs().empty());
}

TEST_F(At1130, ParkingTheSameLevelKeyTwiceKeepsOneEntryTheLaterOne) {
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  CBaseData* first = Order(L"K1");
  CBaseData* second = Order(L"K1");
  EXPECT_EQ(Check(first), 0);
  EXPECT_EQ(Check(second), 0);
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 1);
  ASSERT_NE(Parked(L"K1"), nullptr);
  EXPECT_EQ(Parked(L"K1")->pOrder, second);
}

TEST_F(At0929, SameDaySessionIncludesItsOpenSecond) {
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  CBaseData* order = Order();
  EXPECT_EQ(Check(order), 0);
  Advance(1000);
  EXPECT_EQ(Check(order), 1);
}

TEST_F(At1129, SameDaySessionExcludesItsCloseSecond) {
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  CBaseData* order = Order();
  EXPECT_EQ(Check(order), 1);
  Advance(1000);
  EXPECT_EQ(Check(order), 0);
}

TEST_F(At0959, SessionWhoseOpenEqualsItsCloseIsOpenExceptAtThatMoment) {
  manager_->BuildSessionTable(kSecurity, L"10:00~10:00");
  CBaseData* order = Order();
  EXPECT_EQ(Check(order), 1);
  Advance(1000);
  EXPECT_EQ(Check(order), 0);
  EXPECT_EQ(Parked(L"K1")->nOpenTime, 100000);
  Advance(1000);
  EXPECT_EQ(Check(order), 1);
}

TEST_F(At0930, BoundsThatAreNotTimesArePrintedAsTheyConvert) {
  manager_->BuildSessionTable(kSecurity, L"-09:00~10:00");
  EXPECT_EQ(Check(Order()), 1);
  EXPECT_EQ(CheckLines(), (std::vector<std::wstring>{Log(L"CheckOpenCloseTime:1, 93000, -90000, -90000 ~ 100000")}));
}

TEST_F(At1130, CheckInitialisesTheSecurityFromTheSecurityInfoFirst) {
  IBaseData* entry =
      Record(L"entry", {{kSecurity, Variant::Text(L"{\"OpenCloseTime\":\"09:30~11:30;13:00~15:00\"}")}});
  TsmSetChild(host_.Topic(L"Security.Info"), L"QX.F.CN", entry);
  Start();
  CBaseData* order = Order();
  EXPECT_EQ(Check(order), 0);
  EXPECT_TRUE(peer_.SessionRange().Contains(kSecurity));
  EXPECT_EQ(Parked(L"K1")->nOpenTime, 130000);
}

TEST_F(At1130, SymbolIsCheckedUnderItsFourPartSecurityKey) {
  manager_->BuildSessionTable(kSecurity, kDaySessions);
  EXPECT_EQ(Check(Order(), L"QX.F.CN.IF2612.EXTRA"), 0);
  EXPECT_EQ(Check(Order(L"K2"), L"QX.F.CN.IF2701"), 1);
}

}  // namespace
}  // namespace tsm
