#include "module/win/interface_table.h"

#include <windows.h>

#include <atomic>

namespace tsm::module {

::IGlobalInterfaceTable* ProcessInterfaceTable() {
  // The table lives as long as the process; the one reference kept here is
  // never released. A thread outside any apartment cannot create it: it is
  // tried again on the next call.
  static std::atomic<::IGlobalInterfaceTable*> table{nullptr};
  ::IGlobalInterfaceTable* known = table.load();
  if (known != nullptr) return known;
  ::IGlobalInterfaceTable* created = nullptr;
  if (FAILED(CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER,
                              IID_IGlobalInterfaceTable, reinterpret_cast<void**>(&created)))) {
    return nullptr;
  }
  if (!table.compare_exchange_strong(known, created)) {
    created->Release();
    return known;
  }
  return created;
}

}  // namespace tsm::module
