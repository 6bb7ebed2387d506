// `COakMapStringToVal`: a text-keyed map of 32-bit integers that locks
// itself. Values live in the pointer-sized slot of the base map, sign-extended
// when stored; the low 32 bits are returned.
//
// Threading: every operation is one critical section from start to end and
// may be called from any thread. A read-modify-write made of two calls is not
// atomic.
#pragma once

#include <cstdint>

#include "data/containers.h"
#include "platform/sync.h"

namespace tsm {

class COakMapStringToVal : public CMapStringToPtr {
 public:
  COakMapStringToVal() : CMapStringToPtr(10) {}
  virtual ~COakMapStringToVal() = default;

  void SetAt(const CString& key, int32_t value);
  bool Lookup(const CString& key, int32_t& value);
  bool RemoveKey(const CString& key);
  void RemoveAll();
  void InitHashTable(uint32_t size);
  int GetCount();

 private:
  CCriticalSection lock_;  // guards the base map
  int32_t no_locking_ = 0;  // nothing in the component sets it
};

}  // namespace tsm
