#include "basedata/field_table.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>

namespace tsm::basedata {

namespace {

std::size_t HashOf(std::wstring_view text) { return std::hash<std::wstring_view>()(text); }

uint32_t TagOf(std::size_t hash) {
  return static_cast<uint32_t>(hash >> (std::numeric_limits<std::size_t>::digits - 32));
}

// Every field name the process has used, each stored once. Look-ups take no
// lock: the open-addressed table of names is only ever added to, by one
// thread at a time, and a bigger table is published whole. Tables that were
// replaced stay allocated, as a reader may still be probing one.
class NamePool {
 public:
  using Name = FieldTable::Name;

  // Kept reachable for the life of the process: objects of any thread point
  // into it until the process ends.
  static NamePool& Instance() {
    static NamePool* pool = new NamePool();
    return *pool;
  }

  NamePool() { Publish(std::make_unique<Table>(kFirstSize)); }

  const Name* Intern(std::wstring_view text) {
    const std::size_t hash = HashOf(text);
    if (const Name* found = Find(*current_.load(std::memory_order_acquire), text, hash)) return found;
    std::lock_guard<std::mutex> guard(insert_lock_);
    Table* table = current_.load(std::memory_order_relaxed);
    if (const Name* found = Find(*table, text, hash)) return found;
    names_.push_back(std::make_unique<Name>(Name{std::wstring(text), hash}));
    const Name* name = names_.back().get();
    if (names_.size() * 2 > table->slots.size()) {
      auto bigger = std::make_unique<Table>(table->slots.size() * 2);
      for (const auto& pooled : names_) Place(*bigger, pooled.get());
      Publish(std::move(bigger));
    } else {
      Place(*table, name);
    }
    return name;
  }

 private:
  static constexpr std::size_t kFirstSize = 256;

  struct Table {
    explicit Table(std::size_t size) : slots(size) {}
    std::vector<std::atomic<const Name*>> slots;  // a power of two; null: empty
  };

  static const Name* Find(const Table& table, std::wstring_view text, std::size_t hash) {
    const std::size_t mask = table.slots.size() - 1;
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
      const Name* name = table.slots[i].load(std::memory_order_acquire);
      if (name == nullptr) return nullptr;
      if (name->hash == hash && name->text == text) return name;
    }
  }

  static void Place(Table& table, const Name* name) {
    const std::size_t mask = table.slots.size() - 1;
    std::size_t i = name->hash & mask;
    while (table.slots[i].load(std::memory_order_relaxed) != nullptr) i = (i + 1) & mask;
    table.slots[i].store(name, std::memory_order_release);
  }

  // Under insert_lock_, or from the constructor.
  void Publish(std::unique_ptr<Table> table) {
    current_.store(table.get(), std::memory_order_release);
    tables_.push_back(std::move(table));
  }

  std::atomic<Table*> current_{nullptr};
  std::mutex insert_lock_;                       // guards names_, tables_ and every insertion
  std::vector<std::unique_ptr<Name>> names_;     // the pooled names
  std::vector<std::unique_ptr<Table>> tables_;   // every table published, the current one last
};

}  // namespace

const FieldTable::Name* FieldTable::Intern(std::wstring_view text) { return NamePool::Instance().Intern(text); }

std::size_t FieldTable::Probe(std::wstring_view text, std::size_t hash) const {
  const std::size_t mask = slots_.size() - 1;
  const uint32_t tag = TagOf(hash);
  for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
    const Slot& slot = slots_[i];
    if (slot.position == 0) return i;
    if (slot.tag == tag) {
      const Name* held = entries_[slot.position - 1].name;
      if (held->hash == hash && held->text == text) return i;
    }
  }
}

std::size_t FieldTable::Probe(const Name* name) const {
  const std::size_t mask = slots_.size() - 1;
  const uint32_t tag = TagOf(name->hash);
  for (std::size_t i = name->hash & mask;; i = (i + 1) & mask) {
    const Slot& slot = slots_[i];
    if (slot.position == 0) return i;
    if (slot.tag == tag && entries_[slot.position - 1].name == name) return i;
  }
}

const Variant* FieldTable::Find(std::wstring_view name) const {
  if (entries_.empty()) return nullptr;
  const Slot& slot = slots_[Probe(name, HashOf(name))];
  return slot.position == 0 ? nullptr : &entries_[slot.position - 1].value;
}

void FieldTable::Set(const Name* name, Variant value) {
  if (slots_.empty()) Grow();
  std::size_t at = Probe(name);
  if (slots_[at].position != 0) {
    entries_[slots_[at].position - 1].value = std::move(value);
    return;
  }
  if ((entries_.size() + 1) * 2 > slots_.size()) {
    Grow();
    at = Probe(name);
  }
  entries_.push_back(Entry{name, std::move(value)});
  slots_[at] = Slot{TagOf(name->hash), static_cast<uint32_t>(entries_.size())};
}

void FieldTable::Erase(const Name* name) {
  if (entries_.empty()) return;
  const std::size_t mask = slots_.size() - 1;
  std::size_t hole = Probe(name);
  const uint32_t removed = slots_[hole].position;
  if (removed == 0) return;
  // Close the hole: a later slot of the same run moves into it when the hole
  // lies between that slot's home and the slot itself.
  for (std::size_t j = (hole + 1) & mask; slots_[j].position != 0; j = (j + 1) & mask) {
    const std::size_t home = entries_[slots_[j].position - 1].name->hash & mask;
    if (((j - home) & mask) >= ((j - hole) & mask)) {
      slots_[hole] = slots_[j];
      hole = j;
    }
  }
  slots_[hole] = Slot{};
  // The last entry fills the removed one's place, and its slot follows it.
  const uint32_t last = static_cast<uint32_t>(entries_.size());
  if (removed != last) {
    entries_[removed - 1] = std::move(entries_.back());
    std::size_t i = entries_[removed - 1].name->hash & mask;
    while (slots_[i].position != last) i = (i + 1) & mask;
    slots_[i].position = removed;
  }
  entries_.pop_back();
}

void FieldTable::Reserve(std::size_t count) {
  if (count <= entries_.size()) return;
  // Geometric, as growth by push_back would be: updates that only overwrite
  // ask for more room than they take.
  if (count > entries_.capacity()) entries_.reserve(std::max(count, 2 * entries_.capacity()));
  std::size_t size = slots_.empty() ? 16 : slots_.size();
  while (count * 2 > size) size *= 2;
  if (size != slots_.size()) Rebuild(size);
}

void FieldTable::Grow() { Rebuild(slots_.empty() ? 16 : slots_.size() * 2); }

void FieldTable::Rebuild(std::size_t size) {
  slots_.assign(size, Slot{});
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t k = 0; k < entries_.size(); ++k) {
    const std::size_t hash = entries_[k].name->hash;
    std::size_t i = hash & mask;
    while (slots_[i].position != 0) i = (i + 1) & mask;
    slots_[i] = Slot{TagOf(hash), static_cast<uint32_t>(k + 1)};
  }
}

}  // namespace tsm::basedata
