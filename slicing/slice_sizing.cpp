// Slice sizing: the disclosed size, widened by a random amount of up to
// "Variance" percent, rounded down to the instrument's trading lot for the
// order's side.
#include <atomic>

#include "manager/text_pieces.h"
#include "manager/trade_slice_manager.h"
#include "slicing/command_format.h"

namespace tsm {

namespace {
// The state of the process's generator, as an unseeded C runtime starts it.
std::atomic<uint32_t> g_random_state{1};
}  // namespace

int CTradeSliceManager::DrawProcessRandom() {
  // The linear congruential step of the C runtime whose rand() yields 15
  // bits. glibc's rand() yields 31 bits, and the Windows C runtime keeps its
  // state per thread, so neither is used.
  uint32_t state = g_random_state.load(std::memory_order_relaxed);
  uint32_t next;
  do {
    next = state * 214013u + 2531011u;
  } while (!g_random_state.compare_exchange_weak(state, next, std::memory_order_relaxed));
  return static_cast<int>((next >> 16) & 0x7fffu);
}

int32_t CTradeSliceManager::ComputeSliceQty(CBaseData* parent, SliceReads* reads) {
  SliceReads own;
  if (reads == nullptr) reads = &own;
  CommandFields& read = reads->fields;
  const int32_t disclose = parent->GetLong(L"DiscloseQty", 0);
  const int32_t variance = parent->GetLong(L"Variance", 0);
  const int32_t r = random_();  // drawn on every call, also when it cannot matter
  // 32-bit wrapping product, truncating division.
  const int32_t spread =
      static_cast<int32_t>(static_cast<uint32_t>(disclose) * static_cast<uint32_t>(variance)) / 100;
  const int32_t modulus = static_cast<int32_t>(static_cast<uint32_t>(spread) + 1u);
  int32_t qty;
  if (modulus == 0) {
    // A spread of -1 (negative "Variance" or "DiscloseQty") leaves nothing to
    // draw from; the size is the disclosed size.
    LogFormat(L"ComputeSliceQty: spread -1 ignored, DiscloseQty=%ld, Variance=%ld", disclose,
              variance);
    qty = disclose;
  } else {
    qty = static_cast<int32_t>(static_cast<uint32_t>(disclose) + static_cast<uint32_t>(r % modulus));
  }

  // Lots apply only to security types whose code holds an "S".
  read.type = parent->GetString(L"SecurityType");
  reads->known |= SliceReads::kType;
  if (read.type.Find(L"S") < 0) return qty;
  read.symbol = parent->GetString(L"Symbol");
  reads->known |= SliceReads::kSymbol;
  const CString& symbol = read.symbol;
  Variant symbol_data = Variant::Text(symbol.wstr());
  SendTopic(L"MARZIPAN.REQUEST", 1, 0, L"STKINFO", &symbol_data);
  CBaseData* answer = GetTopicRecord(L"MARZIPAN.REQUEST", nullptr);
  if (answer == nullptr) return qty;
  const CString info = answer->GetString(symbol);
  if (info.IsEmpty()) {
    delete answer;
    return qty;
  }
  int32_t buy_lot = 0, sell_lot = 0;
  int pos = 0;
  int item = 0;
  const std::wstring_view items(info.wstr());
  for (std::wstring_view token = NextPiece(items, L'|', pos); pos != -1 && item < 4;
       token = NextPiece(items, L'|', pos)) {
    ++item;
    if (item == 2) buy_lot = WToL(token);
    if (item == 4) sell_lot = WToL(token);
  }
  read.side = parent->GetString(L"Side");
  reads->known |= SliceReads::kSide;
  const CString& side = read.side;
  int32_t lot;
  if (side == L"B" || side == L"1") {
    lot = buy_lot;
  } else {
    // Sells of "QX.S" symbols take the larger lot; every other sell takes the
    // sell lot, even when it is smaller.
    lot = (symbol.Find(L"QX.S") == 0 && buy_lot > sell_lot) ? buy_lot : sell_lot;
  }
  if (lot > 1) qty = (qty / lot) * lot;
  delete answer;
  return qty;
}

}  // namespace tsm
