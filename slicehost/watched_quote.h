// The host's quote records, and the one thread of the base-data component
// that delivers record change events.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "slicehost/sim_host.h"
#include "tradeslice/base_data_api.h"

namespace tsm::sim {

// The id of the component's one event thread, found by listening to a record
// of our own once.
std::thread::id EventThreadId();

// Runs `fn` once on the component's event thread, through a change of a
// record of our own, and returns when it has run.
void RunOnEventThread(const std::function<void()>& fn);

// ---- Quote records -----------------------------------------------------------

// The host's quote record of one symbol (traded volume at field id 6), in
// front of a record of the base-data component. It lets the host wait for
// the manager's volume worker, the one thread of the manager that the clock
// does not drive: after a traded volume was written while the manager
// listens, `SettleWorker` waits until the worker has read the new volume and
// then gives it time to finish its check (cancels included) before the host
// goes on. Reads from the event thread (the start volume of a child) are not
// the worker's and are not counted.
//
// Reference counted: the manager's records may keep it after the run.
class WatchedQuote final : public IBaseData {
 public:
  static constexpr int32_t kVolumeField = 6;
  static constexpr auto kReadWait = std::chrono::seconds(3);
  static constexpr auto kQuiet = std::chrono::milliseconds(40);

  WatchedQuote(const std::wstring& symbol, int64_t volume) : inner_(TsmCreateBaseData(symbol.c_str())) {
    const int32_t update = inner_->BeginUpdate();
    inner_->SetData(update, kKindFieldById, Variant::I4(kVolumeField), Variant::I8(volume));
    inner_->EndUpdate(update);
  }

  uint32_t AddRef() override { return ++refs_; }
  uint32_t Release() override {
    const uint32_t left = --refs_;
    if (left == 0) delete this;
    return left;
  }

  int32_t BeginUpdate() override { return inner_->BeginUpdate(); }
  void SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value) override {
    inner_->SetData(update_id, kind, key, value);
  }
  void EndUpdate(int32_t update_id) override {
    // Counted before the write takes effect: the worker may read the new
    // volume before EndUpdate returns.
    uint64_t reads_before;
    bool heard;
    {
      std::lock_guard<std::mutex> guard(lock_);
      reads_before = worker_reads_;
      heard = listeners_ > 0;
    }
    inner_->EndUpdate(update_id);
    if (!heard) return;
    std::lock_guard<std::mutex> guard(lock_);
    pending_ = true;
    reads_at_write_ = reads_before;
  }
  Variant GetData(int32_t kind, const Variant& argument) override {
    if (kind == kKindFieldById && argument.type() == VarType::I4 && argument.i4() == kVolumeField &&
        std::this_thread::get_id() != EventThreadId()) {
      std::lock_guard<std::mutex> guard(lock_);
      ++worker_reads_;
      read_.notify_all();
    }
    return inner_->GetData(kind, argument);
  }
  HResult Advise(IBaseDataEvents* sink, uint32_t* cookie) override {
    const HResult hr = inner_->Advise(sink, cookie);
    if (hr == kS_OK) {
      std::lock_guard<std::mutex> guard(lock_);
      ++listeners_;
    }
    return hr;
  }
  HResult Unadvise(uint32_t cookie) override {
    const HResult hr = inner_->Unadvise(cookie);
    if (hr == kS_OK) {
      std::lock_guard<std::mutex> guard(lock_);
      --listeners_;
    }
    return hr;
  }

  // True when a check of the worker was waited for.
  bool SettleWorker(SimHost& host) {
    {
      std::unique_lock<std::mutex> guard(lock_);
      if (!pending_) return false;
      pending_ = false;
      const uint64_t before = reads_at_write_;
      read_.wait_for(guard, kReadWait, [&] { return worker_reads_ > before; });
    }
    // The worker runs its check without waiting for anything once it has
    // read the volume; give it a quiet spell before the host goes on.
    size_t seen = host.EventsFrom(0).size();
    for (;;) {
      std::this_thread::sleep_for(kQuiet);
      const size_t now = host.EventsFrom(seen).size();
      if (now == 0) break;
      seen += now;
    }
    return true;
  }

 private:
  ~WatchedQuote() { inner_->Release(); }

  IBaseData* inner_;
  std::atomic<uint32_t> refs_{1};
  std::mutex lock_;  // guards the members below
  std::condition_variable read_;
  int listeners_ = 0;
  bool pending_ = false;
  uint64_t worker_reads_ = 0;
  uint64_t reads_at_write_ = 0;
};

}  // namespace tsm::sim
