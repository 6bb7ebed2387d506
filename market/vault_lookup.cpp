// The vault lookup: asks the host's database service for a security's
// trading hours when the published security information lacks them. The host
// fills a JSON document owned by the caller, by address, during the request.
#include "manager/trade_slice_manager.h"

namespace tsm {

void CTradeSliceManager::GetInfoFromVaultDb(const CString& product_key, const CString& request, CBaseData*& entry,
                                            void* document) {
  {
    // Stage 2 sets the mode under the same lock, possibly while a timer checks.
    ScopedLock<CMutex> guard(m_mutexRecords);
    if (m_nVaultMode != 1) return;
  }
  if (entry != nullptr) {
    Log(L"GetInfoFromVaultDb not null:" + product_key);
    return;
  }
  Variant address = Variant::I8(static_cast<int64_t>(reinterpret_cast<intptr_t>(document)));
  Variant answer = SendTopic(L"MARZIPAN.REQUEST", 1, 64, request, &address);
  {
    ScopedLock<CMutex> guard(m_mutexRecords);
    entry = m_pSecurityInfo != nullptr ? m_pSecurityInfo->GetChild(product_key, nullptr) : nullptr;
  }
  // The line is written for the answer "TRUE" (and for an answer that is not
  // text); the inverted sense is kept as it stands.
  if (answer.type() == VarType::BStr && answer.text() != L"TRUE") return;
  Log(L"GetInfoFromVaultDb:false");
}

}  // namespace tsm
