#include "basedata/field_table.h"

#include <cwchar>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

namespace tsm::basedata {
namespace {

const FieldTable::Name* N(const std::wstring& text) { return FieldTable::Intern(text); }

TEST(FieldTableTest, InternGivesOneNamePerText) {
  const FieldTable::Name* a = N(L"LeavesQty");
  EXPECT_EQ(a, N(L"LeavesQty"));
  EXPECT_EQ(a->text, L"LeavesQty");
  EXPECT_NE(a, N(L"leavesqty"));  // case-sensitive
  EXPECT_NE(a, N(L"LeavesQty "));
  EXPECT_EQ(N(L""), N(L""));
}

TEST(FieldTableTest, SetFindOverwrite) {
  FieldTable table;
  EXPECT_EQ(table.Find(L"OrderQty"), nullptr);
  table.Set(N(L"OrderQty"), Variant::I4(300));
  table.Set(N(L"Symbol"), Variant::Text(L"QX.S.TW.2330"));
  ASSERT_NE(table.Find(L"OrderQty"), nullptr);
  EXPECT_EQ(*table.Find(L"OrderQty"), Variant::I4(300));
  EXPECT_EQ(*table.Find(L"Symbol"), Variant::Text(L"QX.S.TW.2330"));
  table.Set(N(L"OrderQty"), Variant::I8(7));
  EXPECT_EQ(*table.Find(L"OrderQty"), Variant::I8(7));
  EXPECT_EQ(table.size(), 2u);
  EXPECT_EQ(table.Find(L"orderqty"), nullptr);
  EXPECT_EQ(table.Find(L"Order"), nullptr);
}

// A pooled name's own key is known by its address; an equal text elsewhere
// is not that key (it is found by its text instead).
TEST(FieldTableTest, PooledKnowsANameByItsOwnKeyOnly) {
  for (const wchar_t* text : {L"PooledKeyQty", L"Px", L""}) {
    const FieldTable::Name* name = N(text);
    EXPECT_EQ(name->key, Variant::Text(text)) << text;
    EXPECT_EQ(FieldTable::Pooled(name->key), name) << text;
    const Variant copy = name->key;
    EXPECT_EQ(FieldTable::Pooled(copy), nullptr) << text;
    EXPECT_EQ(FieldTable::Pooled(Variant::Text(text)), nullptr) << text;
  }
  EXPECT_EQ(FieldTable::Pooled(Variant::I4(1)), nullptr);
  EXPECT_EQ(FieldTable::Pooled(Variant()), nullptr);
}

TEST(FieldTableTest, FindByPooledNameAndByTextAgree) {
  FieldTable table;
  for (int i = 0; i < 100; ++i) table.Set(N(L"K" + std::to_wstring(i)), Variant::Text(L"value " + std::to_wstring(i)));
  for (int i = 0; i < 100; ++i) {
    const std::wstring text = L"K" + std::to_wstring(i);
    const Variant* value = table.Find(N(text));
    ASSERT_NE(value, nullptr) << i;
    EXPECT_EQ(value, table.Find(text)) << i;
    EXPECT_EQ(*value, Variant::Text(L"value " + std::to_wstring(i))) << i;
  }
  EXPECT_EQ(table.Find(N(L"K100")), nullptr);
  EXPECT_EQ(FieldTable().Find(N(L"K1")), nullptr);
}

// A name interned from an address that later holds another text (shorter,
// longer, different, empty) gives the pooled name of the text now there.
TEST(FieldTableTest, InternAtFollowsTheTextNowAtTheAddress) {
  wchar_t buffer[16] = L"AtAlpha";
  const FieldTable::Name* alpha = FieldTable::InternAt(buffer);
  EXPECT_EQ(alpha, N(L"AtAlpha"));
  for (int round = 0; round < 2; ++round) {
    std::wcscpy(buffer, L"AtAlpha");
    EXPECT_EQ(FieldTable::InternAt(buffer), alpha) << round;
    std::wcscpy(buffer, L"AtBeta");
    EXPECT_EQ(FieldTable::InternAt(buffer), N(L"AtBeta")) << round;
    std::wcscpy(buffer, L"AtAlphaX");
    EXPECT_EQ(FieldTable::InternAt(buffer), N(L"AtAlphaX")) << round;
    std::wcscpy(buffer, L"AtAlph");
    EXPECT_EQ(FieldTable::InternAt(buffer), N(L"AtAlph")) << round;
    buffer[0] = L'\0';
    EXPECT_EQ(FieldTable::InternAt(buffer), N(L"")) << round;
  }
}

// Text values of every length (held inside the variant or not) keep their
// text through the moves of placing, giving way, growing and overwriting.
TEST(FieldTableTest, TextValuesSurvivePlacingAndGrowth) {
  FieldTable table;
  const auto value_of = [](int i, int round) {
    return Variant::Text(std::wstring(static_cast<std::size_t>(i % 9), static_cast<wchar_t>(L'a' + i % 26)) +
                         std::to_wstring(round));
  };
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 300; ++i) table.Set(N(L"T" + std::to_wstring(i)), value_of(i, round));
    EXPECT_EQ(table.size(), 300u);
    for (int i = 0; i < 300; ++i) {
      const Variant* value = table.Find(L"T" + std::to_wstring(i));
      ASSERT_NE(value, nullptr) << i;
      EXPECT_EQ(*value, value_of(i, round)) << i;
    }
  }
}

