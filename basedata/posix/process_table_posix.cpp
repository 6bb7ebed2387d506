// The process's interface table and the binding of objects to records where
// there is no COM: the component's own table, the objects themselves, and
// the component's own keys of field reads.
#include "basedata/interface_table.h"
#include "basedata/base_data_binding.h"
#include "basedata/field_table.h"
#include "basedata/posix/field_key_export.h"

namespace tsm {

extern "C" {

IGlobalInterfaceTable* TsmGetGlobalInterfaceTable() { return &basedata::InterfaceTable::Instance(); }

ComponentObject* TsmComponentObject(IBaseData* object) {
  if (object != nullptr) object->AddRef();
  return object;
}

const Variant* TsmFieldKey(const wchar_t* name, std::size_t length) {
  if (name == nullptr) return nullptr;
  return &basedata::FieldTable::Intern(std::wstring_view(name, length))->key;
}

}  // extern "C"

}  // namespace tsm
