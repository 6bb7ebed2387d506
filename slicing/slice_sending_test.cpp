#include "testing/manager_fixture.h"

namespace tsm {
namespace {

using SliceSendingTest = ManagerTest;

const wchar_t* kCommand = L"TYPE=STK,QTY=100,SlicedID=S1,ExtCommands=,Sliced=1";

TEST_F(SliceSendingTest, EmptyCancelledMapSendsANewOrderWithoutTheSliceIdLine) {
  manager_->SendSlicedOrder(kCommand);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(std::wstring(L"[Sliced Send new order] ") + kCommand)}));
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].p1, 1);
  EXPECT_EQ(sent[0].p2, 2);
  EXPECT_EQ(sent[0].text, kCommand);
  EXPECT_TRUE(sent[0].data.IsEmpty());
}

TEST_F(SliceSendingTest, AnotherCancelledSliceLogsTheSliceIdThenSendsANewOrder) {
  peer_.CancelledSlices().SetAt(L"OTHER", L"OTHER");
  manager_->SendSlicedOrder(kCommand);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"[OnTimer] SlicedID=S1"),
                                               Log(std::wstring(L"[Sliced Send new order] ") + kCommand)}));
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
}

TEST_F(SliceSendingTest, CancelledSliceIsSentAsAFailedOrder) {
  peer_.CancelledSlices().SetAt(L"S1", L"S1");
  manager_->SendSlicedOrder(kCommand);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"[OnTimer] SlicedID=S1"),
                                               Log(std::wstring(L"[Sliced Send delete order] ") + kCommand)}));
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  const auto failed = Sent(L"TRADE.FAILORDER");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].p1, 1);
  EXPECT_EQ(failed[0].p2, 1);
  EXPECT_EQ(failed[0].text, kCommand);
}

TEST_F(SliceSendingTest, CancelledSliceStaysCancelledForEveryLaterCommand) {
  peer_.CancelledSlices().SetAt(L"S1", L"S1");
  manager_->SendSlicedOrder(kCommand);
  manager_->SendSlicedOrder(kCommand);
  EXPECT_EQ(Sent(L"TRADE.FAILORDER").size(), 2u);
}

TEST_F(SliceSendingTest, CommandWithoutSliceIdIsAlwaysANewOrder) {
  peer_.CancelledSlices().SetAt(L"S1", L"S1");
  manager_->SendSlicedOrder(L"TYPE=STK,QTY=1");
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"[Sliced Send new order] TYPE=STK,QTY=1")}));
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
}

}  // namespace
}  // namespace tsm
