// The process-wide interface table: 32-bit cookies (never 0, increasing) for
// objects that cross threads. Registration keeps a reference until the cookie
// is revoked; Get hands out a new reference each time.
//
// Threading: every method may be called from any thread. References are
// released outside the table's lock, so an object whose last reference goes
// with a revoke may revoke cookies of its own (its children) as it dies.
#pragma once

#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "tradeslice/base_data_api.h"

namespace tsm::basedata {

class InterfaceTable final : public IGlobalInterfaceTable {
 public:
  // The one table of the process; never destroyed.
  static InterfaceTable& Instance();

  InterfaceTable() = default;
  InterfaceTable(const InterfaceTable&) = delete;
  InterfaceTable& operator=(const InterfaceTable&) = delete;

  HResult RegisterInterfaceInGlobal(IBaseData* object, uint32_t* cookie) override;
  HResult GetInterfaceFromGlobal(uint32_t cookie, IBaseData** object) override;
  HResult RevokeInterfaceFromGlobal(uint32_t cookie) override;

 private:
  std::mutex lock_;  // guards entries_ and last_cookie_
  std::unordered_map<uint32_t, IBaseData*> entries_;  // each holds a reference
  uint32_t last_cookie_ = 0;
};

}  // namespace tsm::basedata
