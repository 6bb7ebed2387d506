// The entry point of the component library for hosts that load it from a
// file instead of linking it: the library's class object, which creates
// objects. A record of the host looks the entry point up by name.
//
// Threading: the class object may be used from any thread; it has no state.
#pragma once

#include "tradeslice/base_data_api.h"
#include "tradeslice/export.h"

namespace tsm {

class IBaseDataClassFactory : public IRefCounted {
 public:
  // A new object with one reference, the caller's.
  virtual HResult CreateInstance(IBaseData** object) = 0;

 protected:
  ~IBaseDataClassFactory() = default;
};

// The exported name of TsmBaseDataGetClassObject, for a look-up by name.
inline constexpr char kBaseDataGetClassObjectName[] = "TsmBaseDataGetClassObject";
using BaseDataGetClassObjectFn = HResult (*)(IBaseDataClassFactory** factory);

extern "C" {

// Hands out the class object with a reference for the caller.
TSM_BASEDATA_API HResult TsmBaseDataGetClassObject(IBaseDataClassFactory** factory);

// Test hook: the next `times` CreateInstance calls of the class object fail
// with E_FAIL and no object. 0 clears it.
TSM_BASEDATA_API void TsmFailCreateInstanceForTesting(int32_t times);

}  // extern "C"

}  // namespace tsm
