#include "data/text.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cwchar>
#include <string>
#include <vector>

namespace tsm {
namespace {

TEST(WToLTest, ParsesLikeTheWindowsRuntime) {
  EXPECT_EQ(WToL(L"12abc"), 12);
  EXPECT_EQ(WToL(L"  \t-42"), -42);
  EXPECT_EQ(WToL(L"+7"), 7);
  EXPECT_EQ(WToL(L"abc"), 0);
  EXPECT_EQ(WToL(L""), 0);
  EXPECT_EQ(WToL(L"- 5"), 0);
}

TEST(WToLTest, ResultsAre32BitAndSaturate) {
  EXPECT_EQ(WToL(L"2147483647"), 2147483647);
  EXPECT_EQ(WToL(L"-2147483648"), INT32_MIN);
  EXPECT_EQ(WToL(L"2147483648"), INT32_MAX);
  EXPECT_EQ(WToL(L"-99999999999"), INT32_MIN);
  EXPECT_EQ(WToI64(L"9223372036854775807"), INT64_MAX);
  EXPECT_EQ(WToI64(L"-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(WToI64(L"5000000000x"), 5000000000LL);
}

TEST(FormatTest, LongIs32BitAndI64dIs64Bit) {
  EXPECT_EQ(CString::Formatted(L"%ld|%d|%I64d", int64_t{-2147483648LL}, 5, INT64_MIN).wstr(),
            L"-2147483648|5|-9223372036854775808");
  EXPECT_EQ(CString::Formatted(L"%ld", int64_t{4294967297LL}).wstr(), L"1");
}

TEST(FormatTest, TextHexAndPercent) {
  EXPECT_EQ(CString::Formatted(L"<%s>%s", CString(L"a"), L"b").wstr(), L"<a>b");
  EXPECT_EQ(CString::Formatted(L"%x.%d", 0x1a2b3c40u, 103).wstr(), L"1a2b3c40.103");
  EXPECT_EQ(CString::Formatted(L"%x", 1).wstr(), L"1");
  EXPECT_EQ(CString::Formatted(L"100%%").wstr(), L"100%");
}

TEST(FormatTest, WidthPaddingAndUnsigned) {
  EXPECT_EQ(CString::Formatted(L"%06d|%-4d|%4d|%03d", 42, 7, -5, -5).wstr(), L"000042|7   |  -5|-05");
  EXPECT_EQ(CString::Formatted(L"%u|%I64u", -1, uint64_t{18446744073709551615ULL}).wstr(),
            L"4294967295|18446744073709551615");
  EXPECT_EQ(CString::Formatted(L"%X|%c|%s", 0xABCu, L'Z', 12).wstr(), L"ABC|Z|12");
  EXPECT_EQ(CString::Formatted(L"a%d b%d", 1).wstr(), L"a1 b");
}

// Numbers of every length, both ends of each width and the steps between
// digit counts, as the standard library writes them; a prepared format
// writes the same.
TEST(FormatTest, NumbersOfEveryLengthAreWrittenInFull) {
  std::vector<int64_t> values = {0, INT64_MIN, INT64_MAX, INT32_MIN, INT32_MAX};
  for (int64_t power = 1; power <= INT64_MAX / 10; power *= 10) {
    for (const int64_t v : {power - 1, power, power + 1, 5 * power, -power, -(power - 1), -(power + 1)}) {
      values.push_back(v);
    }
  }
  const PreparedFormat prepared(L"%I64d|%I64u");
  for (const int64_t v : values) {
    const std::wstring expected = std::to_wstring(v) + L"|" + std::to_wstring(static_cast<uint64_t>(v));
    EXPECT_EQ(CString::Formatted(L"%I64d|%I64u", v, v).wstr(), expected) << v;
    EXPECT_EQ(prepared(v, v).wstr(), expected) << v;
  }
}

// A format is read once per address and then only checked: the same text
// at the same address, another text there, a prefix, and a format too long
// to keep all give what they say.
TEST(FormatTest, AFormatAtTheSameAddressFollowsTheTextNowThere) {
  wchar_t format[16] = L"a%db";
  for (int round = 0; round < 2; ++round) {
    std::wcscpy(format, L"a%db");
    EXPECT_EQ(CString::Formatted(format, 1).wstr(), L"a1b") << round;
    EXPECT_EQ(CString::Formatted(format, 2).wstr(), L"a2b") << round;
    std::wcscpy(format, L"%d-%d");
    EXPECT_EQ(CString::Formatted(format, 1, 2).wstr(), L"1-2") << round;
    std::wcscpy(format, L"a%d");
    EXPECT_EQ(CString::Formatted(format, 3).wstr(), L"a3") << round;
    format[0] = L'\0';
    EXPECT_EQ(CString::Formatted(format, 4).wstr(), L"") << round;
  }
  const text_internal::FormatArg five = text_internal::MakeArg(5);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(text_internal::FormatArgs(L"x%dy", &five, 1, L"P: "), L"P: x5y") << round;
    EXPECT_EQ(text_internal::FormatArgs(L"x%dy", &five, 1), L"x5y") << round;
  }
  const std::wstring long_format = std::wstring(5000, L'.') + L"%d|%s";
  const std::wstring expected = std::wstring(5000, L'.') + L"7|end";
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(CString::Formatted(long_format.c_str(), 7, L"end").wstr(), expected) << round;
  }
}

TEST(PreparedFormatTest, GivesWhatFormatGivesForTheSameTextAndArguments) {
  const PreparedFormat numbers(L"%06d|%-4d|%4d|%03d|%ld|%I64d|%lld|%u|%X|%c");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(numbers(42, 7, -5, -5, int64_t{4294967297LL}, INT64_MIN, int64_t{-1}, -1, 0xABCu, L'Z').wstr(),
              L"000042|7   |  -5|-05|1|-9223372036854775808|-1|4294967295|ABC|Z");
  }
  const PreparedFormat texts(L"<%s>%-6s|%6s|%s|100%%");
  EXPECT_EQ(texts(CString(L"a"), L"b", std::wstring(L"c"), 12).wstr(), L"<a>b     |     c|12|100%");
  EXPECT_EQ(texts(CString(), CString(), CString(), CString()).wstr(), L"<>      |      ||100%");
}

TEST(PreparedFormatTest, MissingArgumentsAndATrailingPercentAsFormatHasThem) {
  EXPECT_EQ(PreparedFormat(L"a%d b%d")(1).wstr(), L"a1 b");
  EXPECT_EQ(PreparedFormat(L"a%d b%4d")(1).wstr(), CString::Formatted(L"a%d b%4d", 1).wstr());
  EXPECT_EQ(PreparedFormat(L"end%")().wstr(), CString::Formatted(L"end%").wstr());
  EXPECT_EQ(PreparedFormat(L"end%l")().wstr(), L"end");
  EXPECT_EQ(PreparedFormat(L"")().wstr(), L"");
  EXPECT_EQ(PreparedFormat(L"%q")(5).wstr(), CString::Formatted(L"%q", 5).wstr());
}

TEST(PreparedFormatTest, LongTextsAndWideFieldsAllFit) {
  const std::wstring long_text(5000, L'x');
  const PreparedFormat format(L"[%s][%300d][%-300s]");
  const CString result = format(long_text, -7, CString(L"y"));
  EXPECT_EQ(result, CString::Formatted(L"[%s][%300d][%-300s]", long_text, -7, CString(L"y")));
  EXPECT_EQ(result.GetLength(), 5000 + 300 + 300 + 6);
}

TEST(Utf16Test, RoundTripKeepsCharactersOutsideTheBasicPlane) {
  const std::wstring wide = WideFromUtf8("A\xe4\xb8\xad\xf0\x9f\x98\x80");  // A, U+4E2D, U+1F600
  const std::u16string utf16 = Utf16FromWide(wide);
  EXPECT_EQ(utf16, (std::u16string{u'A', u'\u4e2d', char16_t{0xD83D}, char16_t{0xDE00}}));
  EXPECT_EQ(WideFromUtf16(utf16), wide);
}

TEST(CStringTest, TokenizeSkipsEmptyTokens) {
  CString text(L";a;;b;");
  int pos = 0;
  EXPECT_EQ(text.Tokenize(L";", pos).wstr(), L"a");
  EXPECT_EQ(text.Tokenize(L";", pos).wstr(), L"b");
  EXPECT_EQ(text.Tokenize(L";", pos).wstr(), L"");
  EXPECT_EQ(pos, -1);
}

TEST(CStringTest, TokenizeViewStepsAsTokenizeAndPointsIntoTheText) {
  const std::wstring text = L",,L1,,L22,L3,";
  int pos = 0;
  int view_pos = 0;
  for (int i = 0; i < 5; ++i) {
    const CString token = CString(text).Tokenize(L",", pos);
    const std::wstring_view view = TokenizeView(text, L",", view_pos);
    EXPECT_EQ(view, token.wstr()) << i;
    EXPECT_EQ(view_pos, pos) << i;
    if (!view.empty()) {
      EXPECT_GE(view.data(), text.data());
      EXPECT_LE(view.data() + view.size(), text.data() + text.size());
    }
  }
  EXPECT_EQ(view_pos, -1);
}

TEST(CStringTest, ExtractSubStringKeepsEmptyPieces) {
  CString piece;
  EXPECT_TRUE(AfxExtractSubString(piece, L"a~~b", 1, L'~'));
  EXPECT_EQ(piece.wstr(), L"");
  EXPECT_TRUE(AfxExtractSubString(piece, L"a~~b", 2, L'~'));
  EXPECT_EQ(piece.wstr(), L"b");
  EXPECT_FALSE(AfxExtractSubString(piece, L"a", 1, L'~'));
  EXPECT_EQ(piece.wstr(), L"");
}

TEST(CStringTest, TrimRemoveFindMid) {
  CString s(L"  a = 1 ");
  s.Trim();
  EXPECT_EQ(s.wstr(), L"a = 1");
  CString t(L"09:00:00");
  EXPECT_EQ(t.Remove(L':'), 2);
  EXPECT_EQ(t.wstr(), L"090000");
  CString u(L"x,SlicedID=S1,y");
  EXPECT_EQ(u.Find(L"SlicedID="), 2);
  EXPECT_EQ(u.Find(L','), 1);
  EXPECT_EQ(u.Mid(11, 2).wstr(), L"S1");
  EXPECT_EQ(CString(L"CancelCloseWorking").CompareNoCase(L"CANCELCLOSEWORKING"), 0);
}

TEST(CStringTest, NonAsciiTextRoundTripsThroughUtf8) {
  const std::string utf8 = "\xE8\xB4\xA6\xE6\x88\xB7-\xF0\x9F\x98\x80";  // 账户-😀
  const CString wide = CString::FromUtf8(utf8);
  EXPECT_EQ(wide.ToUtf8(), utf8);
  EXPECT_EQ(CString::Formatted(L"ACCOUNT=%s,", wide).ToUtf8(), "ACCOUNT=" + utf8 + ",");
}

}  // namespace
}  // namespace tsm
