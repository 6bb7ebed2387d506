#include "data/base_data.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <rapidjson/document.h>
#include <rapidjson/encodings.h>

#include "data/address_pins.h"
#include "data/component_field_key.h"
#include "data/field_name_hash.h"
#include "platform/clock.h"
#include "platform/module_path.h"
#include "platform/sync.h"
#include "tradeslice/clock.h"

namespace tsm {

namespace {

constexpr wchar_t kProgId[] = L"QX_Data.BaseData.1";
constexpr wchar_t kReleaseFolder[] = L"\\NordaRelease\\";
constexpr int kReleaseFolderLength = static_cast<int>(sizeof(kReleaseFolder) / sizeof(wchar_t)) - 1;
constexpr int32_t kNoUpdateYet = -999;

// Its address tells which module this code was linked into.
const char kModuleMarker = 0;

// JSON is parsed as UTF-16 on every platform; wchar_t is UTF-32 on Linux.
using Json16 = rapidjson::UTF16<char16_t>;
using JsonDocument = rapidjson::GenericDocument<Json16, rapidjson::MemoryPoolAllocator<>, rapidjson::CrtAllocator>;
constexpr std::size_t kJsonChunkBytes = 64 * 1024;
constexpr std::size_t kJsonStackBytes = 1024;

// The VT_BSTR keys of reads by field name, made once for the process: a
// read by a name the component spells out then builds no key of its own.
// Look-ups take no lock (the table is only ever added to, under a mutex,
// and its size is fixed); when it holds kMaxKeys names, reads by other
// names make their keys as before. Where the component offers keys of its
// own (ComponentFieldKey), a kept name holds the component's key, so the
// object finds the field by the key's address.
//
// A name read from an address in the code is pinned there (AddressPins), so
// that the next read from that address does not measure and hash it again.
class FieldKeys {
 public:
  // Kept reachable for the life of the process: any thread may be reading.
  static FieldKeys& Instance() {
    static FieldKeys* keys = new FieldKeys();
    return *keys;
  }

  // The key for the text at `name`, or null when it is not kept and there
  // is no room.
  const Variant* Find(const wchar_t* name) {
    if (const Entry* pinned = pins_.Find(name)) return pinned->key;
    const Entry* entry = FindEntry(std::wstring_view(name));
    if (entry == nullptr) return nullptr;
    pins_.Pin(name, entry->key->text().c_str(), entry);
    return entry->key;
  }

  // The key for `name` found by its text, or null when it is not kept and
  // there is no room.
  const Variant* Find(std::wstring_view name) {
    const Entry* entry = FindEntry(name);
    return entry != nullptr ? entry->key : nullptr;
  }

 private:
  static constexpr std::size_t kSlots = 1024;  // a power of two
  static constexpr std::size_t kMask = kSlots - 1;
  static constexpr std::size_t kMaxKeys = kSlots / 2;

  struct Entry {
    std::size_t hash;
    Variant own_key;     // the key where the component offers none
    const Variant* key;  // the component's key, or own_key; never changes
  };

  // Probes from slot `i` for the key; leaves `i` at the empty slot that ends
  // the probe when the key is not there.
  const Entry* Probe(std::size_t& i, std::size_t hash, std::wstring_view name) const {
    for (;; i = (i + 1) & kMask) {
      const Entry* entry = slots_[i].load(std::memory_order_acquire);
      if (entry == nullptr) return nullptr;
      if (entry->hash == hash && entry->key->text() == name) return entry;
    }
  }

  const Entry* FindEntry(std::wstring_view name) {
    const std::size_t hash = FieldNameHash(name);
    std::size_t i = hash & kMask;
    if (const Entry* entry = Probe(i, hash, name)) return entry;
    std::lock_guard<std::mutex> guard(insert_lock_);
    // Another thread may have added it, at this slot or after it.
    if (const Entry* entry = Probe(i, hash, name)) return entry;
    if (entries_.size() >= kMaxKeys) return nullptr;
    auto entry = std::make_unique<Entry>();
    entry->hash = hash;
    entry->key = ComponentFieldKey(name);
    if (entry->key == nullptr) {
      entry->own_key = Variant::Text(std::wstring(name));
      entry->key = &entry->own_key;
    }
    entries_.push_back(std::move(entry));
    slots_[i].store(entries_.back().get(), std::memory_order_release);
    return entries_.back().get();
  }

