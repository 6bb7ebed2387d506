#include "basedata/interface_table.h"

namespace tsm::basedata {

namespace {
InterfaceTable* g_table = nullptr;  // reachable for the life of the process
std::once_flag g_table_once;
}  // namespace

InterfaceTable& InterfaceTable::Instance() {
  std::call_once(g_table_once, [] { g_table = new InterfaceTable(); });
  return *g_table;
}

HResult InterfaceTable::RegisterInterfaceInGlobal(IBaseData* object, uint32_t* cookie) {
  if (cookie == nullptr) return kE_INVALIDARG;
  *cookie = 0;
  if (object == nullptr) return kE_INVALIDARG;
  object->AddRef();
  std::lock_guard<std::mutex> guard(lock_);
  // Skips 0 if the counter ever wraps; 0 means "no cookie" to every caller.
  do {
    ++last_cookie_;
  } while (last_cookie_ == 0 || entries_.count(last_cookie_) != 0);
  entries_.emplace(last_cookie_, object);
  *cookie = last_cookie_;
  return kS_OK;
}

HResult InterfaceTable::GetInterfaceFromGlobal(uint32_t cookie, IBaseData** object) {
  if (object == nullptr) return kE_INVALIDARG;
  *object = nullptr;
  std::lock_guard<std::mutex> guard(lock_);
  const auto it = entries_.find(cookie);
  if (it == entries_.end()) return kE_INVALIDARG;
  it->second->AddRef();
  *object = it->second;
  return kS_OK;
}

HResult InterfaceTable::RevokeInterfaceFromGlobal(uint32_t cookie) {
  IBaseData* object = nullptr;
  {
    std::lock_guard<std::mutex> guard(lock_);
    const auto it = entries_.find(cookie);
    if (it == entries_.end()) return kE_INVALIDARG;
    object = it->second;
    entries_.erase(it);
  }
  object->Release();
  return kS_OK;
}

}  // namespace tsm::basedata
