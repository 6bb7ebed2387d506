// The MFC-shaped containers of the component: string-keyed hash maps with
// MFC's hash and iteration order (buckets in order, newest entry first within
// a bucket), so that iteration is the same on every platform, and the string
// array.
//
// Threading: none of these lock; their owners guard them.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "data/text.h"

namespace tsm {

using CStringArray = std::vector<CString>;

template <typename Value>
class CMapStringTo {
 public:
  static constexpr uint32_t kDefaultHashSize = 17;

  // `block_size` is MFC's allocation block; kept for the record, unused.
  explicit CMapStringTo(int block_size = 10) { (void)block_size; }

  // Sizes the bucket table; only takes effect while the map is empty.
  void InitHashTable(uint32_t size) {
    if (count_ == 0 && size > 0) buckets_.assign(size, {});
  }
  uint32_t GetHashTableSize() const { return buckets_.empty() ? kDefaultHashSize : static_cast<uint32_t>(buckets_.size()); }

  int GetCount() const { return count_; }
  bool IsEmpty() const { return count_ == 0; }

  bool Lookup(const CString& key, Value& value) const {
    if (buckets_.empty()) return false;
    const uint32_t hash = HashKey(key);
    for (const Assoc& entry : buckets_[hash % buckets_.size()]) {
      if (entry.hash == hash && entry.key == key) {
        value = entry.value;
        return true;
      }
    }
    return false;
  }
  bool Contains(const CString& key) const {
    Value ignored{};
    return Lookup(key, ignored);
  }

  void SetAt(const CString& key, Value value) {
    if (buckets_.empty()) buckets_.assign(kDefaultHashSize, {});
    const uint32_t hash = HashKey(key);
    auto& chain = buckets_[hash % buckets_.size()];
    for (Assoc& entry : chain) {
      if (entry.hash == hash && entry.key == key) {
        entry.value = std::move(value);
        return;
      }
    }
    chain.insert(chain.begin(), Assoc{hash, key, std::move(value)});
    ++count_;
  }

  bool RemoveKey(const CString& key) {
    if (buckets_.empty()) return false;
    const uint32_t hash = HashKey(key);
    auto& chain = buckets_[hash % buckets_.size()];
    for (auto it = chain.begin(); it != chain.end(); ++it) {
      if (it->hash == hash && it->key == key) {
        chain.erase(it);
        --count_;
        return true;
      }
    }
    return false;
  }

  // Keeps the table size, as MFC's RemoveAll frees the entries only.
  void RemoveAll() {
    for (auto& chain : buckets_) chain.clear();
    count_ = 0;
  }

  // Calls fn(key, value) for every entry in MFC's iteration order.
  template <typename Fn>
  void ForEach(Fn&& fn) const {
    for (const auto& chain : buckets_) {
      for (const Assoc& entry : chain) fn(entry.key, entry.value);
    }
  }

  // MFC's string hash: h = h * 33 + c over the characters, 32-bit.
  static uint32_t HashKey(const CString& key) {
    uint32_t hash = 0;
    for (wchar_t c : key.wstr()) hash = (hash << 5) + hash + static_cast<uint32_t>(c);
    return hash;
  }

 private:
  // An entry keeps its key's hash, as MFC's do: a look-up compares the
  // texts only of entries whose hash matches.
  struct Assoc {
    uint32_t hash;
    CString key;
    Value value;
  };

  std::vector<std::vector<Assoc>> buckets_;
  int count_ = 0;
};

using CMapStringToPtr = CMapStringTo<void*>;
using CMapStringToString = CMapStringTo<CString>;

}  // namespace tsm