  std::atomic<const Entry*> slots_[kSlots] = {};
  AddressPins<Entry> pins_;
  std::mutex insert_lock_;                        // guards entries_ and every insertion
  std::vector<std::unique_ptr<Entry>> entries_;   // the keys kept
};

}  // namespace

// What the record and its event sink share. The sink may still be called
// after the record is gone, so this lives as long as either of them.
struct CBaseData::Shared final : DispatchEventHandler {
  explicit Shared(CBaseData* owner) : record(owner) {}

  // OnUpdate (DISPID 1): drops the event that reports this record's own
  // write. A time-out goes on without the lock rather than stall the event
  // thread.
  void HandleUpdate(int32_t update_id, const std::wstring& text) override {
    lock.Wait(kLockWaitMs);
    CBaseDataEventReceiver* current = receiver.load();
    if (advise_cookie.load() != 0 && current != nullptr) {
      const bool own = deliver_own_updates.load() == 0 && update_id == own_update_id.load();
      if (!own) current->OnDataUpdate(record, update_id, CString(text));
    }
    lock.Set();
  }

  // OnReplace (DISPID 2) takes no lock.
  void HandleReplace(int32_t id) override {
    CBaseDataEventReceiver* current = receiver.load();
    if (current != nullptr) current->OnDataReplace(record, id);
  }

  CBaseData* const record;
  // Auto-reset and created signalled: a binary semaphore that guards
  // `receiver` and `advise_cookie`. Both are atomics as well, because
  // OnReplace reads the receiver without it and a timed-out wait goes on
  // without it.
  CEvent lock{false, true};
  std::atomic<CBaseDataEventReceiver*> receiver{nullptr};
  std::atomic<uint32_t> advise_cookie{0};  // 0: not connected
  std::atomic<int32_t> own_update_id{kNoUpdateYet};
  std::atomic<int32_t> deliver_own_updates{0};
};

CBaseData::CBaseData(IClock* clock) : clock_(clock), shared_(std::make_shared<Shared>(this)) {}

CBaseData::~CBaseData() {
  Shared& shared = *shared_;
  shared.lock.Wait(kLockWaitMs);
  shared.receiver = nullptr;
  if (IsBound()) {
    const uint32_t advise_cookie = shared.advise_cookie.exchange(0);
    if (advise_cookie != 0) driver_.ConnectionUnadvise(advise_cookie);
    shared.lock.Set();
    driver_.ReleaseDispatch();
  } else {
    shared.lock.Set();
  }
  if (table_.IsCreated() && table_cookie_ != 0) table_.Revoke(table_cookie_);
  // Once more, so that a handler that got in before the first wait is done.
  shared.lock.Wait(kLockWaitMs);
  shared.lock.Set();
  if (component_module_ != nullptr) UnloadModule(component_module_);
}

IClock& CBaseData::clock() const { return clock_ != nullptr ? *clock_ : RealClock(); }

bool CBaseData::Initialize(CBaseDataEventReceiver* receiver, ComponentObject* dispatch) {
  shared_->receiver = receiver;
  if (IsBound()) return true;
  if (dispatch != nullptr) {
    driver_.AttachDispatch(dispatch, true);
  } else if (!LoadComponent(kProgId) && !driver_.CreateDispatch(kProgId)) {
    return false;
  }
  shared_->advise_cookie = 0;
  if (receiver == nullptr) return true;
  // A failed advise leaves the record bound but deaf.
  shared_->advise_cookie = driver_.ConnectionAdvise(shared_);
  return true;
}

bool CBaseData::LoadComponent(const CString& prog_id) {
  const CString component_path = ComponentPathForModule(ModulePathContaining(&kModuleMarker));
  if (component_path.IsEmpty()) return false;
  return LoadComponentFrom(component_path);
}

bool CBaseData::LoadComponentFrom(const CString& component_path) {
  // The library stays with the record until it dies, also when the load
  // fails after it (or throws).
  struct KeepModule {
    CBaseData& record;
    void* module = nullptr;
    ~KeepModule() {
      if (module == nullptr) return;
      if (record.component_module_ != nullptr) UnloadModule(record.component_module_);
      record.component_module_ = module;
    }
  } keep{*this};
  ComponentObject* object = nullptr;
  if (!LoadComponentObject(component_path.wstr(), &keep.module, &object)) return false;
  driver_.AttachDispatch(object, false);
  return true;
}

CString CBaseData::ComponentPathForModule(const CString& module_path) {
  const int at = module_path.Find(kReleaseFolder);
  if (at < 0) return CString();
  return CString::Formatted(L"%s\\Components\\QX_DataBase64.dll", module_path.Left(at + kReleaseFolderLength));
}

int32_t CBaseData::BeginUpdate() {
  if (!IsBound()) return -1;
  const int32_t update_id = driver_.BeginUpdate();
  shared_->own_update_id = update_id;
  return update_id;
}

void CBaseData::SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value) {
  driver_.SetData(update_id, kind, key, value);
}

