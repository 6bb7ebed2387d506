// The process's interface table and the binding of objects to records where
// there is no COM: the component's own table, and the objects themselves.
#include "basedata/interface_table.h"
#include "basedata/base_data_binding.h"

namespace tsm {

extern "C" {

IGlobalInterfaceTable* TsmGetGlobalInterfaceTable() { return &basedata::InterfaceTable::Instance(); }

ComponentObject* TsmComponentObject(IBaseData* object) {
  if (object != nullptr) object->AddRef();
  return object;
}

}  // extern "C"

}  // namespace tsm
