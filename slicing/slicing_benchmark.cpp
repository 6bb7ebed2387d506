// Costs of the slicing engine's steps on the host's thread: building a
// template-A command from a fully populated record, sizing a slice including
// the lot request to a host that answers in-process, and one log line.
#include <benchmark/benchmark.h>

#include "manager/trade_slice_manager.h"
#include "platform/virtual_clock.h"
#include "slicehost/sim_host.h"
#include "slicing/command_format.h"

namespace tsm {
namespace {

struct Setup {
  Setup() : host(clock), manager(new CTradeSliceManager(&clock)) {
    manager->AddRef();
    manager->Advise(&host, &cookie);
    record = sim::SimHost::NewRecord(
        L"order", {{L"SecurityType", Variant::Text(L"STK")},   {L"BrokerID", Variant::Text(L"BRK")},
                   {L"Account", Variant::Text(L"ACC1")},       {L"Symbol", Variant::Text(L"QX.S.HK.700")},
                   {L"Side", Variant::Text(L"B")},            {L"Price", Variant::I8(3456000)},
                   {L"PriceString", Variant::Text(L"345.6")}, {L"OrderType", Variant::I4(2)},
                   {L"TimeInForce", Variant::I4(3)},          {L"GroupType", Variant::I4(1)},
                   {L"GroupID", Variant::Text(L"G7")},        {L"SliceID", Variant::Text(L"SL1")},
                   {L"ExtCommands", Variant::Text(L"A=1;b = 2")}, {L"FlowControl", Variant::I4(1)},
                   {L"Consecutive", Variant::I4(1)},          {L"NumberOfRetries", Variant::I4(5)},
                   {L"RetryInterval", Variant::I4(30)},       {L"LevelKey", Variant::Text(L"LK")},
                   {L"DiscloseQty", Variant::I4(1000)},       {L"Variance", Variant::I4(20)}});
    parent = CBaseData::FromCookie(host.Publish(record), nullptr, &clock);
    host.SetSecurityText(L"QX.S.HK.700", L"x|100|y|100");
  }
  ~Setup() {
    delete parent;
    record->Release();
    manager->Unadvise(cookie);
    manager->Release();
    TsmWaitEventsDelivered();
  }
  VirtualClock clock;
  sim::SimHost host;
  CTradeSliceManager* manager;
  uint32_t cookie = 0;
  IBaseData* record;
  CBaseData* parent;
};

void BM_BuildTemplateACommand(benchmark::State& state) {
  Setup s;
  for (auto _ : state) {
    CommandFields fields = GatherCommandFields(*s.parent);
    fields.qty = 300;
    benchmark::DoNotOptimize(FormatCommand(CommandTemplate::kA, fields));
  }
}
BENCHMARK(BM_BuildTemplateACommand);

void BM_ComputeSliceQtyWithLotRequest(benchmark::State& state) {
  Setup s;
  for (auto _ : state) {
    benchmark::DoNotOptimize(s.manager->ComputeSliceQty(s.parent));
    state.PauseTiming();
    s.host.ClearEvents();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ComputeSliceQtyWithLotRequest);

void BM_LogLineThroughWriteLog(benchmark::State& state) {
  Setup s;
  int64_t n = 0;
  for (auto _ : state) {
    s.manager->Log(L"DoSlicedWork First: NewOrderQty=300, TotalQty=1000");
    if (++n % 4096 == 0) {
      state.PauseTiming();
      s.host.ClearEvents();
      state.ResumeTiming();
    }
  }
}
BENCHMARK(BM_LogLineThroughWriteLog);

}  // namespace
}  // namespace tsm
