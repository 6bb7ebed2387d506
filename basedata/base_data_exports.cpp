// The exported functions of the component library.
#include <atomic>
#include <cwchar>

#include "basedata/base_data_entry.h"
#include "basedata/base_data_object.h"
#include "basedata/create_failure.h"
#include "basedata/event_queue.h"

namespace tsm {

namespace {

constexpr wchar_t kProgId[] = L"QX_Data.BaseData.1";

std::atomic<int32_t> g_failing_creates{0};

basedata::BaseDataObject* Impl(IBaseData* object) { return static_cast<basedata::BaseDataObject*>(object); }

// Stateless and never destroyed; its reference count only mirrors COM's.
class ClassFactory final : public IBaseDataClassFactory {
 public:
  uint32_t AddRef() override { return refs_.fetch_add(1) + 1; }
  uint32_t Release() override { return refs_.fetch_sub(1) - 1; }
  HResult CreateInstance(IBaseData** object) override {
    if (object == nullptr) return kE_INVALIDARG;
    *object = nullptr;
    if (basedata::TakeCreateFailure()) return kE_FAIL;
    *object = new basedata::BaseDataObject(std::wstring());
    return kS_OK;
  }

 private:
  std::atomic<uint32_t> refs_{1};
};

ClassFactory g_factory;

}  // namespace

bool basedata::TakeCreateFailure() {
  int32_t failing = g_failing_creates.load();
  while (failing > 0 && !g_failing_creates.compare_exchange_weak(failing, failing - 1)) {
  }
  return failing > 0;
}

extern "C" {

IBaseData* TsmCreateBaseDataByProgId(const wchar_t* prog_id) {
  if (prog_id == nullptr || std::wcscmp(prog_id, kProgId) != 0) return nullptr;
  return new basedata::BaseDataObject(std::wstring());
}

IBaseData* TsmCreateBaseData(const wchar_t* name) {
  return new basedata::BaseDataObject(name != nullptr ? std::wstring(name) : std::wstring());
}

IBaseData* TsmCreateBaseDataWithFields(const wchar_t* name, TsmField* fields, int32_t count) {
  auto* object = new basedata::BaseDataObject(name != nullptr ? std::wstring(name) : std::wstring());
  if (fields != nullptr && count > 0) object->WriteFirstFields(fields, count);
  return object;
}

void TsmSetChild(IBaseData* parent, const wchar_t* field_name, IBaseData* child) {
  if (parent == nullptr || field_name == nullptr) return;
  Impl(parent)->SetChild(field_name, child);
}

void TsmAppendChild(IBaseData* parent, IBaseData* child) {
  if (parent != nullptr) Impl(parent)->AppendChild(child);
}

void TsmClearChildren(IBaseData* parent) {
  if (parent != nullptr) Impl(parent)->ClearChildren();
}

void TsmRaiseReplace(IBaseData* object, int32_t id) {
  if (object != nullptr) Impl(object)->RaiseReplace(id);
}

void TsmFailChildReadsForTesting(IBaseData* parent, int32_t times) {
  if (parent != nullptr) Impl(parent)->FailChildReads(times);
}

void TsmWaitEventsDelivered() { basedata::EventQueue::Instance().WaitDelivered(); }

HResult TsmBaseDataGetClassObject(IBaseDataClassFactory** factory) {
  if (factory == nullptr) return kE_INVALIDARG;
  g_factory.AddRef();
  *factory = &g_factory;
  return kS_OK;
}

void TsmFailCreateInstanceForTesting(int32_t times) { g_failing_creates.store(times > 0 ? times : 0); }

}  // extern "C"

}  // namespace tsm
