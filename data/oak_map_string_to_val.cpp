#include "data/oak_map_string_to_val.h"

namespace tsm {

namespace {
// Takes the lock unless the map was told not to.
class MaybeLock {
 public:
  MaybeLock(CCriticalSection& lock, bool enabled) : lock_(enabled ? &lock : nullptr) {
    if (lock_ != nullptr) lock_->Lock();
  }
  ~MaybeLock() {
    if (lock_ != nullptr) lock_->Unlock();
  }
  MaybeLock(const MaybeLock&) = delete;
  MaybeLock& operator=(const MaybeLock&) = delete;

 private:
  CCriticalSection* lock_;
};
}  // namespace

void COakMapStringToVal::SetAt(const CString& key, int32_t value) {
  MaybeLock guard(lock_, no_locking_ == 0);
  CMapStringToPtr::SetAt(key, reinterpret_cast<void*>(static_cast<intptr_t>(value)));
}

bool COakMapStringToVal::Lookup(const CString& key, int32_t& value) {
  MaybeLock guard(lock_, no_locking_ == 0);
  void* slot = nullptr;
  if (!CMapStringToPtr::Lookup(key, slot)) return false;
  value = static_cast<int32_t>(reinterpret_cast<intptr_t>(slot));
  return true;
}

bool COakMapStringToVal::RemoveKey(const CString& key) {
  MaybeLock guard(lock_, no_locking_ == 0);
  return CMapStringToPtr::RemoveKey(key);
}

void COakMapStringToVal::RemoveAll() {
  MaybeLock guard(lock_, no_locking_ == 0);
  CMapStringToPtr::RemoveAll();
}

void COakMapStringToVal::InitHashTable(uint32_t size) {
  MaybeLock guard(lock_, no_locking_ == 0);
  CMapStringToPtr::InitHashTable(size);
}

int COakMapStringToVal::GetCount() {
  MaybeLock guard(lock_, no_locking_ == 0);
  return CMapStringToPtr::GetCount();
}

}  // namespace tsm