// Enough fields to grow the index several times; every one stays readable.
TEST(FieldTableTest, ManyFieldsThroughGrowth) {
  FieldTable table;
  for (int i = 0; i < 500; ++i) table.Set(N(L"F" + std::to_wstring(i)), Variant::I4(i));
  EXPECT_EQ(table.size(), 500u);
  for (int i = 0; i < 500; ++i) {
    const Variant* value = table.Find(L"F" + std::to_wstring(i));
    ASSERT_NE(value, nullptr) << i;
    EXPECT_EQ(value->i4(), i);
  }
  EXPECT_EQ(table.Find(L"F500"), nullptr);
}

// Removals in every order keep the others readable: the probe runs are
// closed up and the moved last entry is found again.
TEST(FieldTableTest, EraseKeepsTheOthers) {
  FieldTable table;
  const int n = 200;
  for (int i = 0; i < n; ++i) table.Set(N(L"E" + std::to_wstring(i)), Variant::I4(i));
  for (int i = 0; i < n; i += 3) table.Erase(N(L"E" + std::to_wstring(i)));
  table.Erase(N(L"never set"));
  for (int i = 0; i < n; ++i) {
    const Variant* value = table.Find(L"E" + std::to_wstring(i));
    if (i % 3 == 0) {
      EXPECT_EQ(value, nullptr) << i;
    } else {
      ASSERT_NE(value, nullptr) << i;
      EXPECT_EQ(value->i4(), i);
    }
  }
  for (int i = 0; i < n; ++i) table.Erase(N(L"E" + std::to_wstring(i)));
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(table.Find(L"E1"), nullptr);
  table.Set(N(L"E1"), Variant::I4(-1));
  EXPECT_EQ(table.Find(L"E1")->i4(), -1);
}

TEST(FieldTableTest, ReserveKeepsWhatIsThere) {
  FieldTable table;
  table.Reserve(3);
  for (int i = 0; i < 10; ++i) table.Set(N(L"R" + std::to_wstring(i)), Variant::I4(i));
  table.Reserve(100);
  table.Reserve(5);
  for (int i = 10; i < 100; ++i) table.Set(N(L"R" + std::to_wstring(i)), Variant::I4(i));
  EXPECT_EQ(table.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(table.Find(L"R" + std::to_wstring(i))->i4(), i);
}

// Random sets, overwrites and removals over a small set of names, checked
// against a plain map after every step: the Robin Hood moves and the
// backward shifts of removals keep every field findable.
TEST(FieldTableTest, AgreesWithAMapThroughRandomChanges) {
  FieldTable table;
  std::unordered_map<std::wstring, int32_t> expected;
  std::mt19937 random(7);
  for (int step = 0; step < 20000; ++step) {
    const std::wstring name = L"K" + std::to_wstring(random() % 60);
    const int32_t value = static_cast<int32_t>(random() % 1000);
    if (random() % 3 == 0) {
      table.Erase(N(name));
      expected.erase(name);
    } else {
      table.Set(N(name), Variant::I4(value));
      expected[name] = value;
    }
    ASSERT_EQ(table.size(), expected.size()) << step;
    if (step % 97 == 0) {
      for (int k = 0; k < 60; ++k) {
        const std::wstring key = L"K" + std::to_wstring(k);
        const Variant* found = table.Find(key);
        const auto it = expected.find(key);
        if (it == expected.end()) {
          ASSERT_EQ(found, nullptr) << step << " " << k;
        } else {
          ASSERT_NE(found, nullptr) << step << " " << k;
          ASSERT_EQ(found->i4(), it->second);
        }
      }
    }
  }
}

TEST(FieldTableTest, InternFromManyThreads) {
  std::vector<std::thread> threads;
  std::vector<std::vector<const FieldTable::Name*>> seen(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &seen] {
      for (int i = 0; i < 2000; ++i) seen[t].push_back(N(L"Pooled" + std::to_wstring(i)));
    });
  }
  for (auto& thread : threads) thread.join();
  for (int i = 0; i < 2000; ++i) {
    EXPECT_EQ(seen[0][i]->text, L"Pooled" + std::to_wstring(i));
    for (int t = 1; t < 4; ++t) EXPECT_EQ(seen[t][i], seen[0][i]);
  }
}

}  // namespace
}  // namespace tsm::basedata
