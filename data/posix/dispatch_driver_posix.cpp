// The driver where there is no COM: calls on the component's objects and
// the component's own interface table.
#include <atomic>
#include <utility>

#include "basedata/base_data_entry.h"
#include "basedata/posix/field_key_export.h"
#include "data/base_data.h"
#include "data/component_field_key.h"
#include "data/dispatch_driver.h"
#include "platform/module_path.h"

namespace tsm {

namespace {

// Forwards the object's events to the record's handler; may outlive the
// record, so it keeps the handler alive.
class EventSink final : public IBaseDataEvents {
 public:
  explicit EventSink(std::shared_ptr<DispatchEventHandler> handler) : handler_(std::move(handler)) {}
  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;

  uint32_t AddRef() override { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }
  uint32_t Release() override {
    const uint32_t left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete this;
    return left;
  }
  void OnUpdate(int32_t update_id, const std::wstring& text) override { handler_->HandleUpdate(update_id, text); }
  void OnReplace(int32_t id) override { handler_->HandleReplace(id); }

 private:
  ~EventSink() = default;

  std::atomic<uint32_t> refs_{1};
  const std::shared_ptr<DispatchEventHandler> handler_;
};

}  // namespace

void COleDispatchDriver::AttachDispatch(ComponentObject* dispatch, bool add_ref) {
  if (dispatch != nullptr && add_ref) dispatch->AddRef();
  ReleaseDispatch();
  m_lpDispatch = dispatch;
}

void COleDispatchDriver::ReleaseDispatch() {
  if (m_lpDispatch != nullptr) std::exchange(m_lpDispatch, nullptr)->Release();
}

bool COleDispatchDriver::CreateDispatch(const wchar_t* prog_id) {
  IBaseData* object = TsmCreateBaseDataByProgId(prog_id);
  if (object == nullptr) return false;
  AttachDispatch(object, false);
  return true;
}

int32_t COleDispatchDriver::BeginUpdate() { return m_lpDispatch != nullptr ? m_lpDispatch->BeginUpdate() : -1; }

void COleDispatchDriver::SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value) {
  if (m_lpDispatch != nullptr) m_lpDispatch->SetData(update_id, kind, key, value);
}

void COleDispatchDriver::EndUpdate(int32_t update_id) {
  if (m_lpDispatch != nullptr) m_lpDispatch->EndUpdate(update_id);
}

Variant COleDispatchDriver::GetData(int32_t kind, const Variant& argument) {
  return m_lpDispatch != nullptr ? m_lpDispatch->GetData(kind, argument) : Variant();
}

uint32_t COleDispatchDriver::ConnectionAdvise(std::shared_ptr<DispatchEventHandler> handler) {
  if (m_lpDispatch == nullptr) return 0;
  auto* sink = new EventSink(std::move(handler));
  uint32_t cookie = 0;
  if (m_lpDispatch->Advise(sink, &cookie) != kS_OK) cookie = 0;
  sink->Release();
  return cookie;
}

void COleDispatchDriver::ConnectionUnadvise(uint32_t cookie) {
  if (m_lpDispatch != nullptr) m_lpDispatch->Unadvise(cookie);
}

InterfaceTableRef::~InterfaceTableRef() { table_ = nullptr; }

bool InterfaceTableRef::Create() {
  if (table_ == nullptr) table_ = TsmGetGlobalInterfaceTable();
  return table_ != nullptr;
}

uint32_t InterfaceTableRef::Register(ComponentObject* object) {
  uint32_t cookie = 0;
  if (static_cast<IGlobalInterfaceTable*>(table_)->RegisterInterfaceInGlobal(object, &cookie) != kS_OK) return 0;
  return cookie;
}

ComponentObject* InterfaceTableRef::Get(uint32_t cookie) {
  IBaseData* object = nullptr;
  const HResult fetched = static_cast<IGlobalInterfaceTable*>(table_)->GetInterfaceFromGlobal(cookie, &object);
  if (fetched != kS_OK || object == nullptr) {
    if (object != nullptr) object->Release();
    return nullptr;
  }
  return object;
}

void InterfaceTableRef::Revoke(uint32_t cookie) {
  static_cast<IGlobalInterfaceTable*>(table_)->RevokeInterfaceFromGlobal(cookie);
}

const Variant* ComponentFieldKey(std::wstring_view name) { return TsmFieldKey(name.data(), name.size()); }

bool LoadComponentObject(const std::wstring& path, void** module, ComponentObject** object) {
  *object = nullptr;
  *module = LoadModuleFromItsFolder(path);
  if (*module == nullptr) return false;
  const auto get_class_object =
      reinterpret_cast<BaseDataGetClassObjectFn>(ModuleEntryPoint(*module, kBaseDataGetClassObjectName));
  if (get_class_object == nullptr) return false;
  IBaseDataClassFactory* factory = nullptr;
  if (get_class_object(&factory) != kS_OK || factory == nullptr) return false;
  IBaseData* created = nullptr;
  const HResult result = factory->CreateInstance(&created);
  factory->Release();
  if (result != kS_OK || created == nullptr) {
    if (created != nullptr) created->Release();
    throw ComError(ComError::kNoObject);
  }
  *object = created;
  return true;
}

}  // namespace tsm
