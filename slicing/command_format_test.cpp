#include "slicing/command_format.h"

#include <cstdint>
#include <string>

#include "testing/manager_fixture.h"

namespace tsm {
namespace {

// A record in which every field the command reads is present.
sim::FieldList EveryField() {
  return {{L"SecurityType", Variant::Text(L"STK")},
          {L"BrokerID", Variant::Text(L"BRK")},
          {L"Account", Variant::Text(L"ACC1")},
          {L"Symbol", Variant::Text(L"QX.S.HK.700")},
          {L"SymbolA", Variant::Text(L"SA")},
          {L"SymbolB", Variant::Text(L"SB")},
          {L"Side", Variant::Text(L"B")},
          {L"Side1", Variant::Text(L"S1")},
          {L"Side2", Variant::Text(L"S2")},
          {L"Price", Variant::I8(3456000)},
          {L"PriceString", Variant::Text(L"345.6")},
          {L"StopPrice", Variant::I8(3400000)},
          {L"StopPriceString", Variant::Text(L"340")},
          {L"TrailingField", Variant::I4(1)},
          {L"TrailingType", Variant::I4(2)},
          {L"TrailingAmount", Variant::I8(500)},
          {L"TouchPrice", Variant::I8(3500000)},
          {L"TouchPriceString", Variant::Text(L"350")},
          {L"TouchField", Variant::I4(3)},
          {L"TouchCondition", Variant::I4(4)},
          {L"OrderType", Variant::I4(2)},
          {L"PositionEffect", Variant::I4(1)},
          {L"OriTimeInForce", Variant::I4(0)},
          {L"TimeInForce", Variant::I4(3)},
          {L"Synthetic", Variant::I4(0)},
          {L"GroupType", Variant::I4(1)},
          {L"GroupID", Variant::Text(L"G7")},
          {L"ChasePrice", Variant::Text(L"CP")},
          {L"SpreadType", Variant::I4(5)},
          {L"Strategy", Variant::Text(L"ST")},
          {L"UserKey1", Variant::Text(L"U1")},
          {L"UserKey2", Variant::Text(L"U2")},
          {L"UserKey3", Variant::Text(L"U3")},
          {L"SliceID", Variant::Text(L"SL1")},
          {L"SlicedPriceField", Variant::I4(6)},
          {L"SlicedTicks", Variant::I4(7)},
          {L"ExtCommands", Variant::Text(L"A=1")},
          {L"FitOrdFreq", Variant::I4(1)},
          {L"FlowControl", Variant::I4(1)},
          {L"Consecutive", Variant::I4(1)},
          {L"NumberOfRetries", Variant::I4(5)},
          {L"RetryInterval", Variant::I4(30)},
          {L"ContingentSymbol", Variant::Text(L"CS")},
          {L"GroupPrefix", Variant::Text(L"GP")},
          {L"OriLevelKey", Variant::Text(L"OLK")},
          {L"LevelKey", Variant::Text(L"LK")},
          {L"SpreadID", Variant::Text(L"SP")}};
}

class CommandFormatTest : public ManagerTest {
 protected:
  CString Build(const sim::FieldList& fields, CommandTemplate which = CommandTemplate::kA, int32_t qty = 100) {
    CommandFields f = GatherCommandFields(*Bound(fields));
    f.qty = qty;
    return FormatCommand(which, f);
  }
  std::wstring Pair(const CString& command, const std::wstring& key) {
    const std::wstring& s = command.wstr();
    const std::wstring needle = key + L"=";
    std::size_t at = s.rfind(L"," + needle);
    at = (at == std::wstring::npos) ? (s.compare(0, needle.size(), needle) == 0 ? 0 : std::wstring::npos) : at + 1;
    if (at == std::wstring::npos) return L"<absent>";
    const std::size_t begin = at + needle.size();
    const std::size_t end = s.find(L',', begin);
    return s.substr(begin, end == std::wstring::npos ? std::wstring::npos : end - begin);
  }
};

TEST_F(CommandFormatTest, RecordWithEveryFieldGivesTheExactTemplateA) {
  const CString command = Build(EveryField(), CommandTemplate::kA, 300);
  EXPECT_EQ(command.wstr(),
            L"TYPE=STK,BROKERID=BRK,ACCOUNT=ACC1,SYMBOL=QX.S.HK.700,SYMBOLA=SA,SYMBOLB=SB,SIDE=B,SIDE1=S1,SIDE2=S2,"
            L"QTY=300,PRICE=3456000,PRICESTRING=345.6,STOPPRICE=3400000,STOPPRICESTRING=340,TRAILINGFIELD=1,"
            L"TRAILINGTYPE=2,TRAILINGAMOUNT=500,TOUCHPRICE=3500000,TOUCHPRICESTRING=350,TOUCHFIELD=3,"
            L"TOUCHCONDITION=4,ORDERTYPE=2,POSITIONEFFECT=1,TIMEINFORCE=3,SYNTHETIC=0,GROUPTYPE=1,GROUPID=G7,"
            L"GROUPMASTER=0,CHASEPRICE=CP,SPREAD=5,STRATEGY=ST,USERKEY1=U1,USERKEY2=U2,USERKEY3=U3,SlicedID=SL1,"
            L"SlicedPriceField=6,SlicedTicks=7,ExtCommands=FlowControl=1;FitOrderFreq=1;A=1,Consecutive=1,"
            L"NumberOfRetries=5,RetryInterval=30,ContingentSymbol=CS,GroupPrefix=GP,OriLevelKey=OLK,SpreadID=SP,"
            L"Sliced=1");
}

TEST_F(CommandFormatTest, RecordWithEveryFieldGivesTheExactTemplateB) {
  EXPECT_EQ(Build(EveryField(), CommandTemplate::kB, 300).wstr(),
            L"TYPE=STK,BROKERID=BRK,ACCOUNT=ACC1,SYMBOL=QX.S.HK.700,SYMBOLA=SA,SYMBOLB=SB,SIDE=B,SIDE1=S1,SIDE2=S2,"
            L"QTY=300,PRICE=3456000,PRICESTRING=345.6,STOPPRICE=3400000,STOPPRICESTRING=340,TRAILINGFIELD=1,"
            L"TRAILINGTYPE=2,TRAILINGAMOUNT=500,TOUCHPRICE=3500000,TOUCHPRICESTRING=350,TOUCHFIELD=3,"
            L"TOUCHCONDITION=4,ORDERTYPE=2,POSITIONEFFECT=1,TIMEINFORCE=3,SYNTHETIC=0,GROUPTYPE=1,GROUPID=G7,"
            L"CHASEPRICE=CP,SPREAD=5,STRATEGY=ST,USERKEY1=U1,USERKEY2=U2,USERKEY3=U3,SlicedID=SL1,"
            L"SlicedPriceField=6,SlicedTicks=7,ExtCommands=FlowControl=1;FitOrderFreq=1;A=1,Consecutive=1,"
            L"NumberOfRetries=5,RetryInterval=30,SlicedType=4,DiscloseQty=0,ContingentSymbol=CS,GroupPrefix=GP,"
            L"OriLevelKey=OLK,SpreadID=SP,Sliced=1");
}

TEST_F(CommandFormatTest, RecordWithNoFieldsPrintsEveryDefault) {
  EXPECT_EQ(Build({}, CommandTemplate::kA, 0).wstr(),
            L"TYPE=,BROKERID=,ACCOUNT=,SYMBOL=,SYMBOLA=,SYMBOLB=,SIDE=,SIDE1=,SIDE2=,QTY=0,"
            L"PRICE=-9223372036854775808,PRICESTRING=,STOPPRICE=-9223372036854775808,STOPPRICESTRING=,"
            L"TRAILINGFIELD=-2147483648,TRAILINGTYPE=-2147483648,TRAILINGAMOUNT=-9223372036854775808,"
            L"TOUCHPRICE=-9223372036854775808,TOUCHPRICESTRING=,TOUCHFIELD=-2147483648,"
            L"TOUCHCONDITION=-2147483648,ORDERTYPE=-2147483648,POSITIONEFFECT=-2147483648,"
            L"TIMEINFORCE=-2147483648,SYNTHETIC=-2147483648,GROUPTYPE=-2147483648,GROUPID=,GROUPMASTER=0,"
            L"CHASEPRICE=,SPREAD=-2147483648,STRATEGY=,USERKEY1=,USERKEY2=,USERKEY3=,SlicedID=,"
            L"SlicedPriceField=0,SlicedTicks=0,ExtCommands=,Consecutive=0,NumberOfRetries=-1,RetryInterval=-1,"
            L"ContingentSymbol=,GroupPrefix=,OriLevelKey=,SpreadID=,Sliced=1");
}

TEST_F(CommandFormatTest, TemplateBHasNoGroupMasterAndCarriesTheSliceAllPairs) {
  EXPECT_EQ(Build({}, CommandTemplate::kB, 0).wstr(),
            L"TYPE=,BROKERID=,ACCOUNT=,SYMBOL=,SYMBOLA=,SYMBOLB=,SIDE=,SIDE1=,SIDE2=,QTY=0,"
            L"PRICE=-9223372036854775808,PRICESTRING=,STOPPRICE=-9223372036854775808,STOPPRICESTRING=,"
            L"TRAILINGFIELD=-2147483648,TRAILINGTYPE=-2147483648,TRAILINGAMOUNT=-9223372036854775808,"
            L"TOUCHPRICE=-9223372036854775808,TOUCHPRICESTRING=,TOUCHFIELD=-2147483648,"
            L"TOUCHCONDITION=-2147483648,ORDERTYPE=-2147483648,POSITIONEFFECT=-2147483648,"
            L"TIMEINFORCE=-2147483648,SYNTHETIC=-2147483648,GROUPTYPE=-2147483648,GROUPID=,"
            L"CHASEPRICE=,SPREAD=-2147483648,STRATEGY=,USERKEY1=,USERKEY2=,USERKEY3=,SlicedID=,"
            L"SlicedPriceField=0,SlicedTicks=0,ExtCommands=,Consecutive=0,NumberOfRetries=-1,RetryInterval=-1,"
            L"SlicedType=4,DiscloseQty=0,ContingentSymbol=,GroupPrefix=,OriLevelKey=,SpreadID=,Sliced=1");
}

TEST_F(CommandFormatTest, NoOriTimeInForceAndTimeInForce3GivesThree) {
  EXPECT_EQ(Pair(Build({{L"TimeInForce", Variant::I4(3)}}), L"TIMEINFORCE"), L"3");
}

TEST_F(CommandFormatTest, OriTimeInForce2WinsWhateverTimeInForceHolds) {
  EXPECT_EQ(Pair(Build({{L"OriTimeInForce", Variant::I4(2)}, {L"TimeInForce", Variant::I4(3)}}), L"TIMEINFORCE"),
            L"2");
}

TEST_F(CommandFormatTest, MissingPricePrintsTheSmallest64BitInteger) {
  EXPECT_EQ(Pair(Build({}), L"PRICE"), L"-9223372036854775808");
}

TEST_F(CommandFormatTest, ConsecutiveZeroKeepsRetriesAtMinusOne) {
  const CString command = Build({{L"Consecutive", Variant::I4(0)}, {L"NumberOfRetries", Variant::I4(5)}});
  EXPECT_EQ(Pair(command, L"NumberOfRetries"), L"-1");
  EXPECT_EQ(Pair(command, L"RetryInterval"), L"-1");
}

TEST_F(CommandFormatTest, ExtCommandsItemsAreTrimmedAndJunkAndCancelCloseWorkingDropped) {
  EXPECT_EQ(NormaliseExtCommands(L" a = 1 ;junk;CANCELCLOSEWORKING=1;b=2", 0, 0).wstr(), L"a=1;b=2");
}

TEST_F(CommandFormatTest, ExtCommandsWithFlowControlAlreadyGetsNoSecondItem) {
  EXPECT_EQ(NormaliseExtCommands(L"FlowControl=0", 0, 1).wstr(), L"FlowControl=0");
}

TEST_F(CommandFormatTest, ExtCommandsBothFlagsPutFlowControlFirst) {
  EXPECT_EQ(NormaliseExtCommands(L"A=1", 1, 1).wstr(), L"FlowControl=1;FitOrderFreq=1;A=1");
}

TEST_F(CommandFormatTest, ExtCommandsEmptyWithFlowControlKeepsTheTrailingSeparator) {
  EXPECT_EQ(NormaliseExtCommands(L"", 0, 1).wstr(), L"FlowControl=1;");
}

TEST_F(CommandFormatTest, FitOrdFreqFlagIsWrittenAsFitOrderFreq) {
  EXPECT_EQ(NormaliseExtCommands(L"X=1", 1, 0).wstr(), L"FitOrderFreq=1;X=1");
  EXPECT_EQ(NormaliseExtCommands(L"FitOrderFreq=0", 1, 0).wstr(), L"FitOrderFreq=0");
  // Searching for the read spelling would not find the written one.
  EXPECT_EQ(NormaliseExtCommands(L"FitOrdFreq=0", 1, 0).wstr(), L"FitOrderFreq=1;FitOrdFreq=0");
}

TEST_F(CommandFormatTest, GroupType2FirstSliceGroupIdIsDerived) {
  EXPECT_EQ(DerivedGroupId(L"G7", 1).wstr(), L"G7-#-Sliced-#-1");
}

TEST_F(CommandFormatTest, LevelKeyStandsInForMissingOriLevelKey) {
  EXPECT_EQ(Pair(Build({{L"LevelKey", Variant::Text(L"LK9")}}), L"OriLevelKey"), L"LK9");
}

TEST_F(CommandFormatTest, ExtractSlicedIdTakesTheValueUpToTheNextComma) {
  EXPECT_EQ(ExtractSlicedId(L"QTY=1,SlicedID=S-9,X=1").wstr(), L"S-9");
  EXPECT_EQ(ExtractSlicedId(L"QTY=1,SlicedID=S-9").wstr(), L"");
  EXPECT_EQ(ExtractSlicedId(L"QTY=1").wstr(), L"");
}

TEST_F(CommandFormatTest, NonAsciiAccountAndSymbolRoundTrip) {
  const std::wstring account = CString::FromUtf8("\xE5\xBC\xA0\xE4\xB8\x89\xE8\xB4\xA6\xE6\x88\xB7").wstr();
  const std::wstring symbol = CString::FromUtf8("QX.S.\xE8\x85\xBE\xE8\xAE\xAF").wstr();
  const CString command = Build({{L"Account", Variant::Text(account)}, {L"Symbol", Variant::Text(symbol)}});
  EXPECT_EQ(Pair(command, L"ACCOUNT"), account);
  EXPECT_EQ(Pair(command, L"SYMBOL"), symbol);
  EXPECT_NE(command.ToUtf8().find("ACCOUNT=\xE5\xBC\xA0\xE4\xB8\x89\xE8\xB4\xA6\xE6\x88\xB7,"), std::string::npos);
}

// The command is written pair by pair; it must stay exactly what the
// template text formats to, for any values.
CString FormattedFromTemplate(CommandTemplate which, const CommandFields& f) {
  if (which == CommandTemplate::kA) {
    return CString::Formatted(
        CommandTemplateText(which), f.type, f.broker_id, f.account, f.symbol, f.symbol_a, f.symbol_b, f.side,
        f.side1, f.side2, f.qty, f.price, f.price_string, f.stop_price, f.stop_price_string, f.trailing_field,
        f.trailing_type, f.trailing_amount, f.touch_price, f.touch_price_string, f.touch_field, f.touch_condition,
        f.order_type, f.position_effect, f.time_in_force, f.synthetic, f.group_type, f.group_id, 0, f.chase_price,
        f.spread, f.strategy, f.user_key1, f.user_key2, f.user_key3, f.sliced_id, f.sliced_price_field,
        f.sliced_ticks, f.ext_commands, f.consecutive, f.number_of_retries, f.retry_interval, f.contingent_symbol,
        f.group_prefix, f.ori_level_key, f.spread_id);
  }
  return CString::Formatted(
      CommandTemplateText(which), f.type, f.broker_id, f.account, f.symbol, f.symbol_a, f.symbol_b, f.side, f.side1,
      f.side2, f.qty, f.price, f.price_string, f.stop_price, f.stop_price_string, f.trailing_field, f.trailing_type,
      f.trailing_amount, f.touch_price, f.touch_price_string, f.touch_field, f.touch_condition, f.order_type,
      f.position_effect, f.time_in_force, f.synthetic, f.group_type, f.group_id, f.chase_price, f.spread,
      f.strategy, f.user_key1, f.user_key2, f.user_key3, f.sliced_id, f.sliced_price_field, f.sliced_ticks,
      f.ext_commands, f.consecutive, f.number_of_retries, f.retry_interval, f.contingent_symbol, f.group_prefix,
      f.ori_level_key, f.spread_id);
}

TEST_F(CommandFormatTest, WrittenCommandIsTheTemplateFormattedForAnyValues) {
  CommandFields every = GatherCommandFields(*Bound(EveryField()));
  every.qty = 300;
  CommandFields extremes;
  extremes.qty = INT32_MIN;
  extremes.price = INT64_MAX;
  extremes.stop_price = INT64_MIN;
  extremes.trailing_field = INT32_MAX;
  extremes.touch_price = -1;
  extremes.order_type = -7;
  extremes.sliced_ticks = 1234567890;
  CommandFields long_texts = every;
  long_texts.ext_commands = CString(std::wstring(3000, L'x'));
  long_texts.symbol = L"%s%d,=;";
  for (const CommandFields* f : {&every, &extremes, &long_texts}) {
    for (CommandTemplate which : {CommandTemplate::kA, CommandTemplate::kB}) {
      EXPECT_EQ(FormatCommand(which, *f).wstr(), FormattedFromTemplate(which, *f).wstr());
    }
  }
}

}  // namespace
}  // namespace tsm
