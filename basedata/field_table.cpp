#include "basedata/field_table.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

#include "data/address_pins.h"
#include "data/field_name_hash.h"

namespace tsm::basedata {

namespace {

// Every field name the process has used, each stored once. Look-ups take no
// lock: the open-addressed tables of names (by text, and by the address of
// each name's key text) are only ever added to, by one thread at a time, and
// bigger tables are published whole. Tables that were replaced stay
// allocated, as a reader may still be probing one.
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
    const std::size_t hash = FieldNameHash(text);
    if (const Name* found = Find(*current_.load(std::memory_order_acquire), text, hash)) return found;
    std::lock_guard<std::mutex> guard(insert_lock_);
    Table* table = current_.load(std::memory_order_relaxed);
    if (const Name* found = Find(*table, text, hash)) return found;
    names_.push_back(std::make_unique<Name>(Name{std::wstring(text), hash, Variant::Text(std::wstring(text))}));
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

  const Name* InternAt(const wchar_t* text) {
    if (const Name* pinned = pins_.Find(text)) return pinned;
    const Name* name = Intern(std::wstring_view(text));
    pins_.Pin(text, name->text.c_str(), name);
    return name;
  }

  // The pooled name whose key text sits at `at`. A pooled key is never
  // freed, so no other text can sit at its address.
  const Name* ByKeyAddress(const wchar_t* at) const {
    const Table& table = *current_.load(std::memory_order_acquire);
    const std::size_t mask = table.by_key_address.size() - 1;
    for (std::size_t i = AddressHash(at) & mask;; i = (i + 1) & mask) {
      const Name* name = table.by_key_address[i].load(std::memory_order_acquire);
      if (name == nullptr || name->key.text().data() == at) return name;
    }
  }

 private:
  static constexpr std::size_t kFirstSize = 256;

  struct Table {
    explicit Table(std::size_t size) : slots(size), by_key_address(size) {}
    std::vector<std::atomic<const Name*>> slots;           // a power of two; null: empty
    std::vector<std::atomic<const Name*>> by_key_address;  // the same names, by their key's address
  };

  static std::size_t AddressHash(const wchar_t* at) {
    const uint64_t bits = static_cast<uint64_t>(reinterpret_cast<std::uintptr_t>(at));
    return static_cast<std::size_t>((bits * 0x9E3779B97F4A7C15ull) >> 32);
  }

  static const Name* Find(const Table& table, std::wstring_view text, std::size_t hash) {
    const std::size_t mask = table.slots.size() - 1;
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
      const Name* name = table.slots[i].load(std::memory_order_acquire);
      if (name == nullptr) return nullptr;
      if (name->hash == hash && name->text == text) return name;
    }
  }

  static void Place(Table& table, const Name* name) {
    PlaceAt(table.slots, name->hash, name);
    PlaceAt(table.by_key_address, AddressHash(name->key.text().data()), name);
  }

  static void PlaceAt(std::vector<std::atomic<const Name*>>& slots, std::size_t hash, const Name* name) {
    const std::size_t mask = slots.size() - 1;
    std::size_t i = hash & mask;
    while (slots[i].load(std::memory_order_relaxed) != nullptr) i = (i + 1) & mask;
    slots[i].store(name, std::memory_order_release);
  }

  // Under insert_lock_, or from the constructor.
  void Publish(std::unique_ptr<Table> table) {
    current_.store(table.get(), std::memory_order_release);
    tables_.push_back(std::move(table));
  }

  std::atomic<Table*> current_{nullptr};
  AddressPins<Name> pins_;
  std::mutex insert_lock_;                       // guards names_, tables_ and every insertion
  std::vector<std::unique_ptr<Name>> names_;     // the pooled names
  std::vector<std::unique_ptr<Table>> tables_;   // every table published, the current one last
};

}  // namespace

const FieldTable::Name* FieldTable::Intern(std::wstring_view text) { return NamePool::Instance().Intern(text); }

const FieldTable::Name* FieldTable::InternAt(const wchar_t* text) { return NamePool::Instance().InternAt(text); }

