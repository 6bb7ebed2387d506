#include "manager/slice_children.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tsm {
namespace {

std::vector<std::wstring> Pieces(const SliceChildren::View& view) {
  std::vector<std::wstring> pieces;
  view.ForEachPiece([&](std::wstring_view piece) { pieces.emplace_back(piece); });
  return pieces;
}

// The pieces CString::Tokenize gives for the joined text.
std::vector<std::wstring> TokenizedText(const SliceChildren& children, const CString& slice) {
  CString text;
  children.Text(slice, text);
  std::vector<std::wstring> pieces;
  int pos = 0;
  for (CString piece = text.Tokenize(L",", pos); pos != -1; piece = text.Tokenize(L",", pos)) {
    pieces.push_back(piece.wstr());
  }
  return pieces;
}

TEST(SliceChildrenTest, TextJoinsKeysWithCommasInArrivalOrder) {
  SliceChildren children;
  children.Append(L"S1", L"C1");
  children.Append(L"S2", L"D1");
  children.Append(L"S1", L"C2");
  children.Append(L"S1", L"C3");
  CString text;
  EXPECT_TRUE(children.Text(L"S1", text));
  EXPECT_EQ(text, L"C1,C2,C3");
  EXPECT_TRUE(children.Text(L"S2", text));
  EXPECT_EQ(text, L"D1");
}

TEST(SliceChildrenTest, SliceWithoutChildrenHasNoTextAndAnEmptyView) {
  SliceChildren children;
  CString text = L"stale";
  EXPECT_FALSE(children.Text(L"S1", text));
  EXPECT_TRUE(text.IsEmpty());
  EXPECT_EQ(children.Find(L"S1").size(), 0u);
  EXPECT_TRUE(Pieces(children.Find(L"S1")).empty());
}

TEST(SliceChildrenTest, EmptyFirstKeyKeepsItsPlaceInTheText) {
  SliceChildren children;
  children.Append(L"S", L"");
  children.Append(L"S", L"B");
  CString text;
  EXPECT_TRUE(children.Text(L"S", text));
  EXPECT_EQ(text, L",B");
  EXPECT_EQ(Pieces(children.Find(L"S")), (std::vector<std::wstring>{L"B"}));
}

TEST(SliceChildrenTest, PiecesMatchASplitOfTheTextForKeysHoldingCommas) {
  SliceChildren children;
  for (const wchar_t* key : {L"A", L"", L"B,C", L",,D,", L"E", L",", L"F,"}) children.Append(L"S", key);
  EXPECT_EQ(Pieces(children.Find(L"S")), TokenizedText(children, L"S"));
  EXPECT_EQ(Pieces(children.Find(L"S")), (std::vector<std::wstring>{L"A", L"B", L"C", L"D", L"E", L"F"}));
}

TEST(SliceChildrenTest, ViewKeepsItsKeysWhileMoreAreAppended) {
  SliceChildren children;
  std::vector<std::wstring> expected;
  for (int i = 0; i < 40; ++i) {
    expected.push_back(L"C" + std::to_wstring(i));
    children.Append(L"S", CString(expected.back()));
  }
  const SliceChildren::View view = children.Find(L"S");
  for (int i = 40; i < 100; ++i) children.Append(L"S", CString(L"C" + std::to_wstring(i)));
  EXPECT_EQ(view.size(), 40u);
  EXPECT_EQ(Pieces(view), expected);
  EXPECT_EQ(children.Find(L"S").size(), 100u);
  EXPECT_EQ(Pieces(children.Find(L"S")), TokenizedText(children, L"S"));
}

}  // namespace
}  // namespace tsm
