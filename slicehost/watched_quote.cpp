#include "slicehost/watched_quote.h"

#include "tradeslice/host_api.h"

namespace tsm::sim {

namespace {

class ProbeSink final : public IBaseDataEvents {
 public:
  explicit ProbeSink(const std::function<void()>& fn) : fn_(fn) {}
  uint32_t AddRef() override { return 1; }
  uint32_t Release() override { return 1; }
  void OnUpdate(int32_t, const std::wstring&) override { fn_(); }
  void OnReplace(int32_t) override {}

 private:
  const std::function<void()>& fn_;
};

}  // namespace

void RunOnEventThread(const std::function<void()>& fn) {
  IBaseData* record = TsmCreateBaseData(L"event thread probe");
  ProbeSink sink(fn);
  uint32_t cookie = 0;
  record->Advise(&sink, &cookie);
  SimHost::Write(record, {{L"Probe", Variant::I4(1)}});
  TsmWaitEventsDelivered();
  record->Unadvise(cookie);
  record->Release();
}

std::thread::id EventThreadId() {
  static const std::thread::id id = [] {
    std::thread::id thread;
    RunOnEventThread([&thread] { thread = std::this_thread::get_id(); });
    return thread;
  }();
  return id;
}

}  // namespace tsm::sim
