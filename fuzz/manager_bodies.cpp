// The targets that need a slice manager: the session table, the security
// information with its lots, the vault document and the JSON member read. One
// manager serves them all, started once, on a virtual clock that never moves.
#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <rapidjson/document.h>

#include "data/base_data.h"
#include "fuzz/fuzz_bodies.h"
#include "fuzz/fuzz_input.h"
#include "testing/manager_fixture.h"

namespace tsm {
// The four-part key of a symbol id (market/session_table.cpp).
CString SecurityKeyOf(const CString& symbol_id);
}  // namespace tsm

namespace tsm::fuzz {

namespace {

int32_t g_draw = 0;  // what the manager's random source gives next
int Draw() { return g_draw; }

struct ManagerEnv {
  VirtualClock clock{kDefaultStartUtcMs};
  sim::SimHost host{clock};
  CTradeSliceManager* manager;
  CTradeSliceManagerPeer peer;
  uint32_t sink = 0;
  IBaseData* order;       // the parent order of slice sizing and the parked order of the check
  std::unique_ptr<CBaseData> order_handle;
  IBaseData* json;        // the record whose field GetJsonString reads
  std::unique_ptr<CBaseData> json_handle;

  ManagerEnv() : manager(new CTradeSliceManager(&clock)), peer(manager) {
    host.SetKeepEvents(false);  // thousands of inputs: nothing reads them
    manager->AddRef();
    manager->Advise(&host, &sink);
    manager->SetRandomSourceForTesting(&Draw);
    clock.AddQuiescer([] { TsmWaitEventsDelivered(); });
    sim::SimHost::Write(host.Topic(L"Security.Info"), {{L"VAULT", Variant::I4(1)}});
    manager->SetStage(1, 1);
    manager->SetStage(1, 2);
    order = sim::SimHost::NewRecord(L"order", {{L"LevelKey", Variant::Text(L"FUZZ")}});
    order_handle.reset(CBaseData::FromCookie(host.Publish(order), nullptr, &clock));
    json = sim::SimHost::NewRecord(L"json");
    json_handle.reset(CBaseData::FromCookie(host.Publish(json), nullptr, &clock));
  }
};

// Made on first use and kept for the process: the fuzzer never ends cleanly.
ManagerEnv& Env() {
  static ManagerEnv* env = new ManagerEnv();
  return *env;
}

const std::wstring kSecurityKey = L"QX.S.TW.2330";

// Forgets the security's sessions, so that the next look-up starts afresh.
void ForgetSecurity(ManagerEnv& env, const CString& security_key) {
  ScopedLock<CCriticalSection> guard(env.peer.SessionTimesLock());
  env.peer.SessionRange().RemoveKey(security_key);
  void* table = nullptr;
  if (env.peer.SessionTimes().Lookup(security_key, table)) {
    delete static_cast<std::vector<stcOCTime>*>(table);
    env.peer.SessionTimes().RemoveKey(security_key);
  }
}

std::vector<stcOCTime> TableOf(ManagerEnv& env, const CString& security_key) {
  ScopedLock<CCriticalSection> guard(env.peer.SessionTimesLock());
  void* table = nullptr;
  if (!env.peer.SessionTimes().Lookup(security_key, table)) return {};
  return *static_cast<std::vector<stcOCTime>*>(table);
}

bool SortedByOpen(const std::vector<stcOCTime>& table) {
  for (std::size_t i = 1; i < table.size(); ++i) {
    if (table[i - 1].nOpenTime > table[i].nOpenTime) return false;
  }
  return true;
}

// One session as a plain reading gives it: the pieces before and after the
// first "~" (empty when missing), colons dropped, as decimal numbers.
stcOCTime PlainSession(const std::wstring& text) {
  const std::size_t tilde = text.find(L'~');
  std::wstring open = text.substr(0, tilde);
  std::wstring close;
  if (tilde != std::wstring::npos) close = text.substr(tilde + 1, text.find(L'~', tilde + 1) - tilde - 1);
  open.erase(std::remove(open.begin(), open.end(), L':'), open.end());
  close.erase(std::remove(close.begin(), close.end(), L':'), close.end());
  return {WToL(open), WToL(close)};
}

std::vector<stcOCTime> PlainTable(const std::wstring& text) {
  std::vector<stcOCTime> table;
  if (text.find(L';') == std::wstring::npos) return {PlainSession(text)};
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(L';', start);
    if (end == std::wstring::npos) end = text.size();
    if (end > start) table.push_back(PlainSession(text.substr(start, end - start)));
    start = end + 1;
  }
  return table;
}

bool SameSessions(std::vector<stcOCTime> a, std::vector<stcOCTime> b) {
  auto order = [](const stcOCTime& x, const stcOCTime& y) {
    return x.nOpenTime != y.nOpenTime ? x.nOpenTime < y.nOpenTime : x.nCloseTime < y.nCloseTime;
  };
  std::sort(a.begin(), a.end(), order);
  std::sort(b.begin(), b.end(), order);
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].nOpenTime != b[i].nOpenTime || a[i].nCloseTime != b[i].nCloseTime) return false;
  }
  return true;
}

