#include "slicing/command_format.h"

#include <algorithm>
#include <climits>
#include <utility>
#include <string>
#include <string_view>

#include "data/base_data.h"
#include "manager/log_line.h"

namespace tsm {

namespace {

constexpr int32_t kUnset32 = INT32_MIN;
constexpr int64_t kUnset64 = INT64_MIN;

constexpr const wchar_t* kTemplateA =
    L"TYPE=%s,BROKERID=%s,ACCOUNT=%s,SYMBOL=%s,SYMBOLA=%s,SYMBOLB=%s,SIDE=%s,SIDE1=%s,SIDE2=%s,QTY=%d,"
    L"PRICE=%I64d,PRICESTRING=%s,STOPPRICE=%I64d,STOPPRICESTRING=%s,TRAILINGFIELD=%d,TRAILINGTYPE=%d,"
    L"TRAILINGAMOUNT=%I64d,TOUCHPRICE=%I64d,TOUCHPRICESTRING=%s,TOUCHFIELD=%d,TOUCHCONDITION=%d,ORDERTYPE=%d,"
    L"POSITIONEFFECT=%d,TIMEINFORCE=%d,SYNTHETIC=%d,GROUPTYPE=%d,GROUPID=%s,GROUPMASTER=%ld,CHASEPRICE=%s,"
    L"SPREAD=%d,STRATEGY=%s,USERKEY1=%s,USERKEY2=%s,USERKEY3=%s,SlicedID=%s,SlicedPriceField=%ld,"
    L"SlicedTicks=%ld,ExtCommands=%s,Consecutive=%d,NumberOfRetries=%d,RetryInterval=%d,ContingentSymbol=%s,"
    L"GroupPrefix=%s,OriLevelKey=%s,SpreadID=%s,Sliced=1";

constexpr const wchar_t* kTemplateB =
    L"TYPE=%s,BROKERID=%s,ACCOUNT=%s,SYMBOL=%s,SYMBOLA=%s,SYMBOLB=%s,SIDE=%s,SIDE1=%s,SIDE2=%s,QTY=%d,"
    L"PRICE=%I64d,PRICESTRING=%s,STOPPRICE=%I64d,STOPPRICESTRING=%s,TRAILINGFIELD=%d,TRAILINGTYPE=%d,"
    L"TRAILINGAMOUNT=%I64d,TOUCHPRICE=%I64d,TOUCHPRICESTRING=%s,TOUCHFIELD=%d,TOUCHCONDITION=%d,ORDERTYPE=%d,"
    L"POSITIONEFFECT=%d,TIMEINFORCE=%d,SYNTHETIC=%d,GROUPTYPE=%d,GROUPID=%s,CHASEPRICE=%s,"
    L"SPREAD=%d,STRATEGY=%s,USERKEY1=%s,USERKEY2=%s,USERKEY3=%s,SlicedID=%s,SlicedPriceField=%ld,"
    L"SlicedTicks=%ld,ExtCommands=%s,Consecutive=%d,NumberOfRetries=%d,RetryInterval=%d,SlicedType=4,"
    L"DiscloseQty=0,ContingentSymbol=%s,GroupPrefix=%s,OriLevelKey=%s,SpreadID=%s,Sliced=1";

}  // namespace

CommandFields GatherCommandFields(CBaseData& parent) {
  SliceReads reads;
  GatherCommandFields(parent, reads);
  return std::move(reads.fields);
}

void GatherCommandFields(CBaseData& r, SliceReads& reads) {
  CommandFields& f = reads.fields;
  const auto unread = [&reads](SliceReads::Field field) { return (reads.known & field) == 0; };
  if (unread(SliceReads::kType)) f.type = r.GetString(L"SecurityType");
  f.broker_id = r.GetString(L"BrokerID");
  f.account = r.GetString(L"Account");
  if (unread(SliceReads::kSymbol)) f.symbol = r.GetString(L"Symbol");
  f.symbol_a = r.GetString(L"SymbolA");
  f.symbol_b = r.GetString(L"SymbolB");
  if (unread(SliceReads::kSide)) f.side = r.GetString(L"Side");
  f.side1 = r.GetString(L"Side1");
  f.side2 = r.GetString(L"Side2");
  f.price = r.GetInt64(L"Price", kUnset64);
  f.price_string = r.GetString(L"PriceString");
  f.stop_price = r.GetInt64(L"StopPrice", kUnset64);
  f.stop_price_string = r.GetString(L"StopPriceString");
  f.trailing_field = r.GetLong(L"TrailingField", kUnset32);
  f.trailing_type = r.GetLong(L"TrailingType", kUnset32);
  f.trailing_amount = r.GetInt64(L"TrailingAmount", kUnset64);
  f.touch_price = r.GetInt64(L"TouchPrice", kUnset64);
  f.touch_price_string = r.GetString(L"TouchPriceString");
  f.touch_field = r.GetLong(L"TouchField", kUnset32);
  f.touch_condition = r.GetLong(L"TouchCondition", kUnset32);
  f.order_type = r.GetLong(L"OrderType", kUnset32);
  f.position_effect = r.GetLong(L"PositionEffect", kUnset32);
  f.time_in_force = r.GetLong(L"OriTimeInForce", kUnset32);
  if (f.time_in_force < 1) f.time_in_force = r.GetLong(L"TimeInForce", kUnset32);
  f.synthetic = r.GetLong(L"Synthetic", kUnset32);
  if (unread(SliceReads::kGroupType)) f.group_type = r.GetLong(L"GroupType", kUnset32);
  if (unread(SliceReads::kGroupId)) f.group_id = r.GetString(L"GroupID");
  f.chase_price = r.GetString(L"ChasePrice");
  f.spread = r.GetLong(L"SpreadType", kUnset32);
  f.strategy = r.GetString(L"Strategy");
  f.user_key1 = r.GetString(L"UserKey1");
  f.user_key2 = r.GetString(L"UserKey2");
  f.user_key3 = r.GetString(L"UserKey3");
  if (unread(SliceReads::kSlicedId)) f.sliced_id = r.GetString(L"SliceID");
  f.sliced_price_field = r.GetLong(L"SlicedPriceField", 0);
  f.sliced_ticks = r.GetLong(L"SlicedTicks", 0);
  f.ext_commands =
      NormaliseExtCommands(r.GetString(L"ExtCommands"), r.GetLong(L"FitOrdFreq", 0), r.GetLong(L"FlowControl", 0));
  f.consecutive = r.GetLong(L"Consecutive", 0);
  if (f.consecutive == 1) {
    f.number_of_retries = r.GetLong(L"NumberOfRetries", -1);
    f.retry_interval = r.GetLong(L"RetryInterval", -1);
  }
  f.contingent_symbol = r.GetString(L"ContingentSymbol");
  f.group_prefix = r.GetString(L"GroupPrefix");
  if (unread(SliceReads::kOriLevelKey)) {
    f.ori_level_key = r.GetString(L"OriLevelKey");
    if (f.ori_level_key.IsEmpty()) f.ori_level_key = r.GetString(L"LevelKey");
  }
  f.spread_id = r.GetString(L"SpreadID");
  reads.known = ~0u;
}

namespace {

// The command written piece by piece into one string sized up front to a
// length it cannot outgrow: the same text as the template formatted with
// CString::Format, without reading the template for every child.
class CommandWriter {
 public:
  explicit CommandWriter(std::size_t capacity) : text_(capacity, L'\0'), at_(text_.data()) {}
  CommandWriter(const CommandWriter&) = delete;
  CommandWriter& operator=(const CommandWriter&) = delete;

