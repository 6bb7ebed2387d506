#include "slicing/command_format.h"

#include <climits>

#include "data/base_data.h"

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

CommandFields GatherCommandFields(CBaseData& r) {
  CommandFields f;
  f.type = r.GetString(L"SecurityType");
  f.broker_id = r.GetString(L"BrokerID");
  f.account = r.GetString(L"Account");
  f.symbol = r.GetString(L"Symbol");
  f.symbol_a = r.GetString(L"SymbolA");
  f.symbol_b = r.GetString(L"SymbolB");
  f.side = r.GetString(L"Side");
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
  f.group_type = r.GetLong(L"GroupType", kUnset32);
  f.group_id = r.GetString(L"GroupID");
  f.chase_price = r.GetString(L"ChasePrice");
  f.spread = r.GetLong(L"SpreadType", kUnset32);
  f.strategy = r.GetString(L"Strategy");
  f.user_key1 = r.GetString(L"UserKey1");
  f.user_key2 = r.GetString(L"UserKey2");
  f.user_key3 = r.GetString(L"UserKey3");
  f.sliced_id = r.GetString(L"SliceID");
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
  f.ori_level_key = r.GetString(L"OriLevelKey");
  if (f.ori_level_key.IsEmpty()) f.ori_level_key = r.GetString(L"LevelKey");
  f.spread_id = r.GetString(L"SpreadID");
  return f;
}

CString FormatCommand(CommandTemplate which, const CommandFields& f) {
  // Read once for the process: every child's command is made from them.
  static const PreparedFormat template_a(kTemplateA);
  static const PreparedFormat template_b(kTemplateB);
  if (which == CommandTemplate::kA) {
    return template_a(
        f.type, f.broker_id, f.account, f.symbol, f.symbol_a, f.symbol_b, f.side, f.side1, f.side2, f.qty,
        f.price, f.price_string, f.stop_price, f.stop_price_string, f.trailing_field, f.trailing_type,
        f.trailing_amount, f.touch_price, f.touch_price_string, f.touch_field, f.touch_condition, f.order_type,
        f.position_effect, f.time_in_force, f.synthetic, f.group_type, f.group_id, 0, f.chase_price, f.spread,
        f.strategy, f.user_key1, f.user_key2, f.user_key3, f.sliced_id, f.sliced_price_field, f.sliced_ticks,
        f.ext_commands, f.consecutive, f.number_of_retries, f.retry_interval, f.contingent_symbol, f.group_prefix,
        f.ori_level_key, f.spread_id);
  }
  return template_b(
      f.type, f.broker_id, f.account, f.symbol, f.symbol_a, f.symbol_b, f.side, f.side1, f.side2, f.qty,
      f.price, f.price_string, f.stop_price, f.stop_price_string, f.trailing_field, f.trailing_type,
      f.trailing_amount, f.touch_price, f.touch_price_string, f.touch_field, f.touch_condition, f.order_type,
      f.position_effect, f.time_in_force, f.synthetic, f.group_type, f.group_id, f.chase_price, f.spread, f.strategy,
      f.user_key1, f.user_key2, f.user_key3, f.sliced_id, f.sliced_price_field, f.sliced_ticks, f.ext_commands,
      f.consecutive, f.number_of_retries, f.retry_interval, f.contingent_symbol, f.group_prefix, f.ori_level_key,
      f.spread_id);
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