void CBaseData::EndUpdate(int32_t update_id) {
  driver_.EndUpdate(update_id);
}

Variant CBaseData::GetData(int32_t kind, const Variant& argument) {
  return driver_.GetData(kind, argument);
}

Variant CBaseData::GetValue(const CString& field) {
  if (const Variant* key = FieldKeys::Instance().Find(field.wstr())) return driver_.GetData(kKindFieldByName, *key);
  return driver_.GetData(kKindFieldByName, Variant::Text(field.wstr()));
}

Variant CBaseData::GetValue(const wchar_t* field) {
  if (field == nullptr) field = L"";
  if (const Variant* key = FieldKeys::Instance().Find(field)) return driver_.GetData(kKindFieldByName, *key);
  return driver_.GetData(kKindFieldByName, Variant::Text(std::wstring(field)));
}

CString CBaseData::AsString(Variant value) {
  if (!value.ChangeTypeToText()) return CString();
  // A text short enough to sit inside the string object itself is copied
  // (moving it would copy it twice over); a longer one is taken over.
  static const std::size_t in_place = std::wstring().capacity();
  if (value.text().size() <= in_place) return CString(std::wstring_view(value.text()));
  return CString(value.TakeText());
}

int32_t CBaseData::AsLong(const Variant& value, int32_t default_value) {
  switch (value.type()) {
    case VarType::I4:
      return value.i4();
    case VarType::BStr:
      return WToL(value.text());
    default:
      return default_value;
  }
}

int64_t CBaseData::AsInt64(const Variant& value, int64_t default_value) {
  switch (value.type()) {
    case VarType::I8:
      return value.i8();
    case VarType::I4:
      return static_cast<int64_t>(value.i4());
    case VarType::BStr:
      return WToI64(value.text());
    default:
      return default_value;
  }
}

CString CBaseData::GetString(const CString& field) { return AsString(GetValue(field)); }

CString CBaseData::GetString(const wchar_t* field) { return AsString(GetValue(field)); }

int32_t CBaseData::GetLong(const CString& field, int32_t default_value) {
  return AsLong(GetValue(field), default_value);
}

int32_t CBaseData::GetLong(const wchar_t* field, int32_t default_value) {
  return AsLong(GetValue(field), default_value);
}

int64_t CBaseData::GetInt64(const CString& field, int64_t default_value) {
  return AsInt64(GetValue(field), default_value);
}

int64_t CBaseData::GetInt64(const wchar_t* field, int64_t default_value) {
  return AsInt64(GetValue(field), default_value);
}

int64_t CBaseData::GetInt64ById(int32_t field_id) {
  const Variant value = GetData(kKindFieldById, Variant::I4(field_id));
  return value.type() == VarType::I8 ? value.i8() : INT64_MIN;
}

int32_t CBaseData::GetCount() {
  const Variant value = GetData(kKindChildren, Variant::I4(-1));
  if (value.type() != VarType::I4 || value.i4() < 0) return 0;
  child_count_ = value.i4();
  return child_count_;
}

CString CBaseData::GetName() {
  if (name_.IsEmpty()) {
    const Variant value = GetData(kKindName, Variant());
    if (value.type() == VarType::BStr) name_ = CString(value.text());
  }
  return name_;
}

