#include "data/oak_map_string_to_val.h"

#include <atomic>
#include <cstdint>
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

TEST(COakMapStringToValTest, StoredValueIsSignExtendedInThePointerSlot) {
  COakMapStringToVal map;
  map.SetAt(L"k", -1);
  void* slot = nullptr;
  ASSERT_TRUE(static_cast<CMapStringToPtr&>(map).Lookup(L"k", slot));
  EXPECT_EQ(reinterpret_cast<intptr_t>(slot), intptr_t{-1});
}

TEST(COakMapStringToValTest, KeysAreExactAndCaseSensitive) {
  COakMapStringToVal map;
  map.SetAt(L"Order-1", 1);
  map.SetAt(L"order-1", 2);
  map.SetAt(L"Order-1 ", 3);
  EXPECT_EQ(map.GetCount(), 3);
  int32_t value = 0;
  EXPECT_TRUE(map.Lookup(L"Order-1", value));
  EXPECT_EQ(value, 1);
  EXPECT_TRUE(map.Lookup(L"order-1", value));
  EXPECT_EQ(value, 2);
  value = 99;
  EXPECT_FALSE(map.Lookup(L"ORDER-1", value));
  EXPECT_EQ(value, 99);
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

TEST(COakMapStringToValTest, ConcurrentWritersOfSharedKeysKeepOneEntryPerKeyAndOnlyWrittenValues) {
  constexpr int kKeys = 50;
  constexpr int kRounds = 200;
  COakMapStringToVal map;
  std::atomic<int> bad_reads{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&map, &bad_reads, t] {
      for (int round = 0; round < kRounds; ++round) {
        for (int k = 0; k < kKeys; ++k) {
          const CString key = CString::Formatted(L"LevelKey-%d", k);
          // Every value written to key k is k * 1000 plus a writer number.
          map.SetAt(key, k * 1000 + t);
          int32_t value = -1;
          if (!map.Lookup(key, value) || value / 1000 != k || value % 1000 > 3) ++bad_reads;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(bad_reads.load(), 0);
  EXPECT_EQ(map.GetCount(), kKeys);
}

}  // namespace
}  // namespace tsm
