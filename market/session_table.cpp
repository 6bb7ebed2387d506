// Trading session tables: each security's sessions ("09:00~11:30;13:00~15:00")
// from the published security information or the vault lookup, parsed into a
// table sorted by open time. A security is initialised once; one whose lookup
// finds nothing is tried again on its next check.
#include <cstdlib>

#include <rapidjson/document.h>

#include "manager/trade_slice_manager.h"
#include "platform/system_text.h"

namespace tsm {

namespace {

// The first `parts` dot-separated parts of a symbol id joined with ".",
// empty parts skipped and missing ones empty: what tokenising and "%s.%s.%s"
// give, without the formatter on the path of every check.
CString KeyOf(const CString& symbol_id, int parts) {
  const std::wstring& id = symbol_id.wstr();
  std::wstring key;
  key.reserve(id.size() + static_cast<std::size_t>(parts));
  std::size_t pos = 0;
  for (int i = 0; i < parts; ++i) {
    if (i > 0) key += L'.';
    const std::size_t begin = id.find_first_not_of(L'.', pos);
    if (begin == std::wstring::npos) {
      pos = id.size();
      continue;
    }
    std::size_t end = id.find(L'.', begin);
    if (end == std::wstring::npos) end = id.size();
    key.append(id, begin, end - begin);
    pos = end;
  }
  return CString(std::move(key));
}

int CompareOpenTime(const void* a, const void* b) {
  const int32_t left = static_cast<const stcOCTime*>(a)->nOpenTime;
  const int32_t right = static_cast<const stcOCTime*>(b)->nOpenTime;
  return left < right ? -1 : (left > right ? 1 : 0);
}

stcOCTime ParseSession(const CString& text) {
  CString open, close;
  AfxExtractSubString(open, text, 0, L'~');
  AfxExtractSubString(close, text, 1, L'~');
  open.Remove(L':');
  close.Remove(L':');
  return {WToL(open.wstr()), WToL(close.wstr())};
}

// The session text of a filled document: the security's own "OpenCloseTime",
// else the product's.
template <typename Value, typename Iterator>
CString OpenCloseTimeOf(const Value& security, Iterator product, Iterator end) {
  CString text;
  if (security.IsObject()) {
    auto member = security.FindMember("OpenCloseTime");
    if (member != security.MemberEnd() && member->value.IsString()) {
      text = CString(FromSystemCodePage(std::string(member->value.GetString(), member->value.GetStringLength())));
    }
  }
  if (text.IsEmpty() && product != end && product->value.IsObject()) {
    auto member = product->value.FindMember("OpenCloseTime");
    if (member != product->value.MemberEnd() && member->value.IsString()) {
      // This one is read as UTF-8, the other through the code page: the two
      // conversions differ on purpose.
      text = CString::FromUtf8(std::string_view(member->value.GetString(), member->value.GetStringLength()));
    }
  }
  return text;
}

}  // namespace

CString SecurityKeyOf(const CString& symbol_id) { return KeyOf(symbol_id, 4); }
CString ProductKeyOf(const CString& symbol_id) { return KeyOf(symbol_id, 3); }

void CTradeSliceManager::InitSecurityInfo(const CString& symbol_id) {
  {
    ScopedLock<CMutex> guard(m_mutexRecords);
    if (m_pSecurityInfo == nullptr) return;
  }
  const CString security_key = SecurityKeyOf(symbol_id);
  // Each look at the ranges is locked on its own; see BuildSessionTable.
  auto initialised = [this, &security_key] {
    ScopedLock<CCriticalSection> guard(m_csSessionTimes);
    return m_mapSessionRange.Contains(security_key);
  };
  if (initialised()) return;
  const CString product_key = ProductKeyOf(symbol_id);
  CBaseData* entry;
  {
    ScopedLock<CMutex> guard(m_mutexRecords);
    entry = m_pSecurityInfo != nullptr ? m_pSecurityInfo->GetChild(product_key, nullptr) : nullptr;
  }
  rapidjson::Document document;
  GetInfoFromVaultDb(product_key, security_key, entry, &document);

  if (document.IsNull() || document.HasParseError()) {
    if (entry == nullptr) {
      LogFormat(L"InitSecurityInfo fail:%s", product_key);
      return;
    }
    if (!initialised()) {
      CString text = entry->GetJsonString(security_key, L"OpenCloseTime");
      if (text.IsEmpty()) text = entry->GetJsonString(product_key, L"OpenCloseTime");
      if (text.IsEmpty()) text = entry->GetJsonString(security_key, L"TradeTime");
      if (text.IsEmpty()) text = entry->GetJsonString(product_key, L"TradeTime");
      if (!text.IsEmpty()) BuildSessionTable(security_key, text);
    }
    delete entry;
    return;
  }

  delete entry;
  const std::string narrow_security = ToSystemCodePage(security_key.wstr());
  const std::string narrow_product = ToSystemCodePage(product_key.wstr());
  if (!document.IsObject()) {
    // A root that is not an object has no members to look up.
    LogFormat(L"InitSecurityInfo document is not an object:%s", security_key);
    return;
  }
  auto security = document.FindMember(narrow_security.c_str());
  // No fall-back to the product key when the security is absent: deliberate.
  if (security == document.MemberEnd()) return;
  // A security another thread initialised meanwhile gets no text here, but
  // the line below is written in every case.
  CString text;
  if (!initialised()) {
    text = OpenCloseTimeOf(security->value, document.FindMember(narrow_product.c_str()), document.MemberEnd());
  }
  LogFormat(L"OpenCloseTime:%s, %s.", security_key, text);
  if (!text.IsEmpty()) BuildSessionTable(security_key, text);
}

void CTradeSliceManager::BuildSessionTable(const CString& security_key, const CString& text) {
  std::vector<stcOCTime> table;
  CString range;
  if (text.Find(L';') < 0) {
    table.push_back(ParseSession(text));
    range = text;
  } else {
    CString first, last;
    int pos = 0;
    for (CString token = text.Tokenize(L";", pos); pos != -1; token = text.Tokenize(L";", pos)) {
      table.push_back(ParseSession(token));
      if (first.IsEmpty()) first = token;
      last = token;
    }
    // The range pieces are tokenised (empty pieces skipped), unlike the
    // entries; the difference is kept.
    int first_pos = 0, last_pos = 0;
    const CString open = first.Tokenize(L"~", first_pos);
    CString close = last.Tokenize(L"~", last_pos);
    close = last.Tokenize(L"~", last_pos);
    range = CString::Formatted(L"%s~%s", open, close);
  }
  {
    // Stored on its own: the test and the store are not one step, so two
    // threads may build the same table; the last copy wins.
    ScopedLock<CCriticalSection> guard(m_csSessionTimes);
    m_mapSessionRange.SetAt(security_key, range);
  }
  if (table.size() > 1) std::qsort(table.data(), table.size(), sizeof(stcOCTime), &CompareOpenTime);
  ScopedLock<CCriticalSection> guard(m_csSessionTimes);
  void* slot = nullptr;
  if (!m_mapSessionTimes.Lookup(security_key, slot)) {
    slot = new std::vector<stcOCTime>();
    m_mapSessionTimes.SetAt(security_key, slot);
  }
  *static_cast<std::vector<stcOCTime>*>(slot) = table;
}

}  // namespace tsm
