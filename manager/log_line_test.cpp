#include "manager/log_line.h"
#include "manager/text_pieces.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>

namespace tsm {
namespace {

// What the general formatter gives for the same line.
template <typename... Args>
std::wstring General(std::wstring_view prefix, const wchar_t* format, const Args&... args) {
  const text_internal::FormatArg list[] = {text_internal::MakeArg(args)..., text_internal::FormatArg{}};
  return text_internal::FormatArgs(format, list, sizeof...(Args), prefix);
}

template <typename... Args>
std::wstring Written(std::wstring_view prefix, const wchar_t* format, const Args&... args) {
  const text_internal::FormatArg list[] = {text_internal::MakeArg(args)..., text_internal::FormatArg{}};
  return FormatLogLine(prefix, format, list, sizeof...(Args));
}

template <typename... Args>
void ExpectSameLine(const wchar_t* format, const Args&... args) {
  EXPECT_EQ(Written(L"<P>", format, args...), General(L"<P>", format, args...)) << format;
}

TEST(LogLineTest, ManagerLinesAreWhatTheGeneralFormatterGives) {
  const CString key = L"C123";
  const CString slice = L"S-1";
  EXPECT_EQ(Written(L"<CTradeSliceManager>", L"OnDataUpdate : LevelKey=%s, SliceID=%s, ExecType=%ld", key, slice,
                    int32_t{3}),
            L"<CTradeSliceManager>OnDataUpdate : LevelKey=C123, SliceID=S-1, ExecType=3");
  ExpectSameLine(L"DoSlicedWork : SlicedID=%s, NewOrderQty=%ld, TotalQty=%ld, LeavesQty=%ld, CumQty=%ld, "
                 L"OriginalQty=%ld, GroupType=%ld, GroupID=%s",
                 slice, int32_t{300}, int32_t{-5}, INT32_MIN, INT32_MAX, int32_t{0}, INT32_MIN, CString());
  ExpectSameLine(L"Volume OrderInfo: Symbol=%s, TradeVolume=%I64d", key, INT64_MIN);
  ExpectSameLine(L"Timer Order: Interval=%d, LeftoverAction=%d", int32_t{50}, int32_t{-1});
  ExpectSameLine(L"%lld and %hd and %i", INT64_MAX, int32_t{7}, int32_t{-7});
}

TEST(LogLineTest, UnusualArgumentsPrintAsTheGeneralFormatterPrintsThem) {
  // A 64-bit value under "%d" prints its low 32 bits; a number under "%s"
  // prints whole; text under "%d" prints as text; missing arguments print
  // nothing; extra ones are ignored.
  ExpectSameLine(L"%d|%ld", int64_t{0x100000005}, int64_t{-0x100000005});
  ExpectSameLine(L"%s", int64_t{0x100000005});
  ExpectSameLine(L"%d", CString(L"text"));
  ExpectSameLine(L"a=%s, b=%ld, c=%s", CString(L"x"));
  ExpectSameLine(L"only %s", CString(L"x"), int32_t{1}, int32_t{2});
  ExpectSameLine(L"%u", uint32_t{4000000000u});
}

TEST(LogLineTest, PercentSignsFlagsAndOtherConversionsMatch) {
  ExpectSameLine(L"100%% of %s", CString(L"x"));
  ExpectSameLine(L"error:%s, %ld, %x, %x", CString(L"K"), int32_t{-1}, int32_t{1}, int32_t{0});
  ExpectSameLine(L"[%5d|%-5s|%05ld]", int32_t{42}, CString(L"ab"), int32_t{-42});
  ExpectSameLine(L"cut short %", int32_t{1});
  ExpectSameLine(L"cut short %l", int32_t{1});
  ExpectSameLine(L"%c%q", int32_t{65}, int32_t{1});
  ExpectSameLine(L"");
  ExpectSameLine(L"no conversions");
}

TEST(LogLineTest, AppendDecimalWritesEveryRange) {
  for (int64_t value : {int64_t{0}, int64_t{-1}, int64_t{9}, int64_t{10}, int64_t{INT32_MIN}, INT64_MIN, INT64_MAX}) {
    std::wstring out = L"v=";
    AppendDecimal(out, value);
    EXPECT_EQ(out, L"v=" + std::to_wstring(value));
  }
}

TEST(TextPiecesTest, NextPieceStepsAsTokenizeView) {
  for (const wchar_t* text : {L"", L",", L",,,", L"a", L"1,100,0", L",a,,b,", L"a,b,c,d,e", L"|x|", L"ab,cd"}) {
    for (wchar_t separator : {L',', L'|'}) {
      const wchar_t delimiters[] = {separator, L'\0'};
      int mine = 0;
      int theirs = 0;
      for (int step = 0; step < 8; ++step) {
        const std::wstring_view piece = NextPiece(text, separator, mine);
        const std::wstring_view expected = TokenizeView(text, delimiters, theirs);
        EXPECT_EQ(piece, expected) << text;
        EXPECT_EQ(mine, theirs) << text;
      }
    }
  }
  int beyond = 99;
  EXPECT_TRUE(NextPiece(L"a,b", L',', beyond).empty());
  EXPECT_EQ(beyond, -1);
}

}  // namespace
}  // namespace tsm
