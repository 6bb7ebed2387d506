// A base-data component object that passes every call on to another one and
// counts the reads made through it: all reads, or those of one kind only
// (field by id, say). Tests hand it to the manager in place of a host object
// to show how often the manager reads, or to act at a given read. Counting is thread-safe; the object
// lives by its reference count like any component object.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>

#include "tradeslice/base_data_api.h"

namespace tsm {

class ReadCountingObject final : public IBaseData {
 public:
  // Counts the reads of `kind`, or every read when no kind is given.
  explicit ReadCountingObject(IBaseData* inner, std::optional<int32_t> kind = std::nullopt)
      : inner_(inner), kind_(kind) {
    inner_->AddRef();
  }
  ReadCountingObject(const ReadCountingObject&) = delete;
  ReadCountingObject& operator=(const ReadCountingObject&) = delete;

  uint32_t AddRef() override { return ++refs_; }
  uint32_t Release() override {
    const uint32_t count = --refs_;
    if (count == 0) delete this;
    return count;
  }
  int32_t BeginUpdate() override { return inner_->BeginUpdate(); }
  void SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value) override {
    inner_->SetData(update_id, kind, key, value);
  }
  void EndUpdate(int32_t update_id) override { inner_->EndUpdate(update_id); }
  Variant GetData(int32_t kind, const Variant& argument) override {
    if (!kind_ || *kind_ == kind) ++reads_;
    if (on_read) on_read(argument);
    return inner_->GetData(kind, argument);
  }
  HResult Advise(IBaseDataEvents* sink, uint32_t* cookie) override { return inner_->Advise(sink, cookie); }
  HResult Unadvise(uint32_t cookie) override { return inner_->Unadvise(cookie); }

  int reads() const { return reads_.load(); }

  // Runs on the reading thread before every read passes on, with the read's
  // argument (a field name or id). Set it before the object is shared.
  std::function<void(const Variant& argument)> on_read;

 private:
  ~ReadCountingObject() { inner_->Release(); }

  IBaseData* const inner_;
  const std::optional<int32_t> kind_;
  std::atomic<uint32_t> refs_{1};
  std::atomic<int> reads_{0};
};

}  // namespace tsm
