#include <benchmark/benchmark.h>

#include "data/base_data.h"
#include "testing/component_binding.h"

namespace tsm {
namespace {

// A record bound to its own object, as the order registry holds them.
class BoundRecord {
 public:
  BoundRecord() : object_(TsmCreateBaseData(L"Order")) { record_.Initialize(nullptr, BindingOf(object_)); }
  ~BoundRecord() { object_->Release(); }
  CBaseData& record() { return record_; }
  IBaseData* object() { return object_; }

 private:
  IBaseData* object_;
  CBaseData record_;
};

void Fill(CBaseData& record) {
  const int32_t update_id = record.BeginUpdate();
  record.SetData(update_id, kKindFieldByName, Variant::Text(L"OrderQty"), Variant::I4(1500));
  record.SetData(update_id, kKindFieldByName, Variant::Text(L"LevelKey"), Variant::Text(L"SH.600000.1.20240105.000123"));
  record.SetData(update_id, kKindFieldByName, Variant::Text(L"ExecType"), Variant::Text(L"0"));
  record.EndUpdate(update_id);
}

// The three quantities of a parent, rewritten together as one batch.
void WriteQuantities(CBaseData& record, int32_t qty) {
  const int32_t update_id = record.BeginUpdate();
  record.SetData(update_id, kKindFieldByName, Variant::Text(L"OrderQty"), Variant::I4(qty));
  record.SetData(update_id, kKindFieldByName, Variant::Text(L"LeavesQty"), Variant::I4(qty));
  record.SetData(update_id, kKindFieldByName, Variant::Text(L"SendQty"), Variant::I4(qty));
  record.EndUpdate(update_id);
}

void BM_RecordGetLong(benchmark::State& state) {
  BoundRecord bound;
  Fill(bound.record());
  const CString field(L"OrderQty");
  for (auto _ : state) benchmark::DoNotOptimize(bound.record().GetLong(field, 0));
}
BENCHMARK(BM_RecordGetLong);

// The same read with the field named by a literal, as the component reads.
void BM_RecordGetLongLiteral(benchmark::State& state) {
  BoundRecord bound;
  Fill(bound.record());
  for (auto _ : state) benchmark::DoNotOptimize(bound.record().GetLong(L"OrderQty", 0));
}
BENCHMARK(BM_RecordGetLongLiteral);

void BM_RecordGetString(benchmark::State& state) {
  BoundRecord bound;
  Fill(bound.record());
  const CString field(L"LevelKey");
  for (auto _ : state) benchmark::DoNotOptimize(bound.record().GetString(field));
}
BENCHMARK(BM_RecordGetString);

void BM_RecordBatchWriteThreeFields(benchmark::State& state) {
  BoundRecord bound;
  int32_t qty = 0;
  for (auto _ : state) WriteQuantities(bound.record(), ++qty);
}
BENCHMARK(BM_RecordBatchWriteThreeFields);

// The batch on an object a second record listens to: EndUpdate also queues
// one event for the component's event thread. `wait_each`: each event is
// delivered before the next batch starts; otherwise all are waited for once
// at the end.
void BatchWritesListened(benchmark::State& state, bool wait_each) {
  BoundRecord bound;
  CBaseDataEventReceiver receiver;
  CBaseData listener;
  listener.Initialize(&receiver, BindingOf(bound.object()));
  int32_t qty = 0;
  for (auto _ : state) {
    WriteQuantities(bound.record(), ++qty);
    if (wait_each) TsmWaitEventsDelivered();
  }
  TsmWaitEventsDelivered();
}

void BM_RecordBatchWriteThreeFieldsListened(benchmark::State& state) { BatchWritesListened(state, false); }
BENCHMARK(BM_RecordBatchWriteThreeFieldsListened);

void BM_RecordBatchWriteThreeFieldsEventDelivered(benchmark::State& state) { BatchWritesListened(state, true); }
BENCHMARK(BM_RecordBatchWriteThreeFieldsEventDelivered);

// Hand a record over as a cookie and back: a fresh registration each time.
void BM_CookieRoundTrip(benchmark::State& state) {
  IBaseData* object = TsmCreateBaseData(L"Order");
  for (auto _ : state) {
    CBaseData owner;
    owner.Initialize(nullptr, BindingOf(object));
    CBaseData* copy = CBaseData::FromCookie(owner.GetCookie(), nullptr);
    benchmark::DoNotOptimize(copy);
    delete copy;
  }
  object->Release();
}
BENCHMARK(BM_CookieRoundTrip);

}  // namespace
}  // namespace tsm
