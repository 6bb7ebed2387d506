#include "data/oak_map_string_to_val.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace tsm {
namespace {

TEST(COakMapStringToValTest, LookupOfMissingKeyReturnsFalseAndLeavesTheVariable) {
  COakMapStringToVal map;
  int32_t value = 77;
  EXPECT_FALSE(map.Lookup(L"missing", value));
  EXPECT_EQ(value, 77);
}

TEST(COakMapStringToValTest, MinusOneIsReadBackAsMinusOne) {
  COakMapStringToVal map;
  map.SetAt(L"k", -1);
  int32_t value = 0;
  EXPECT_TRUE(map.Lookup(L"k", value));
  EXPECT_EQ(value, -1);
}

TEST(COakMapStringToValTest, SetAtOnExistingKeyReplacesTheValue) {
  COakMapStringToVal map;
  map.SetAt(L"k", 1);
  map.SetAt(L"k", 2);
  int32_t value = 0;
  EXPECT_TRUE(map.Lookup(L"k", value));
  EXPECT_EQ(value, 2);
  EXPECT_EQ(map.GetCount(), 1);
}

TEST(COakMapStringToValTest, ExtremeValuesSurviveTheSlot) {
  COakMapStringToVal map;
  map.SetAt(L"min", INT32_MIN);
  map.SetAt(L"max", INT32_MAX);
  int32_t value = 0;
  map.Lookup(L"min", value);
  EXPECT_EQ(value, INT32_MIN);
  map.Lookup(L"max", value);
  EXPECT_EQ(value, INT32_MAX);
}

TEST(COakMapStringToValTest, RemoveAllEmptiesTheMap) {
  COakMapStringToVal map;
  map.SetAt(L"a", 1);
  map.SetAt(L"b", 2);
  map.RemoveAll();
  EXPECT_EQ(map.GetCount(), 0);
}

TEST(COakMapStringToValTest, ConcurrentWritersAndReaders) {
  COakMapStringToVal map;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&map, t] {
      for (int i = 0; i < 500; ++i) {
        const CString key = CString::Formatted(L"%d.%d", t, i);
        map.SetAt(key, i);
        int32_t value = -1;
        map.Lookup(key, value);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(map.GetCount(), 2000);
}

}  // namespace
}  // namespace tsm
