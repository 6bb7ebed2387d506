// The platform's base-data component: the automation objects that hold every
// record (orders, topic payloads, requests, replies), their change events,
// and the process-wide interface table through which objects cross threads
// as 32-bit cookies.
//
// The dispatch surface of an object is exactly four methods (DISPIDs 1, 3, 4,
// 5) and two events (DISPIDs 1, 2). Hosts and tests build records with the
// creation functions at the end, which stand for what the platform does
// inside itself.
//
// Threading: every method may be called from any thread; each object
// serialises its own reads and writes. Change events are delivered on the
// component's single event thread, in the order the updates were closed.
#pragma once

#include <cstdint>
#include <string>

#include "tradeslice/export.h"
#include "tradeslice/variant.h"

namespace tsm {

// Reference counting as COM has it: AddRef/Release return the new count.
class IRefCounted {
 public:
  virtual uint32_t AddRef() = 0;
  virtual uint32_t Release() = 0;

 protected:
  ~IRefCounted() = default;
};

// Field kinds of SetData/GetData.
inline constexpr int32_t kKindFieldById = 1;      // key: VT_I4 field id; read gives VT_I8
inline constexpr int32_t kKindFieldByName = 3;    // key: VT_BSTR field name
inline constexpr int32_t kKindChildByName = 5;    // read: VT_I4 cookie of the child in that field
inline constexpr int32_t kKindChildren = 6;       // read: -1 gives the count, i >= 0 the cookie of child i
inline constexpr int32_t kKindName = 20;          // read: VT_BSTR name of the object

// The outgoing event interface of an object.
class IBaseDataEvents : public IRefCounted {
 public:
  static constexpr int32_t kDispidOnUpdate = 1;
  static constexpr int32_t kDispidOnReplace = 2;
  virtual void OnUpdate(int32_t update_id, const std::wstring& text) = 0;
  virtual void OnReplace(int32_t id) = 0;
};

// One object of the component.
class IBaseData : public IRefCounted {
 public:
  static constexpr int32_t kDispidBeginUpdate = 1;
  static constexpr int32_t kDispidSetData = 3;
  static constexpr int32_t kDispidEndUpdate = 4;
  static constexpr int32_t kDispidGetData = 5;

  // Opens an update; returns its id.
  virtual int32_t BeginUpdate() = 0;
  // Sets one field inside the open update `update_id`.
  virtual void SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value) = 0;
  // Closes the update: its fields take effect together, then `OnUpdate` with
  // the same id is raised to every connected sink.
  virtual void EndUpdate(int32_t update_id) = 0;
  // Reads (see the kinds above). Absent fields give an empty variant.
  virtual Variant GetData(int32_t kind, const Variant& argument) = 0;

  // The event connection point. Advise takes a reference on the sink, and
  // Unadvise releases it; an event already being delivered keeps its own
  // reference until the sink returns.
  virtual HResult Advise(IBaseDataEvents* sink, uint32_t* cookie) = 0;
  virtual HResult Unadvise(uint32_t cookie) = 0;

 protected:
  ~IBaseData() = default;
};

// The process-wide interface table (COM's global interface table). A cookie
// is never 0. Registration takes a reference; Get hands out a new one.
class IGlobalInterfaceTable {
 public:
  virtual HResult RegisterInterfaceInGlobal(IBaseData* object, uint32_t* cookie) = 0;
  virtual HResult GetInterfaceFromGlobal(uint32_t cookie, IBaseData** object) = 0;
  virtual HResult RevokeInterfaceFromGlobal(uint32_t cookie) = 0;

 protected:
  ~IGlobalInterfaceTable() = default;
};

extern "C" {

TSM_BASEDATA_API IGlobalInterfaceTable* TsmGetGlobalInterfaceTable();

// Creates an object by ProgID ("QX_Data.BaseData.1"); null for any other.
// The caller owns the one reference.
TSM_BASEDATA_API IBaseData* TsmCreateBaseDataByProgId(const wchar_t* prog_id);

// Creates an empty object with the given name; the caller owns the reference.
TSM_BASEDATA_API IBaseData* TsmCreateBaseData(const wchar_t* name);

// One field of a new object: its name and its value.
struct TsmField {
  const wchar_t* name;
  Variant value;
};

// Creates an object with the given name holding `count` fields, as one batch
// write made before anyone could listen to it (it takes update id 1 and
// raises no event). The values are moved out of `fields`; a field without a
// name or with an empty value is skipped. The caller owns the reference.
TSM_BASEDATA_API IBaseData* TsmCreateBaseDataWithFields(const wchar_t* name, TsmField* fields, int32_t count);

// Places `child` in the field `field_name` of `parent` (read with kind 5);
// null clears the field. The parent takes its own reference.
TSM_BASEDATA_API void TsmSetChild(IBaseData* parent, const wchar_t* field_name, IBaseData* child);

// Appends `child` to the indexed children of `parent` (read with kind 6).
TSM_BASEDATA_API void TsmAppendChild(IBaseData* parent, IBaseData* child);

// Removes every indexed child of `parent`.
TSM_BASEDATA_API void TsmClearChildren(IBaseData* parent);

// Raises `OnReplace(id)` on every sink connected to `object`.
TSM_BASEDATA_API void TsmRaiseReplace(IBaseData* object, int32_t id);

// Test hook: while set, reads of children by index fail (empty result) this
// many more times before they succeed again. 0 clears it.
TSM_BASEDATA_API void TsmFailChildReadsForTesting(IBaseData* parent, int32_t times);

// Blocks until the event thread has delivered every event queued so far and
// is idle. Returns at once when called on the event thread itself.
TSM_BASEDATA_API void TsmWaitEventsDelivered();

}  // extern "C"

}  // namespace tsm
