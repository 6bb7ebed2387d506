// `FieldTable`: the fields by name of one object, laid out for quick reads.
//
// Field names are pooled once per process, in a pool that only grows (the
// field names of the platform are a fixed vocabulary), so an object holds a
// pointer per field instead of a copy of its name, a write finds its field by
// that pointer, and a read compares against a pooled name that the other
// objects keep warm. Each pooled name also carries a key (a text variant of
// the name) that lives as long as the pool: a read or write keyed by that
// very variant is known by the address of its text, without hashing or
// comparing the name. The fields themselves sit side by side in one array,
// found through an open-addressed index of small slots (linear probing,
// Robin Hood order: a slot never sits farther from its home than the slot it
// passed), so a read of a field usually touches one slot and its field, a
// read of an absent field stops as soon as the probe has gone farther than
// the slots it meets, and placing a field moves slots, never values.
//
// Threading: a table takes no lock; its object's lock guards it. `Intern`
// may be called from any thread; pooled names are never freed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tradeslice/variant.h"

namespace tsm::basedata {

class FieldTable {
 public:
  // A pooled name; lives as long as the process. Two pooled names are equal
  // exactly when they are the same object.
  struct Name {
    std::wstring text;
    std::size_t hash;
    Variant key;  // Variant::Text(text); never changes nor moves
  };

  // The pooled name of `text`, added to the pool on first use.
  static const Name* Intern(std::wstring_view text);
  // The same for a NUL-terminated name, read at its address: a name spelt
  // out in the code is measured and hashed only the first time.
  static const Name* InternAt(const wchar_t* text);
  // The pooled name whose own key `key` is (the same object, not an equal
  // text), or null for any other variant.
  static const Name* Pooled(const Variant& key);

  // The field's value, or null when there is no such field. Valid until the
  // table next changes.
  const Variant* Find(std::wstring_view name) const;
  const Variant* Find(const Name* name) const;
  // Inserts the field or overwrites its value, moving `value` in.
  void Set(const Name* name, Variant&& value);
  // Removes the field if it is there.
  void Erase(const Name* name);
  // Makes room for `count` fields in all, so that setting that many grows
  // nothing.
  void Reserve(std::size_t count);
  std::size_t size() const { return fields_.size(); }

 private:
  struct Field {
    const Name* name = nullptr;
    Variant value;
  };
  // Where a field sits in fields_, filed under its name.
  struct Slot {
    const Name* name = nullptr;  // null: empty
    uint32_t field = 0;          // index into fields_
    uint32_t hash = 0;           // the low bits of the name's hash
  };

  // Slots needed so that `count` fields keep the load at or under 7/8.
  static std::size_t SlotsFor(std::size_t count);
  // How far the slot at `index` sits from its home.
  std::size_t Distance(std::size_t index) const;
  // The slot of the field, or slots_.size() when it is absent.
  std::size_t Locate(std::wstring_view text, std::size_t hash) const;
  std::size_t Locate(const Name* name) const;
  // Files a slot whose name is absent; room must be there.
  void Place(Slot slot);
  // Files every slot again in `size` slots (a power of two).
  void Rebuild(std::size_t size);

  std::vector<Slot> slots_;    // empty or a power of two
  std::vector<Field> fields_;  // in no particular order; room for limit_
  std::size_t limit_ = 0;      // fields the index takes before it grows
};

}  // namespace tsm::basedata