const FieldTable::Name* FieldTable::Pooled(const Variant& key) {
  if (key.type() != VarType::BStr) return nullptr;
  return NamePool::Instance().ByKeyAddress(key.text().data());
}

std::size_t FieldTable::SlotsFor(std::size_t count) {
  std::size_t size = 16;
  while (count * 8 > size * 7) size *= 2;
  return size;
}

std::size_t FieldTable::Distance(std::size_t index) const {
  return (index - slots_[index].hash) & (slots_.size() - 1);
}

std::size_t FieldTable::Locate(std::wstring_view text, std::size_t hash) const {
  if (fields_.empty()) return slots_.size();
  const std::size_t mask = slots_.size() - 1;
  const auto low = static_cast<uint32_t>(hash);
  for (std::size_t i = hash & mask, d = 0;; i = (i + 1) & mask, ++d) {
    const Slot& slot = slots_[i];
    if (slot.name == nullptr || Distance(i) < d) return slots_.size();
    if (slot.hash == low && slot.name->text == text) return i;
  }
}

std::size_t FieldTable::Locate(const Name* name) const {
  if (fields_.empty()) return slots_.size();
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t i = name->hash & mask, d = 0;; i = (i + 1) & mask, ++d) {
    const Slot& slot = slots_[i];
    if (slot.name == name) return i;
    if (slot.name == nullptr || Distance(i) < d) return slots_.size();
  }
}

const Variant* FieldTable::Find(std::wstring_view name) const {
  const std::size_t at = Locate(name, FieldNameHash(name));
  return at == slots_.size() ? nullptr : &fields_[slots_[at].field].value;
}

const Variant* FieldTable::Find(const Name* name) const {
  const std::size_t at = Locate(name);
  return at == slots_.size() ? nullptr : &fields_[slots_[at].field].value;
}

void FieldTable::Set(const Name* name, Variant&& value) {
  const std::size_t at = Locate(name);
  if (at != slots_.size()) {
    fields_[slots_[at].field].value = std::move(value);
    return;
  }
  if (fields_.size() >= limit_) Reserve(fields_.size() + 1);
  Field& field = fields_.emplace_back();
  field.name = name;
  field.value = std::move(value);
  Place(Slot{name, static_cast<uint32_t>(fields_.size() - 1), static_cast<uint32_t>(name->hash)});
}

void FieldTable::Place(Slot slot) {
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t i = slot.hash & mask, d = 0;; i = (i + 1) & mask, ++d) {
    Slot& here = slots_[i];
    if (here.name == nullptr) {
      here = slot;
      return;
    }
    // The slot nearer its home gives way; the one carried on keeps its own
    // distance.
    const std::size_t distance = Distance(i);
    if (distance < d) {
      std::swap(here, slot);
      d = distance;
    }
  }
}

void FieldTable::Erase(const Name* name) {
  std::size_t hole = Locate(name);
  if (hole == slots_.size()) return;
  const uint32_t erased = slots_[hole].field;
  // The slots after it move back one, up to an empty slot or a slot at its
  // home.
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t next = (hole + 1) & mask; slots_[next].name != nullptr && Distance(next) > 0;
       next = (next + 1) & mask) {
    slots_[hole] = slots_[next];
    hole = next;
  }
  slots_[hole] = Slot{};
  // The last field takes the erased one's place in the array.
  const auto last = static_cast<uint32_t>(fields_.size() - 1);
  if (erased != last) {
    fields_[erased] = std::move(fields_[last]);
    slots_[Locate(fields_[erased].name)].field = erased;
  }
  fields_.pop_back();
}

void FieldTable::Reserve(std::size_t count) {
  const std::size_t size = SlotsFor(count);
  if (size > slots_.size()) Rebuild(size);
  // The array keeps room for as many fields as the index takes, so that its
  // values move only when the index grows.
  limit_ = slots_.size() * 7 / 8;
  if (limit_ > fields_.capacity()) fields_.reserve(limit_);
}

void FieldTable::Rebuild(std::size_t size) {
  std::vector<Slot> old(size);
  old.swap(slots_);
  for (const Slot& slot : old) {
    if (slot.name != nullptr) Place(slot);
  }
}

}  // namespace tsm::basedata