CBaseData* CBaseData::GetChild(const CString& field, CBaseDataEventReceiver* receiver) {
  const Variant value = GetData(kKindChildByName, Variant::Text(field.wstr()));
  if (value.type() != VarType::I4) return nullptr;
  return FromCookie(static_cast<uint32_t>(value.i4()), receiver, clock_);
}

CBaseData* CBaseData::GetChildAt(int32_t index, CBaseDataEventReceiver* receiver) {
  if (child_count_ < 0) child_count_ = GetCount();
  if (index >= child_count_) {
    child_count_ = GetCount();
    if (index >= child_count_) return nullptr;
  }
  // The component may publish a child a little after it counts it.
  for (int attempt = 0; attempt < kChildAttempts; ++attempt) {
    const Variant value = GetData(kKindChildren, Variant::I4(index));
    if (value.type() == VarType::I4) {
      if (CBaseData* child = FromCookie(static_cast<uint32_t>(value.i4()), receiver, clock_)) return child;
    }
    clock().Sleep(kChildRetryMs);
  }
  return nullptr;
}

uint32_t CBaseData::GetCookie() {
  if (table_cookie_ != 0) return table_cookie_;
  if (!table_.Create()) return 0;
  table_cookie_ = driver_.dispatch() != nullptr ? table_.Register(driver_.dispatch()) : 0;
  return table_cookie_;
}

CBaseData* CBaseData::FromCookie(uint32_t cookie, CBaseDataEventReceiver* receiver, IClock* clock) {
  InterfaceTableRef table;
  if (!table.Create()) return nullptr;
  ComponentObject* object = table.Get(cookie);
  if (object == nullptr) return nullptr;
  auto* record = new CBaseData(clock);
  if (!record->Initialize(receiver, object)) {
    delete record;
    record = nullptr;
  }
  // The record took its own reference.
  COleDispatchDriver fetched;
  fetched.AttachDispatch(object, false);
  return record;
}

bool JsonNestedDeeperThan(std::u16string_view text, int depth) {
  int open = 0;
  bool in_string = false, escaped = false;
  for (const char16_t c : text) {
    if (c == u'\0') break;  // the parser reads no further
    if (in_string) {
      if (escaped) {
        escaped = false;
      } else if (c == u'\\') {
        escaped = true;
      } else if (c == u'"') {
        in_string = false;
      }
    } else if (c == u'"') {
      in_string = true;
    } else if (c == u'[' || c == u'{') {
      if (++open > depth) return true;
    } else if (c == u']' || c == u'}') {
      --open;
    }
  }
  return false;
}

CString CBaseData::GetJsonString(const CString& field, const CString& member) {
  Variant value = GetValue(field);
  if (!value.ChangeTypeToText() || value.type() != VarType::BStr) return CString();
  const std::u16string text = Utf16FromWide(value.text());
  // The parser recurses once per level: a text nested without end would
  // overflow the thread's stack. Such a text is one that is not read.
  if (JsonNestedDeeperThan(text, kJsonMaxDepth)) return CString();
  rapidjson::MemoryPoolAllocator<> allocator(kJsonChunkBytes);
  JsonDocument document(&allocator, kJsonStackBytes);
  document.Parse(text.c_str());
  if (document.HasParseError() || !document.IsObject()) return CString();
  const std::u16string name = Utf16FromWide(member.wstr());
  const auto found = document.FindMember(JsonDocument::ValueType(rapidjson::StringRef(name.c_str(), name.size())));
  if (found == document.MemberEnd() || !found->value.IsString()) return CString();
  return CString(WideFromUtf16(std::u16string_view(found->value.GetString(), found->value.GetStringLength())));
}

void CBaseData::Disconnect() {
  Shared& shared = *shared_;
  shared.lock.Wait(kLockWaitMs);
  shared.receiver = nullptr;
  const uint32_t advise_cookie = shared.advise_cookie.exchange(0);
  if (advise_cookie != 0) driver_.ConnectionUnadvise(advise_cookie);
  shared.lock.Set();
}

bool CBaseData::IsBound() const { return driver_.dispatch() != nullptr; }

void CBaseData::SetDeliverOwnUpdates(int32_t deliver) { shared_->deliver_own_updates = deliver; }

int32_t CBaseData::OwnUpdateId() const { return shared_->own_update_id; }

}  // namespace tsm
