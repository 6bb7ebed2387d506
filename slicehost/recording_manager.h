// `RecordingManager`: the slice manager as the simulated host calls it.
//
// Threading: the calls come on the host loop's thread (or the benchmark's
// driver); `InsideNs` may be read from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

#include "slicehost/sim_host.h"
#include "tradeslice/host_api.h"

namespace tsm::sim {

// Records every call the host makes into the manager (SetStage, SetTopic) in
// the host's event list before passing it on, and measures the host thread's
// time inside those calls.
class RecordingManager final : public INordaManager {
 public:
  RecordingManager(SimHost& host, INordaManager* inner) : host_(host), inner_(inner) {}

  uint32_t AddRef() override { return 1; }  // owned by the run
  uint32_t Release() override { return 1; }

  HResult SetStage(int32_t kind, int32_t stage) override {
    if (host_.KeepsEvents()) {
      HostEvent e;
      e.ev = "SetStage";
      e.p1 = kind;
      e.p2 = stage;
      host_.RecordCall(std::move(e));
    }
    const auto start = std::chrono::steady_clock::now();
    const HResult hr = inner_->SetStage(kind, stage);
    inside_ns_ += std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count();
    return hr;
  }

  HResult SetTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                   Variant* data) override {
    host_.RecordTopicCall("SetTopic", topic, param1, param2, text, data);
    const auto start = std::chrono::steady_clock::now();
    const HResult hr = inner_->SetTopic(topic, param1, param2, text, data);
    inside_ns_ += std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count();
    return hr;
  }

  HResult Advise(INordaManagerEvents* sink, uint32_t* cookie) override { return inner_->Advise(sink, cookie); }
  HResult Unadvise(uint32_t cookie) override { return inner_->Unadvise(cookie); }

  int64_t InsideNs() const { return inside_ns_.load(); }

 private:
  SimHost& host_;
  INordaManager* inner_;
  std::atomic<int64_t> inside_ns_{0};
};

}  // namespace tsm::sim
