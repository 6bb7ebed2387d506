// The open/close time check: is the order's security inside one of its
// trading sessions now (exchange time = UTC + the host's time offset)? When
// not, the order is parked with the time its next session opens.
#include "manager/trade_slice_manager.h"

namespace tsm {

CString SecurityKeyOf(const CString& symbol_id);

namespace {

// Appends `value` in decimal, as "%ld" prints it.
void AppendDecimal(std::wstring& out, int32_t value) {
  wchar_t digits[12];
  int n = 0;
  int64_t v = value;
  const bool negative = v < 0;
  if (negative) v = -v;
  do {
    digits[n++] = static_cast<wchar_t>(L'0' + v % 10);
    v /= 10;
  } while (v != 0);
  if (negative) out += L'-';
  while (n > 0) out += digits[--n];
}

// "CheckOpenCloseTime:%x, %ld, %ld, %ld ~ %ld", built without the formatter:
// every check writes it.
CString CheckLine(bool inside, int32_t now, int32_t next_open, int32_t open, int32_t close) {
  std::wstring line = inside ? L"CheckOpenCloseTime:1, " : L"CheckOpenCloseTime:0, ";
  line.reserve(64);
  AppendDecimal(line, now);
  line += L", ";
  AppendDecimal(line, next_open);
  line += L", ";
  AppendDecimal(line, open);
  line += L" ~ ";
  AppendDecimal(line, close);
  return CString(std::move(line));
}

// A session bound (HHMM) as HHMMSS. A bound with more digits than a time
// wraps in 32 bits, as the platform's arithmetic does, instead of
// overflowing a signed product.
int32_t AsHhmmss(int32_t hhmm) { return static_cast<int32_t>(static_cast<uint32_t>(hhmm) * 100u); }

}  // namespace

int32_t CTradeSliceManager::CheckOpenCloseTime(CBaseData* order, const CString& symbol_id) {
  InitSecurityInfo(symbol_id);
  std::tm tm{};
  int32_t now = 0;  // midnight when the time cannot be broken down
  if (clock_.ToUtc(clock_.UtcSeconds() + m_nTimeDiff, &tm)) now = (tm.tm_hour * 100 + tm.tm_min) * 100 + tm.tm_sec;

  const CString security_key = SecurityKeyOf(symbol_id);
  std::vector<stcOCTime> table;
  {
    ScopedLock<CCriticalSection> guard(m_csSessionTimes);
    void* slot = nullptr;
    if (m_mapSessionTimes.Lookup(security_key, slot)) table = *static_cast<std::vector<stcOCTime>*>(slot);
  }
  if (table.empty()) return 1;  // no known sessions: always open

  bool inside = false;
  int32_t next_open = 0;
  int32_t o = 0, c = 0;
  for (const stcOCTime& session : table) {
    o = AsHhmmss(session.nOpenTime);
    c = AsHhmmss(session.nCloseTime);
    if (o < c) {
      if (o > now) {
        if (next_open == 0) {
          next_open = o;
          continue;
        }
        if (next_open < c) break;
      } else if (now < c) {
        inside = true;
        break;
      }
    } else if (o > now) {
      if (now < c) {
        inside = true;
        break;
      }
      next_open = o;
    } else {
      if (now > c) {
        inside = true;
        break;
      }
      next_open = o;
    }
  }
  if (next_open == 0) next_open = AsHhmmss(table.front().nOpenTime);
  Log(CheckLine(inside, now, next_open, o, c));
  if (inside) return 1;

  auto* wait = new stcWaitOrder{order, next_open, order->GetString(L"LevelKey")};
  ScopedLock<CCriticalSection> guard(m_csWaitOpenOrders);
  void* earlier = nullptr;
  // An entry already parked under the key is replaced without being freed;
  // it is kept aside until the object goes.
  if (m_mapWaitOpenOrders.Lookup(wait->strLevelKey, earlier)) {
    m_arrReplacedWaits.push_back(static_cast<stcWaitOrder*>(earlier));
  }
  m_mapWaitOpenOrders.SetAt(wait->strLevelKey, wait);
  return 0;
}

}  // namespace tsm
