#include "slicehost/watched_quote.h"

#include "tradeslice/host_api.h"

namespace tsm::sim {

namespace {

class ProbeSink final : public IBaseDataEvents {
 public:
  uint32_t AddRef() override { return 1; }
  uint32_t Release() override { return 1; }
  void OnUpdate(int32_t, const std::wstring&) override { thread = std::this_thread::get_id(); }
  void OnReplace(int32_t) override {}
  std::thread::id thread;
};

}  // namespace

std::thread::id EventThreadId() {
  static const std::thread::id id = [] {
    IBaseData* record = TsmCreateBaseData(L"event thread probe");
    ProbeSink sink;
    uint32_t cookie = 0;
    record->Advise(&sink, &cookie);
    SimHost::Write(record, {{L"Probe", Variant::I4(1)}});
    TsmWaitEventsDelivered();
    record->Unadvise(cookie);
    record->Release();
    return sink.thread;
  }();
  return id;
}

}  // namespace tsm::sim
