#include "data/containers.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace tsm {
namespace {

TEST(CMapStringToTest, SetLookupRemove) {
  CMapStringToString map;
  map.InitHashTable(1009);
  EXPECT_EQ(map.GetHashTableSize(), 1009u);
  map.SetAt(L"k", L"v1");
  map.SetAt(L"k", L"v2");
  EXPECT_EQ(map.GetCount(), 1);
  CString value;
  EXPECT_TRUE(map.Lookup(L"k", value));
  EXPECT_EQ(value.wstr(), L"v2");
  EXPECT_FALSE(map.Lookup(L"K", value));
  EXPECT_TRUE(map.RemoveKey(L"k"));
  EXPECT_FALSE(map.RemoveKey(L"k"));
  EXPECT_TRUE(map.IsEmpty());
}

TEST(CMapStringToTest, IterationOrderIsBucketOrderNewestFirst) {
  CMapStringTo<int> map;
  map.InitHashTable(1);
  map.SetAt(L"a", 1);
  map.SetAt(L"b", 2);
  map.SetAt(L"c", 3);
  std::vector<int> seen;
  map.ForEach([&](const CString&, int v) { seen.push_back(v); });
  EXPECT_EQ(seen, (std::vector<int>{3, 2, 1}));
}

TEST(CMapStringToTest, LookupByAPieceOfALongerTextFindsTheSameEntry) {
  CMapStringToPtr map;
  map.InitHashTable(1009);
  int value = 0;
  map.SetAt(L"C2", &value);
  const std::wstring list = L"C1,C2,C3";
  void* found = nullptr;
  EXPECT_TRUE(map.Lookup(std::wstring_view(list).substr(3, 2), found));
  EXPECT_EQ(found, &value);
  EXPECT_FALSE(map.Lookup(std::wstring_view(list).substr(3, 1), found));
  EXPECT_FALSE(map.Lookup(std::wstring_view(list).substr(0, 2), found));
  EXPECT_EQ(CMapStringToPtr::HashKey(std::wstring_view(list).substr(3, 2)), CMapStringToPtr::HashKey(L"C2"));
}

TEST(CMapStringToTest, HashIsTheSameOnEveryPlatform) {
  EXPECT_EQ(CMapStringToPtr::HashKey(L"abc"), ((97u * 33 + 98) * 33 + 99));
}

}  // namespace
}  // namespace tsm
