// `CSyncMapStringTo<V>`: a string-keyed map that locks itself around every
// operation, for the maps that several threads read and write without
// holding a common mutex (each call is atomic; a sequence of calls is not).
//
// Threading: every operation may be called from any thread. The lock is a
// leaf: it is never held while the caller's code runs, except inside ForEach.
#pragma once

#include <mutex>

#include "data/containers.h"

namespace tsm {

template <typename Value>
class CSyncMapStringTo {
 public:
  explicit CSyncMapStringTo(int block_size = 10) : map_(block_size) {}
  CSyncMapStringTo(const CSyncMapStringTo&) = delete;
  CSyncMapStringTo& operator=(const CSyncMapStringTo&) = delete;

  void InitHashTable(uint32_t size) {
    std::lock_guard<std::mutex> guard(lock_);
    map_.InitHashTable(size);
  }
  uint32_t GetHashTableSize() const {
    std::lock_guard<std::mutex> guard(lock_);
    return map_.GetHashTableSize();
  }
  int GetCount() const {
    std::lock_guard<std::mutex> guard(lock_);
    return map_.GetCount();
  }
  bool IsEmpty() const { return GetCount() == 0; }
  bool Lookup(const CString& key, Value& value) const {
    std::lock_guard<std::mutex> guard(lock_);
    return map_.Lookup(key, value);
  }
  bool Contains(const CString& key) const {
    std::lock_guard<std::mutex> guard(lock_);
    return map_.Contains(key);
  }
  void SetAt(const CString& key, Value value) {
    std::lock_guard<std::mutex> guard(lock_);
    map_.SetAt(key, std::move(value));
  }
  bool RemoveKey(const CString& key) {
    std::lock_guard<std::mutex> guard(lock_);
    return map_.RemoveKey(key);
  }
  void RemoveAll() {
    std::lock_guard<std::mutex> guard(lock_);
    map_.RemoveAll();
  }
  // `fn` must not call back into this map.
  template <typename Fn>
  void ForEach(Fn&& fn) const {
    std::lock_guard<std::mutex> guard(lock_);
    map_.ForEach(std::forward<Fn>(fn));
  }

 private:
  mutable std::mutex lock_;  // guards map_
  CMapStringTo<Value> map_;
};

using CSyncMapStringToString = CSyncMapStringTo<CString>;
using CSyncMapStringToPtr = CSyncMapStringTo<void*>;

}  // namespace tsm
