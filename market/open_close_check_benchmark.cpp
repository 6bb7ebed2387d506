// Trading hours on the hot path: the open/close check of a security whose
// sessions are known (every release of a slice pays it), and the first
// initialisation of a security through the host-filled document.
#include <time.h>

#include <chrono>

#include <benchmark/benchmark.h>

#include "testing/manager_fixture.h"

namespace tsm {
namespace {

const wchar_t kSymbol[] = L"QX.F.CN.IF2612";

// CPU time of the calling thread: what a call costs, whatever else the
// machine runs meanwhile.
double ThreadCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A started manager on a virtual clock at 09:30 exchange time, advised to a
// recording host whose security info record has the given vault mode.
class Harness {
 public:
  explicit Harness(int32_t vault_mode)
      : clock_(kDefaultStartUtcMs), host_(clock_), manager_(new CTradeSliceManager(&clock_)), peer_(manager_) {
    manager_->AddRef();
    manager_->Advise(&host_, &cookie_);
    host_.Write(host_.Topic(L"Security.Info"), {{L"VAULT", Variant::I4(vault_mode)}});
    manager_->SetStage(1, 1);
    manager_->SetStage(1, 2);
  }
  ~Harness() {
    manager_->Unadvise(cookie_);
    manager_->Release();
    TsmWaitEventsDelivered();
    for (IBaseData* record : records_) record->Release();
  }

  // A bound handle on a new record; the harness keeps the object.
  CBaseData* NewRecord(const sim::FieldList& fields) {
    IBaseData* object = sim::SimHost::NewRecord(L"order", fields);
    records_.push_back(object);
    return CBaseData::FromCookie(host_.Publish(object), nullptr, &clock_);
  }

  VirtualClock clock_;
  sim::SimHost host_;
  CTradeSliceManager* manager_;
  CTradeSliceManagerPeer peer_;
  uint32_t cookie_ = 0;
  std::vector<IBaseData*> records_;
};

// Two sessions, the order inside the first: the usual answer during trading.
void BM_CheckOpenCloseTimeInitialisedSecurity(benchmark::State& state) {
  Harness h(0);
  IBaseData* entry = sim::SimHost::NewRecord(
      L"entry", {{kSymbol, Variant::Text(L"{\"OpenCloseTime\":\"09:30~11:30;13:00~15:00\"}")}});
  h.records_.push_back(entry);
  TsmSetChild(h.host_.Topic(L"Security.Info"), L"QX.F.CN", entry);
  std::unique_ptr<CBaseData> order(h.NewRecord({{L"LevelKey", Variant::Text(L"L1")}}));
  const CString symbol(kSymbol);
  if (h.manager_->CheckOpenCloseTime(order.get(), symbol) != 1 || !h.peer_.SessionRange().Contains(symbol)) {
    state.SkipWithError("security not initialised");
    return;
  }
  int64_t calls = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(h.manager_->CheckOpenCloseTime(order.get(), symbol));
    if (++calls % 4096 == 0) {
      state.PauseTiming();
      h.host_.ClearEvents();  // the recording host keeps every log line
      state.ResumeTiming();
    }
  }
}
BENCHMARK(BM_CheckOpenCloseTimeInitialisedSecurity);

// The vault request, the host filling the document, the parse of the session
// text and the table stored.
void BM_InitSecurityInfoFirstThroughDocument(benchmark::State& state) {
  Harness h(1);
  h.host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":{\"OpenCloseTime\":\"09:30~11:30;13:00~15:00\"}}", L"OK");
  const CString symbol(kSymbol);
  // Only the call is timed; the security is forgotten again between calls.
  double cpu_seconds = 0;
  for (auto _ : state) {
    const double cpu_start = ThreadCpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    h.manager_->InitSecurityInfo(symbol);
    const auto end = std::chrono::steady_clock::now();
    cpu_seconds += ThreadCpuSeconds() - cpu_start;
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    const bool built = h.peer_.SessionRange().RemoveKey(symbol);
    h.host_.ClearEvents();
    if (!built) {
      state.SkipWithError("no table built");
      break;
    }
  }
  state.counters["thread_cpu_ns"] = benchmark::Counter(cpu_seconds * 1e9, benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_InitSecurityInfoFirstThroughDocument)->UseManualTime();

}  // namespace
}  // namespace tsm
