// The MFC-shaped containers of the component: string-keyed hash maps with
// MFC's hash and iteration order (buckets in order, newest entry first within
// a bucket), so that iteration is the same on every platform, and the string
// array.
//
// Threading: none of these lock; their owners guard them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
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

  bool Lookup(const CString& key, Value& value) const { return Lookup(std::wstring_view(key.wstr()), value); }
  bool Lookup(const wchar_t* key, Value& value) const { return Lookup(std::wstring_view(key), value); }
  bool Lookup(const std::wstring& key, Value& value) const { return Lookup(std::wstring_view(key), value); }
  // The same by a view, so that a caller holding a piece of a longer text
  // looks it up without copying it out first.
  bool Lookup(std::wstring_view key, Value& value) const {
    if (buckets_.empty()) return false;
    const uint32_t hash = HashKey(key);
    const Bucket& bucket = buckets_[hash % buckets_.size()];
    const std::size_t at = bucket.Find(hash, key);
    if (at == kNone) return false;
    value = bucket.entries[at].value;
    return true;
  }
  bool Contains(const CString& key) const {
    Value ignored{};
    return Lookup(key, ignored);
  }

  void SetAt(const CString& key, Value value) {
    if (buckets_.empty()) buckets_.assign(kDefaultHashSize, {});
    const uint32_t hash = HashKey(key.wstr());
    Bucket& bucket = buckets_[hash % buckets_.size()];
    const std::size_t at = bucket.Find(hash, key.wstr());
    if (at != kNone) {
      bucket.entries[at].value = std::move(value);
      return;
    }
    bucket.hashes.push_back(hash);
    bucket.entries.push_back(Entry{key, std::move(value)});
    ++count_;
  }

  bool RemoveKey(const CString& key) {
    if (buckets_.empty()) return false;
    const uint32_t hash = HashKey(key.wstr());
    Bucket& bucket = buckets_[hash % buckets_.size()];
    const std::size_t at = bucket.Find(hash, key.wstr());
    if (at == kNone) return false;
    bucket.hashes.erase(bucket.hashes.begin() + static_cast<std::ptrdiff_t>(at));
    bucket.entries.erase(bucket.entries.begin() + static_cast<std::ptrdiff_t>(at));
    --count_;
    return true;
  }

  // Keeps the table size, as MFC's RemoveAll frees the entries only.
  void RemoveAll() {
    for (Bucket& bucket : buckets_) {
      bucket.hashes.clear();
      bucket.entries.clear();
    }
    count_ = 0;
  }

  // Calls fn(key, value) for every entry in MFC's iteration order.
  template <typename Fn>
  void ForEach(Fn&& fn) const {
    for (const Bucket& bucket : buckets_) {
      for (auto it = bucket.entries.rbegin(); it != bucket.entries.rend(); ++it) fn(it->key, it->value);
    }
  }

  // MFC's string hash: h = h * 33 + c over the characters, 32-bit.
  static uint32_t HashKey(std::wstring_view key) {
    uint32_t hash = 0;
    for (wchar_t c : key) hash = (hash << 5) + hash + static_cast<uint32_t>(c);
    return hash;
  }

 private:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  struct Entry {
    CString key;
    Value value;
  };
  // One chain, oldest entry first (iteration runs it backwards, newest
  // first). The keys' hashes sit apart from the entries, as MFC keeps a hash
  // in each entry: a look-up scans the small array of hashes and compares
  // the texts only of entries whose hash matches.
  struct Bucket {
    std::vector<uint32_t> hashes;  // hashes[i] is the hash of entries[i].key
    std::vector<Entry> entries;

    std::size_t Find(uint32_t hash, std::wstring_view key) const {
      for (std::size_t i = 0; i < hashes.size(); ++i) {
        if (hashes[i] == hash && entries[i].key.wstr() == key) return i;
      }
      return kNone;
    }
  };

  std::vector<Bucket> buckets_;
  int count_ = 0;
};

using CMapStringToPtr = CMapStringTo<void*>;
using CMapStringToString = CMapStringTo<CString>;

}  // namespace tsm