  // Keys are literals: their lengths are known here, so their copies are
  // fixed-size moves.
  template <std::size_t N>
  void Text(const wchar_t (&key)[N], const CString& value) {
    at_ = std::copy(key, key + N - 1, at_);
    at_ = std::copy(value.wstr().begin(), value.wstr().end(), at_);
  }
  template <std::size_t N>
  void Number(const wchar_t (&key)[N], int64_t value) {
    at_ = std::copy(key, key + N - 1, at_);
    at_ = WriteDecimal(at_, value);
  }
  template <std::size_t N>
  void Fixed(const wchar_t (&pairs)[N]) {
    at_ = std::copy(pairs, pairs + N - 1, at_);
  }
  CString Take() {
    text_.resize(static_cast<std::size_t>(at_ - text_.data()));
    return CString(std::move(text_));
  }

 private:
  std::wstring text_;
  wchar_t* at_;  // where the next piece goes
};

// Every number of a template, and the longest template text: with the
// values' texts, no command is longer than that and one decimal per number.
constexpr std::size_t kCommandNumbers = 20;
constexpr std::size_t kTemplateLength = std::char_traits<wchar_t>::length(kTemplateB);
static_assert(kTemplateLength >= std::char_traits<wchar_t>::length(kTemplateA));

}  // namespace

CString FormatCommand(CommandTemplate which, const CommandFields& f) {
  const bool a = which == CommandTemplate::kA;
  std::size_t texts = 0;
  for (const CString* t : {&f.type, &f.broker_id, &f.account, &f.symbol, &f.symbol_a, &f.symbol_b, &f.side,
                           &f.side1, &f.side2, &f.price_string, &f.stop_price_string, &f.touch_price_string,
                           &f.group_id, &f.chase_price, &f.strategy, &f.user_key1, &f.user_key2, &f.user_key3,
                           &f.sliced_id, &f.ext_commands, &f.contingent_symbol, &f.group_prefix, &f.ori_level_key,
                           &f.spread_id}) {
    texts += static_cast<std::size_t>(t->GetLength());
  }
  CommandWriter w(kTemplateLength + kCommandNumbers * kDecimalMax + texts);
  w.Text(L"TYPE=", f.type);
  w.Text(L",BROKERID=", f.broker_id);
  w.Text(L",ACCOUNT=", f.account);
  w.Text(L",SYMBOL=", f.symbol);
  w.Text(L",SYMBOLA=", f.symbol_a);
  w.Text(L",SYMBOLB=", f.symbol_b);
  w.Text(L",SIDE=", f.side);
  w.Text(L",SIDE1=", f.side1);
  w.Text(L",SIDE2=", f.side2);
  w.Number(L",QTY=", f.qty);
  w.Number(L",PRICE=", f.price);
  w.Text(L",PRICESTRING=", f.price_string);
  w.Number(L",STOPPRICE=", f.stop_price);
  w.Text(L",STOPPRICESTRING=", f.stop_price_string);
  w.Number(L",TRAILINGFIELD=", f.trailing_field);
  w.Number(L",TRAILINGTYPE=", f.trailing_type);
  w.Number(L",TRAILINGAMOUNT=", f.trailing_amount);
  w.Number(L",TOUCHPRICE=", f.touch_price);
  w.Text(L",TOUCHPRICESTRING=", f.touch_price_string);
  w.Number(L",TOUCHFIELD=", f.touch_field);
  w.Number(L",TOUCHCONDITION=", f.touch_condition);
  w.Number(L",ORDERTYPE=", f.order_type);
  w.Number(L",POSITIONEFFECT=", f.position_effect);
  w.Number(L",TIMEINFORCE=", f.time_in_force);
  w.Number(L",SYNTHETIC=", f.synthetic);
  w.Number(L",GROUPTYPE=", f.group_type);
  w.Text(L",GROUPID=", f.group_id);
  if (a) w.Fixed(L",GROUPMASTER=0");
  w.Text(L",CHASEPRICE=", f.chase_price);
  w.Number(L",SPREAD=", f.spread);
  w.Text(L",STRATEGY=", f.strategy);
  w.Text(L",USERKEY1=", f.user_key1);
  w.Text(L",USERKEY2=", f.user_key2);
  w.Text(L",USERKEY3=", f.user_key3);
  w.Text(L",SlicedID=", f.sliced_id);
  w.Number(L",SlicedPriceField=", f.sliced_price_field);
  w.Number(L",SlicedTicks=", f.sliced_ticks);
  w.Text(L",ExtCommands=", f.ext_commands);
  w.Number(L",Consecutive=", f.consecutive);
  w.Number(L",NumberOfRetries=", f.number_of_retries);
  w.Number(L",RetryInterval=", f.retry_interval);
  if (!a) w.Fixed(L",SlicedType=4,DiscloseQty=0");
  w.Text(L",ContingentSymbol=", f.contingent_symbol);
  w.Text(L",GroupPrefix=", f.group_prefix);
  w.Text(L",OriLevelKey=", f.ori_level_key);
  w.Text(L",SpreadID=", f.spread_id);
  w.Fixed(L",Sliced=1");
  return w.Take();
}

const wchar_t* CommandTemplateText(CommandTemplate which) {
  return which == CommandTemplate::kA ? kTemplateA : kTemplateB;
}

CString NormaliseExtCommands(const CString& ext_commands, int32_t fit_ord_freq, int32_t flow_control) {
  CString result;
  int pos = 0;
  for (CString item = ext_commands.Tokenize(L";", pos); pos != -1; item = ext_commands.Tokenize(L";", pos)) {
    const int equals = item.Find(L'=');
    if (equals < 0) continue;
    CString key = item.Left(equals);
    CString value = item.Mid(equals + 1);
    key.Trim();
    value.Trim();
    if (key.CompareNoCase(L"CancelCloseWorking") == 0) continue;
    if (result.IsEmpty()) {
      result = CString::Formatted(L"%s=%s", key, value);
    } else {
      result = CString::Formatted(L"%s;%s=%s", result, key, value);
    }
  }
  // The flag is read as "FitOrdFreq" but written and searched for as
  // "FitOrderFreq"; hosts rely on both spellings.
  if (fit_ord_freq == 1 && result.Find(L"FitOrderFreq") < 0) result = CString::Formatted(L"FitOrderFreq=1;%s", result);
  if (flow_control == 1 && result.Find(L"FlowControl") < 0) result = CString::Formatted(L"FlowControl=1;%s", result);
  return result;
}

CString ExtractSlicedId(const CString& command) {
  const int at = command.Find(L"SlicedID=");
  if (at < 0) return CString();
  const int begin = at + 9;
  const int end = command.Find(L',', begin);
  if (end < 0) return CString();
  return command.Mid(begin, end - begin);
}

CString DerivedGroupId(const CString& group_id, int32_t number) {
  return CString::Formatted(L"%s-#-Sliced-#-%ld", group_id, number);
}

}  // namespace tsm
