// The plain factory export through which a host creates the manager where
// there is no COM class registration.
#include <new>

#include "manager/trade_slice_manager.h"
#include "tradeslice/host_api.h"

extern "C" TSM_COMPONENT_API tsm::HResult TsmCreateTradeSliceManager(tsm::IClock* clock,
                                                                      tsm::INordaManager** manager) {
  if (manager == nullptr) return tsm::kE_INVALIDARG;
  *manager = nullptr;
  auto* object = new (std::nothrow) tsm::CTradeSliceManager(clock);
  if (object == nullptr) return tsm::kE_OUTOFMEMORY;
  object->AddRef();
  *manager = object;
  return tsm::kS_OK;
}
