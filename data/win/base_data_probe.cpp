// A module that holds CBaseData, for the tests of the component's loading:
// copied into a test installation tree it binds records to the component
// copy of that tree; lying anywhere else it binds them through the ProgID.
#include <windows.h>

#include "data/base_data.h"
#include "platform/module_path.h"

namespace {

const char kMarker = 0;

// Whether the component file of this module's installation tree is loaded.
bool TreeComponentLoaded() {
  const tsm::CString path = tsm::CBaseData::ComponentPathForModule(tsm::ModulePathContaining(&kMarker));
  return !path.IsEmpty() && GetModuleHandleW(path.wstr().c_str()) != nullptr;
}

}  // namespace

// Binds a record the way the system does (private load, then ProgID) and
// writes one field and reads it back. 2: bound to the tree's component
// copy; 1: bound otherwise (the ProgID); 0: not bound or the value did not
// come back.
extern "C" __declspec(dllexport) int ProbeBindRecord() {
  tsm::CBaseData record;
  if (!record.Initialize(nullptr)) return 0;
  const int32_t update_id = record.BeginUpdate();
  record.SetData(update_id, tsm::kKindFieldByName, tsm::Variant::Text(L"OrderQty"), tsm::Variant::I4(42));
  record.EndUpdate(update_id);
  if (record.GetLong(L"OrderQty", 0) != 42) return 0;
  return TreeComponentLoaded() ? 2 : 1;
}

// LoadComponent alone: 1 when it bound the record.
extern "C" __declspec(dllexport) int ProbeLoadComponent() {
  tsm::CBaseData record;
  return record.LoadComponent(L"QX_Data.BaseData.1") ? 1 : 0;
}