// The "|"-separated items, empty ones skipped.
std::vector<std::wstring> Items(const std::wstring& text) {
  std::vector<std::wstring> items;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(L'|', start);
    if (end == std::wstring::npos) end = text.size();
    if (end > start) items.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return items;
}

}  // namespace

std::string FuzzSessionTable(const uint8_t* data, std::size_t size) {
  ManagerEnv& env = Env();
  FuzzInput in(data, size);
  const int32_t offset_s = static_cast<int32_t>(in.U32() % 86400);
  const std::wstring text = WideFromUtf8(in.Rest());
  const CString key(kSecurityKey);
  ForgetSecurity(env, key);
  env.manager->BuildSessionTable(key, text);
  const std::vector<stcOCTime> table = TableOf(env, key);
  if (!SortedByOpen(table)) return "the session table is not sorted by open time";
  if (!SameSessions(table, PlainTable(text))) return "the session table differs from the sessions of the text";
  CString range;
  {
    ScopedLock<CCriticalSection> guard(env.peer.SessionTimesLock());
    if (!env.peer.SessionRange().Lookup(key, range)) return "no range stored for the security";
  }
  // The check scans the table at a time of day the input chooses; an order
  // it parks is taken out again (the entry is this body's).
  env.peer.TimeDiff() = offset_s;
  const int32_t open = env.manager->CheckOpenCloseTime(env.order_handle.get(), key);
  void* parked = nullptr;
  if (env.peer.WaitOpenOrders().Lookup(CString(L"FUZZ"), parked)) {
    env.peer.WaitOpenOrders().RemoveKey(CString(L"FUZZ"));
    delete static_cast<stcWaitOrder*>(parked);
    if (open != 0) return "an order found open was parked";
  } else if (open != 1 && !table.empty()) {
    return "an order found closed was not parked";
  }
  return {};
}

