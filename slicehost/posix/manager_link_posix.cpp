// Without COM the factory export is the only way in.
#include "slicehost/manager_link.h"

namespace tsm::sim {

ManagerPath DefaultManagerPath() { return ManagerPath::Factory; }

INordaManager* CreateManager(IClock* clock, ManagerPath, std::string* problem) {
  INordaManager* manager = nullptr;
  if (TsmCreateTradeSliceManager(clock, &manager) != kS_OK || manager == nullptr) {
    *problem = "the component made no slice manager";
    return nullptr;
  }
  return manager;
}

}  // namespace tsm::sim
