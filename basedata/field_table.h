// `FieldTable`: the fields by name of one object, laid out for quick reads.
//
// Field names are pooled once per process, in a pool that only grows (the
// field names of the platform are a fixed vocabulary), so an object holds a
// pointer per field instead of a copy of its name, a write finds its field by
// that pointer, and a read compares against a pooled name that the other
// objects keep warm. The fields sit in one array, found through an
// open-addressed index of (hash, position) slots with linear probing.
//
// Threading: a table takes no lock; its object's mutex guards it. `Intern`
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
  };

  // The pooled name of `text`, added to the pool on first use.
  static const Name* Intern(std::wstring_view text);

  // The field's value, or null when there is no such field. Valid until the
  // table next changes.
  const Variant* Find(std::wstring_view name) const;
  // Inserts the field or overwrites its value.
  void Set(const Name* name, Variant value);
  // Removes the field if it is there.
  void Erase(const Name* name);
  // Makes room for `count` fields in all, so that setting that many grows
  // nothing.
  void Reserve(std::size_t count);
  std::size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    const Name* name;
    Variant value;
  };
  struct Slot {
    uint32_t tag = 0;       // high bits of the name's hash
    uint32_t position = 0;  // 1 + index into entries_; 0: empty
  };

  // The slot holding the field, or the empty slot that ends its probe.
  std::size_t Probe(std::wstring_view text, std::size_t hash) const;
  std::size_t Probe(const Name* name) const;
  // Doubles the index (16 slots at first) and places every entry again.
  void Grow();
  // Sets the index to `size` slots (a power of two) and places every entry.
  void Rebuild(std::size_t size);

  std::vector<Entry> entries_;  // in the order they were first set, but for removals
  std::vector<Slot> slots_;     // empty or a power of two, never more than half used
};

}  // namespace tsm::basedata
