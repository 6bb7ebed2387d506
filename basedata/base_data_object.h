// One object of the base-data component: a name, fields by name and by
// numeric id, children by field name and by index, batched updates, and the
// event connection point.
//
// Updates: BeginUpdate hands out the next id of this object (from 1). SetData
// under an open id is held back and applied by EndUpdate; SetData under an id
// that is not open applies at once. EndUpdate (open or not) then posts
// OnUpdate(id, text) to every sink connected at that moment, where text is the
// names of the fields the update wrote, in the order written, joined with ","
// (fields by id appear as their decimal id; a write of the name with kind 20
// renames the object and adds nothing to the text).
//
// Children are published by cookie in the process's interface table: a
// child's cookie is registered on its first read and kept until the child
// leaves its slot or the object dies.
//
// Threading: every method may be called from any thread; one lock per object
// (an ObjectLock) serialises reads, writes and connection changes. Events
// are posted to the component's event thread while that lock is held, so the
// events of one object are delivered in the order its updates were closed.
// No sink is ever called with the lock held.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "basedata/event_queue.h"
#include "basedata/field_table.h"
#include "basedata/object_lock.h"
#include "tradeslice/base_data_api.h"

namespace tsm::basedata {

// Aligned to a cache line, and laid out so that a read of a field by name
// finds the virtual table, the field table's header and the lock's own word
// on the object's first line.
class alignas(64) BaseDataObject final : public IBaseData {
 public:
  // Starts with one reference, the caller's.
  explicit BaseDataObject(std::wstring name);
  BaseDataObject(const BaseDataObject&) = delete;
  BaseDataObject& operator=(const BaseDataObject&) = delete;

  uint32_t AddRef() override;
  uint32_t Release() override;

  int32_t BeginUpdate() override;
  void SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value) override;
  void EndUpdate(int32_t update_id) override;
  Variant GetData(int32_t kind, const Variant& argument) override;
  HResult Advise(IBaseDataEvents* sink, uint32_t* cookie) override;
  HResult Unadvise(uint32_t cookie) override;

  // What the platform does to an object from inside the component.
  // The fields of an object nobody listens to yet, as one batch (update id
  // 1 when it is the first); values are moved out of `fields`.
  void WriteFirstFields(TsmField* fields, int32_t count);
  void SetChild(const std::wstring& field, IBaseData* child);
  void AppendChild(IBaseData* child);
  void ClearChildren();
  void RaiseReplace(int32_t id);
  void FailChildReads(int32_t times);

 private:
  struct ChildSlot {
    IBaseData* object = nullptr;  // a reference of the slot's own
    uint32_t cookie = 0;          // interface-table cookie; 0: not published yet
  };
  // One write as it takes effect: a field by name (its name pooled), a
  // field by id, or the object's name. A write of any other shape has none.
  struct Write {
    enum class Target { kNone, kField, kFieldById, kRename };
    Target target = Target::kNone;
    const FieldTable::Name* field = nullptr;
    int32_t id = 0;
    Variant value;
  };
  struct OpenUpdate {
    int32_t id;
    std::vector<Write> writes;
  };
  struct SinkEntry {
    uint32_t cookie;
    IBaseDataEvents* sink;  // the connection's reference
    std::shared_ptr<Connection> connection;
  };

  ~BaseDataObject();

  // What SetData(kind, key, value) writes; needs no lock.
  static Write MakeWrite(int32_t kind, const Variant& key, const Variant& value);
  // Room enough for the event text of `writes` (names, commas).
  static std::size_t ChangedTextLength(const std::vector<Write>& writes);
  // Applies one write, moving its value out; appends the written field's
  // name to `changed` (when given) for the update's event text.
  void ApplyLocked(Write& write, std::wstring* changed);
  Variant PublishLocked(ChildSlot& slot);
  Variant ChildAtLocked(int32_t index);
  void PostLocked(QueuedEvent::Kind kind, int32_t id, std::wstring text);
  // Revokes the slot's cookie and drops its reference; call without the lock.
  static void Retire(const ChildSlot& slot);

  // Guarded by lock_, as is every member after it (declared first for the
  // layout above).
  FieldTable fields_by_name_;
  ObjectLock lock_;
  std::atomic<uint32_t> refs_{1};
  std::wstring name_;
  std::unordered_map<int32_t, Variant> fields_by_id_;
  std::unordered_map<std::wstring, ChildSlot> named_children_;
  std::vector<ChildSlot> children_;
  int32_t failing_child_reads_ = 0;
  int32_t last_update_id_ = 0;
  std::vector<OpenUpdate> open_updates_;
  std::vector<Write> spare_writes_;  // empty; the room of the last closed update
  std::vector<SinkEntry> sinks_;
  uint32_t last_advise_cookie_ = 0;
};

}  // namespace tsm::basedata
