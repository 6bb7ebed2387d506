// `CBaseData`: the key/value record through which the component reads and
// writes all trading data. It holds no data itself: it is a handle on one
// object of the platform's base-data component (`IBaseData`), read with
// explicit defaults and written as batches (BeginUpdate, SetData per field,
// EndUpdate). It forwards the object's change events to one
// `CBaseDataEventReceiver`, dropping the events its own writes caused.
//
// Threading: a record is used on one thread at a time; it crosses threads
// only as a cookie (`GetCookie` on the owner's side, `FromCookie` on the
// other). Events arrive on the component's event thread; the record's lock
// (an auto-reset event, waits bounded to 3000 ms) serialises their delivery
// against `Disconnect` and destruction, so that no `OnDataUpdate` starts on a
// receiver after the record has let go of it.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>

#include "data/dispatch_driver.h"
#include "data/text.h"
#include "tradeslice/base_data_api.h"
#include "tradeslice/variant.h"

namespace tsm {

class IClock;
class CBaseData;

// Raised out of the private load when the component's class object was had
// but made no object; the registry fall-back is not tried then.
class ComError : public std::runtime_error {
 public:
  // E_POINTER: a call that should have produced an object produced none.
  static constexpr HResult kNoObject = static_cast<HResult>(0x80004003);

  explicit ComError(HResult code) : std::runtime_error("component call failed"), code_(code) {}
  HResult code() const { return code_; }

 private:
  HResult code_;
};

// The sink of a listened record's changes.
class CBaseDataEventReceiver {
 public:
  virtual ~CBaseDataEventReceiver() = default;
  // The record changed; `text` comes from the component's event.
  virtual void OnDataUpdate(CBaseData* record, int32_t update_id, CString text) {}
  // The component reports that the record was replaced.
  virtual void OnDataReplace(CBaseData* record, int32_t id) {}
};

class CBaseData {
 public:
  // Waits on the record's own lock are bounded to this, then go on anyway.
  static constexpr int64_t kLockWaitMs = 3000;
  // GetChildAt asks this many times, this far apart, for a child that the
  // component cannot deliver yet.
  static constexpr int kChildAttempts = 20;
  static constexpr int64_t kChildRetryMs = 50;

  // `clock` paces GetChildAt's retries; null means the wall clock.
  explicit CBaseData(IClock* clock = nullptr);
  virtual ~CBaseData();
  CBaseData(const CBaseData&) = delete;
  CBaseData& operator=(const CBaseData&) = delete;

  // Binds the record to `dispatch` (taking a reference), or, when null, to a
  // new object of the component (private load first, then by ProgID). With a
  // receiver, connects the object's events to it. False when no object could
  // be had; the record then stays unbound.
  bool Initialize(CBaseDataEventReceiver* receiver, ComponentObject* dispatch = nullptr);
  // The private load from the platform's installation folder; false when this
  // module does not lie under a "\NordaRelease\" folder or the component
  // cannot be loaded from there. The ProgID argument is ignored.
  bool LoadComponent(const CString& prog_id);
  // The second half of LoadComponent: loads the component library at
  // `component_path` (kept until the record dies) and binds the record to a
  // new object of its class object. False when the library or its entry point
  // is missing or the class object is refused; ComError(E_POINTER) when the
  // class object makes no object. Public so that tests can load from any path.
  bool LoadComponentFrom(const CString& component_path);

  int32_t BeginUpdate();
  void SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value);
  void EndUpdate(int32_t update_id);
  Variant GetData(int32_t kind, const Variant& argument);

  // Field reads. A field named by a literal is read without a CString of
  // its own.
  Variant GetValue(const CString& field);
  Variant GetValue(const wchar_t* field);
  CString GetString(const CString& field);
  CString GetString(const wchar_t* field);
  int32_t GetLong(const CString& field, int32_t default_value);
  int32_t GetLong(const wchar_t* field, int32_t default_value);
  int64_t GetInt64(const CString& field, int64_t default_value);
  int64_t GetInt64(const wchar_t* field, int64_t default_value);
  int64_t GetInt64ById(int32_t field_id);
  int32_t GetCount();
  CString GetName();
  CBaseData* GetChild(const CString& field, CBaseDataEventReceiver* receiver);
  CBaseData* GetChildAt(int32_t index, CBaseDataEventReceiver* receiver);
  uint32_t GetCookie();
  static CBaseData* FromCookie(uint32_t cookie, CBaseDataEventReceiver* receiver, IClock* clock = nullptr);
  // One string member of the JSON text held in `field` (UTF-16 document);
  // empty unless the field is text, parses, and the member is a JSON string.
  // A text that opens more than kJsonMaxDepth arrays and objects at once is
  // not parsed (empty text).
  CString GetJsonString(const CString& field, const CString& member);
  // Stops the events: clears the receiver and disconnects. Reads and writes
  // still work.
  void Disconnect();

  bool IsBound() const;
  // When nonzero, updates caused by this record are delivered too.
  void SetDeliverOwnUpdates(int32_t deliver);
  int32_t OwnUpdateId() const;

  // The private-load path for a module path: the text up to and including
  // "\NordaRelease\" followed by "\Components\QX_DataBase64.dll" (the doubled
  // backslash is kept), or empty text when the folder name is not in it.
  static CString ComponentPathForModule(const CString& module_path);

 private:
  struct Shared;

  IClock& clock() const;
  // The conversions of the typed getters.
  static CString AsString(Variant value);
  static int32_t AsLong(const Variant& value, int32_t default_value);
  static int64_t AsInt64(const Variant& value, int64_t default_value);

  IClock* clock_;
  COleDispatchDriver driver_;    // holds no object: not bound
  void* component_module_ = nullptr;  // library loaded by LoadComponent, freed in the destructor
  InterfaceTableRef table_;      // created on the first GetCookie
  uint32_t table_cookie_ = 0;    // registration in the interface table; 0: none
  int32_t child_count_ = -1;     // cached GetCount; negative: not read yet
  CString name_;                 // cache of GetName
  std::shared_ptr<Shared> shared_;  // lock, receiver and filter, shared with the event sink
};

// How deep GetJsonString follows nested arrays and objects.
inline constexpr int kJsonMaxDepth = 512;

// Whether `text` opens more than `depth` arrays and objects at once, up to its
// first NUL (brackets inside strings do not count).
bool JsonNestedDeeperThan(std::u16string_view text, int depth);

}  // namespace tsm
