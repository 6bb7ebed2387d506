// What a record holds of the base-data component, and the only place where
// the way it reaches the component differs by platform: through IDispatch
// calls by DISPID and COM's global interface table where there is COM, by
// calls on the component's objects and its own table elsewhere. The
// implementations live in data/posix and data/win, picked by the build.
//
// Threading: a driver and a table handle are used on one thread at a time,
// like the record that holds them. Event handlers are called on the
// component's event thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "os/component_object.h"
#include "tradeslice/variant.h"

namespace tsm {

// Where a record's event sink sends the two events of the component.
class DispatchEventHandler {
 public:
  virtual void HandleUpdate(int32_t update_id, const std::wstring& text) = 0;
  virtual void HandleReplace(int32_t id) = 0;

 protected:
  ~DispatchEventHandler() = default;
};

// The automation handle on one component object, as the record uses it:
// the four methods of the component by DISPID, and its event connection.
// A driver without an object does nothing and gives neutral values.
class COleDispatchDriver {
 public:
  COleDispatchDriver() = default;
  ~COleDispatchDriver() { ReleaseDispatch(); }
  COleDispatchDriver(const COleDispatchDriver&) = delete;
  COleDispatchDriver& operator=(const COleDispatchDriver&) = delete;

  // Holds `dispatch` from now on (released with the driver); `add_ref`
  // takes a reference of its own instead of taking over the caller's.
  void AttachDispatch(ComponentObject* dispatch, bool add_ref);
  void ReleaseDispatch();
  // Creates a new object of the class registered under `prog_id`.
  bool CreateDispatch(const wchar_t* prog_id);
  ComponentObject* dispatch() const { return m_lpDispatch; }

  int32_t BeginUpdate();                                                     // DISPID 1; -1 on failure
  void SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value);  // DISPID 3
  void EndUpdate(int32_t update_id);                                         // DISPID 4
  Variant GetData(int32_t kind, const Variant& argument);                    // DISPID 5; empty on failure

  // Connects the object's events to a new sink that forwards them to
  // `handler`; the connection holds the sink's only reference. 0 when the
  // object refuses.
  uint32_t ConnectionAdvise(std::shared_ptr<DispatchEventHandler> handler);
  void ConnectionUnadvise(uint32_t cookie);

 private:
  ComponentObject* m_lpDispatch = nullptr;  // owned reference
};

// A reference on the process's global interface table, where objects are
// registered under the component's interface and fetched by 32-bit cookie.
class InterfaceTableRef {
 public:
  InterfaceTableRef() = default;
  ~InterfaceTableRef();
  InterfaceTableRef(const InterfaceTableRef&) = delete;
  InterfaceTableRef& operator=(const InterfaceTableRef&) = delete;

  bool Create();
  bool IsCreated() const { return table_ != nullptr; }
  // The new cookie, or 0 when the table refuses (also for a null object).
  uint32_t Register(ComponentObject* object);
  // The object with a reference for the caller, only when the table answers
  // exactly S_OK with an object; otherwise null.
  ComponentObject* Get(uint32_t cookie);
  void Revoke(uint32_t cookie);

 private:
  void* table_ = nullptr;  // owned reference
};

// Loads the component library at `path`, storing its handle in `*module`
// (also when a failure follows), and makes one object of the component's
// class through the library's own class object. False when the library,
// its entry point or the class object is missing; throws ComError(E_POINTER)
// when the class object makes no object.
bool LoadComponentObject(const std::wstring& path, void** module, ComponentObject** object);

}  // namespace tsm