std::string FuzzSecurityInfo(const uint8_t* data, std::size_t size) {
  ManagerEnv& env = Env();
  FuzzInput in(data, size);
  const int32_t disclose = in.I32();
  const int32_t variance = in.I32();
  g_draw = static_cast<int32_t>(in.U32() % 32768);
  const std::wstring security_type = in.Pick({L"S", L"STK", L"FUT", L"", L"s"}, false);
  const std::wstring side = in.Pick({L"B", L"1", L"S", L"b", L"2", L""}, false);
  const std::wstring symbol = in.Pick({L"QX.S.TW.2330", L"QX.F.TW.TXF", L"QX.S", L""}, true);
  const std::wstring info = WideFromUtf8(in.Rest());
  env.host.SetSecurityText(symbol, info);
  sim::SimHost::Write(env.order, {{L"DiscloseQty", Variant::I4(disclose)},
                                  {L"Variance", Variant::I4(variance)},
                                  {L"SecurityType", Variant::Text(security_type)},
                                  {L"Side", Variant::Text(side)},
                                  {L"Symbol", Variant::Text(symbol)}});
  const int32_t qty = env.manager->ComputeSliceQty(env.order_handle.get());

  // The rule worked through on its own, with the lots taken by a plain split.
  const int32_t spread = static_cast<int32_t>(static_cast<uint32_t>(disclose) * static_cast<uint32_t>(variance)) / 100;
  const int32_t modulus = static_cast<int32_t>(static_cast<uint32_t>(spread) + 1u);
  int32_t want = disclose;
  if (modulus != 0) want = static_cast<int32_t>(static_cast<uint32_t>(disclose) + static_cast<uint32_t>(g_draw % modulus));
  if (security_type.find(L'S') != std::wstring::npos && !info.empty()) {
    // The host keeps the text under the symbol as a field name; a field
    // without a name holds nothing.
    if (symbol.empty()) return {};
    const std::vector<std::wstring> items = Items(info);
    const int32_t buy = items.size() > 1 ? WToL(items[1]) : 0;
    const int32_t sell = items.size() > 3 ? WToL(items[3]) : 0;
    int32_t lot = sell;
    if (side == L"B" || side == L"1" || (symbol.rfind(L"QX.S", 0) == 0 && buy > sell)) lot = buy;
    if (lot > 1) want = (want / lot) * lot;
  }
  if (qty != want) return "slice quantity " + std::to_string(qty) + ", the rule gives " + std::to_string(want);
  return {};
}

std::string FuzzVaultDocument(const uint8_t* data, std::size_t size) {
  ManagerEnv& env = Env();
  FuzzInput in(data, size);
  const std::wstring symbol = in.Pick({kSecurityKey, L"QX.S.TW", L"QX..S.TW.2330.X"}, false);
  const std::wstring answer = in.Pick({L"TRUE", L"FALSE", L""}, false);
  const std::string json(in.Rest());
  env.host.SetVaultAnswer(json, answer);
  const CString key = SecurityKeyOf(CString(symbol));
  ForgetSecurity(env, key);
  env.manager->InitSecurityInfo(symbol);
  const std::vector<stcOCTime> table = TableOf(env, key);
  if (!SortedByOpen(table)) return "the session table is not sorted by open time";
  return {};
}

std::string FuzzJsonMember(const uint8_t* data, std::size_t size) {
  ManagerEnv& env = Env();
  FuzzInput in(data, size);
  const std::wstring member = in.Pick({L"OpenCloseTime", L"TradeTime", L""}, true);
  const uint8_t kind = in.Byte() % 3;  // 0: text, 1: VT_I4, 2: VT_I8
  const std::wstring text = WideFromUtf8(in.Rest());
  Variant value = Variant::Text(text);
  if (kind == 1) value = Variant::I4(static_cast<int32_t>(text.size()));
  if (kind == 2) value = Variant::I8(static_cast<int64_t>(text.size()) << 40);
  sim::SimHost::Write(env.json, {{L"F", value}});
  const CString found = env.json_handle->GetJsonString(L"F", member);
  if (kind != 0) return found.IsEmpty() ? std::string() : "a number field gave a member";

  // The same text read by the iterative parser, which gives the same tree.
  using Json16 = rapidjson::GenericDocument<rapidjson::UTF16<char16_t>>;
  const std::u16string text16 = Utf16FromWide(text);
  Json16 document;
  document.Parse<rapidjson::kParseIterativeFlag>(text16.c_str());
  std::wstring want;
  if (!document.HasParseError() && document.IsObject()) {
    const std::u16string name = Utf16FromWide(member);
    const auto it = document.FindMember(Json16::ValueType(rapidjson::StringRef(name.c_str(), name.size())));
    if (it != document.MemberEnd() && it->value.IsString()) {
      want = WideFromUtf16(std::u16string_view(it->value.GetString(), it->value.GetStringLength()));
    }
  }
  // Deeper than it follows, GetJsonString reads nothing.
  if (found.IsEmpty() && JsonNestedDeeperThan(text16, kJsonMaxDepth)) return {};
  if (found.wstr() != want) return "GetJsonString differs from the plain reading of the document";
  return {};
}

}  // namespace tsm::fuzz
