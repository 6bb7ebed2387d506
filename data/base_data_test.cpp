#include "data/base_data.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cwchar>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "basedata/base_data_entry.h"
#include "data/component_field_key.h"
#include "platform/module_path.h"
#include "platform/virtual_clock.h"
#include "testing/component_binding.h"

namespace tsm {
namespace {

struct Releaser {
  void operator()(IBaseData* object) const { object->Release(); }
};
using ObjectPtr = std::unique_ptr<IBaseData, Releaser>;

ObjectPtr NewObject(const wchar_t* name = L"Order") { return ObjectPtr(TsmCreateBaseData(name)); }

// One batch of one field, as every writer of the system does it.
int32_t Write(CBaseData& record, const wchar_t* field, const Variant& value) {
  const int32_t update_id = record.BeginUpdate();
  record.SetData(update_id, kKindFieldByName, Variant::Text(field), value);
  record.EndUpdate(update_id);
  return update_id;
}

class RecordingReceiver : public CBaseDataEventReceiver {
 public:
  struct Event {
    CBaseData* record;
    int32_t id;
    std::wstring text;
  };

  void OnDataUpdate(CBaseData* record, int32_t update_id, CString text) override {
    std::lock_guard<std::mutex> guard(lock_);
    updates_.push_back(Event{record, update_id, text.wstr()});
  }
  void OnDataReplace(CBaseData* record, int32_t id) override {
    std::lock_guard<std::mutex> guard(lock_);
    replaces_.push_back(Event{record, id, std::wstring()});
  }
  std::vector<Event> Updates() const {
    std::lock_guard<std::mutex> guard(lock_);
    return updates_;
  }
  std::vector<Event> Replaces() const {
    std::lock_guard<std::mutex> guard(lock_);
    return replaces_;
  }

 private:
  mutable std::mutex lock_;  // guards updates_ and replaces_
  std::vector<Event> updates_;
  std::vector<Event> replaces_;
};

// References held on `object` besides the caller's one.
uint32_t OtherReferences(IBaseData* object) {
  const uint32_t count = object->AddRef();
  object->Release();
  return count - 2;
}

// --- Unbound records ---

TEST(BaseDataTest, UnboundRecordGivesNeutralValues) {
  CBaseData record;
  EXPECT_FALSE(record.IsBound());
  EXPECT_EQ(record.BeginUpdate(), -1);
  record.SetData(1, kKindFieldByName, Variant::Text(L"OrderQty"), Variant::I4(5));
  record.EndUpdate(1);
  EXPECT_TRUE(record.GetData(kKindFieldByName, Variant::Text(L"OrderQty")).IsEmpty());
  EXPECT_TRUE(record.GetString(L"OrderQty").IsEmpty());
  EXPECT_EQ(record.GetLong(L"OrderQty", 77), 77);
  EXPECT_EQ(record.GetInt64(L"OrderQty", -5), -5);
  EXPECT_EQ(record.GetCount(), 0);
  EXPECT_TRUE(record.GetName().IsEmpty());
  EXPECT_TRUE(record.GetJsonString(L"Session", L"Open").IsEmpty());
  EXPECT_EQ(record.GetCookie(), 0u);
  EXPECT_EQ(record.OwnUpdateId(), -999);
  record.Disconnect();
}

// --- Binding ---

TEST(BaseDataTest, InitializeWithObjectTakesAReferenceAndDestructionGivesItBack) {
  ObjectPtr object = NewObject();
  {
    CBaseData record;
    ASSERT_TRUE(record.Initialize(nullptr, BindingOf(object.get())));
    EXPECT_TRUE(record.IsBound());
    EXPECT_EQ(OtherReferences(object.get()), 1u);
  }
  EXPECT_EQ(OtherReferences(object.get()), 0u);
}

TEST(BaseDataTest, InitializeOnBoundRecordKeepsTheBinding) {
  ObjectPtr first = NewObject(L"First");
  ObjectPtr second = NewObject(L"Second");
  CBaseData record;
  ASSERT_TRUE(record.Initialize(nullptr, BindingOf(first.get())));
  EXPECT_TRUE(record.Initialize(nullptr, BindingOf(second.get())));
  EXPECT_EQ(record.GetName(), L"First");
  EXPECT_EQ(OtherReferences(second.get()), 0u);
}

TEST(BaseDataTest, ModulePathWithoutReleaseFolderGoesThroughTheProgId) {
  // This test program does not lie under a "\NordaRelease\" folder.
  static const char marker = 0;
  const CString own_path = ModulePathContaining(&marker);
  ASSERT_FALSE(own_path.IsEmpty());
  ASSERT_LT(own_path.Find(L"\\NordaRelease\\"), 0);
  EXPECT_TRUE(CBaseData::ComponentPathForModule(own_path).IsEmpty());

  CBaseData probe;
  EXPECT_FALSE(probe.LoadComponent(L"QX_Data.BaseData.1"));
  EXPECT_FALSE(probe.IsBound());

  CBaseData record;
  ASSERT_TRUE(record.Initialize(nullptr));
  EXPECT_TRUE(record.IsBound());
  Write(record, L"Account", Variant::Text(L"A-1"));
  EXPECT_EQ(record.GetString(L"Account"), L"A-1");
}

TEST(BaseDataTest, ComponentPathKeepsTheFolderAndDoublesTheBackslash) {
  EXPECT_EQ(CBaseData::ComponentPathForModule(L"C:\\Platform\\NordaRelease\\Plugins\\TradeSlice.dll"),
            L"C:\\Platform\\NordaRelease\\\\Components\\QX_DataBase64.dll");
  // The first occurrence decides.
  EXPECT_EQ(CBaseData::ComponentPathForModule(L"D:\\NordaRelease\\x\\NordaRelease\\m.dll"),
            L"D:\\NordaRelease\\\\Components\\QX_DataBase64.dll");
}

TEST(BaseDataTest, ComponentPathIsEmptyWithoutTheFolderName) {
  EXPECT_TRUE(CBaseData::ComponentPathForModule(L"C:\\Platform\\Plugins\\TradeSlice.dll").IsEmpty());
  // Case-sensitive, and the backslashes on both sides are part of the name.
  EXPECT_TRUE(CBaseData::ComponentPathForModule(L"C:\\nordarelease\\TradeSlice.dll").IsEmpty());
  EXPECT_TRUE(CBaseData::ComponentPathForModule(L"C:\\NordaRelease").IsEmpty());
  EXPECT_TRUE(CBaseData::ComponentPathForModule(L"/opt/NordaRelease/TradeSlice.so").IsEmpty());
}

CString ComponentLibraryPath() { return ModulePathContaining(reinterpret_cast<const void*>(&TsmCreateBaseData)); }

TEST(BaseDataTest, LoadComponentFromTheLibraryBindsToANewObject) {
  const CString path = ComponentLibraryPath();
  ASSERT_FALSE(path.IsEmpty());
  CBaseData record;
  ASSERT_TRUE(record.LoadComponentFrom(path));
  EXPECT_TRUE(record.IsBound());
  Write(record, L"OrderQty", Variant::I4(300));
  EXPECT_EQ(record.GetLong(L"OrderQty", 0), 300);
}

TEST(BaseDataTest, LoadComponentFromAMissingLibraryFails) {
  CBaseData record;
  EXPECT_FALSE(record.LoadComponentFrom(ComponentLibraryPath() + L".missing"));
  EXPECT_FALSE(record.IsBound());
}

TEST(BaseDataTest, ClassObjectThatMakesNoObjectRaisesInsteadOfFallingBack) {
  CBaseData record;
  TsmFailCreateInstanceForTesting(1);
  try {
    record.LoadComponentFrom(ComponentLibraryPath());
    ADD_FAILURE() << "no ComError";
  } catch (const ComError& error) {
    EXPECT_EQ(error.code(), ComError::kNoObject);
  }
  TsmFailCreateInstanceForTesting(0);
  EXPECT_FALSE(record.IsBound());
}

// --- Reads ---

TEST(BaseDataTest, GetLongParsesLeadingDigitsOfText) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  Write(record, L"OrderQty", Variant::Text(L"12abc"));
  EXPECT_EQ(record.GetLong(L"OrderQty", -1), 12);
}

TEST(BaseDataTest, GetLongOnMissingFieldGivesTheDefault) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  EXPECT_EQ(record.GetLong(L"OrderQty", INT32_MIN), INT32_MIN);
}

// Reads by name through a buffer that is rewritten between reads, and by
// more distinct names than the record keeps keys for: each read asks for the
// field it names at that moment.
TEST(BaseDataTest, ReadsByManyNamesEachFindTheirOwnField) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  const int kNames = 1500;
  for (int i = 0; i < kNames; ++i) Write(record, (L"Field" + std::to_wstring(i)).c_str(), Variant::I4(i));
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < kNames; ++i) {
      const std::wstring name = L"Field" + std::to_wstring(i);
      ASSERT_EQ(record.GetLong(name.c_str(), -1), i) << round;
      ASSERT_EQ(record.GetString(name.c_str()), CString(std::to_wstring(i))) << round;
    }
  }
  wchar_t reused[16] = L"Field7";
  EXPECT_EQ(record.GetLong(reused, -1), 7);
  reused[5] = L'8';
  EXPECT_EQ(record.GetLong(reused, -1), 8);
  EXPECT_EQ(record.GetLong(L"Field", -1), -1);
}

// A name read once from an address is looked up faster from there the next
// time; a shorter, longer or different text at that address must still find
// its own field.
TEST(BaseDataTest, ReadFromTheSameAddressFollowsTheTextNowThere) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  Write(record, L"Side", Variant::Text(L"B"));
  Write(record, L"Side1", Variant::Text(L"S"));
  Write(record, L"Sid", Variant::Text(L"X"));
  wchar_t name[8] = L"Side";
  for (int round = 0; round < 2; ++round) {
    wcscpy(name, L"Side");
    EXPECT_EQ(record.GetString(name), CString(L"B")) << round;
    wcscpy(name, L"Side1");
    EXPECT_EQ(record.GetString(name), CString(L"S")) << round;
    wcscpy(name, L"Sid");
    EXPECT_EQ(record.GetString(name), CString(L"X")) << round;
    wcscpy(name, L"Sidf");
    EXPECT_EQ(record.GetString(name), CString()) << round;
    name[0] = L'\0';
    EXPECT_EQ(record.GetString(name), CString()) << round;
  }
}

// Reads by a name held in a CString find the same fields as reads by the
// literal, also for more distinct names than the record keeps keys for.
TEST(BaseDataTest, ReadsByCStringNamesFindTheirOwnField) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  const int kNames = 1200;
  for (int i = 0; i < kNames; ++i) Write(record, (L"Named" + std::to_wstring(i)).c_str(), Variant::I4(i));
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < kNames; ++i) {
      const CString name(L"Named" + std::to_wstring(i));
      ASSERT_EQ(record.GetLong(name, -1), i) << round;
      ASSERT_EQ(record.GetString(name), CString(std::to_wstring(i))) << round;
    }
  }
  EXPECT_EQ(record.GetLong(CString(L"Named"), -1), -1);
  EXPECT_EQ(record.GetValue(CString()), Variant());
}

// Where the component offers keys of its own, a write or read by the key
// reaches the same field as one by its text.
TEST(BaseDataTest, ComponentKeyNamesTheSameFieldAsItsText) {
  const Variant* key = ComponentFieldKey(L"KeyedQty");
  if (key == nullptr) GTEST_SKIP() << "the component offers no keys of its own here";
  EXPECT_EQ(*key, Variant::Text(L"KeyedQty"));
  EXPECT_EQ(ComponentFieldKey(L"KeyedQty"), key);
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  Write(record, L"KeyedQty", Variant::I4(5));
  EXPECT_EQ(record.GetData(kKindFieldByName, *key), Variant::I4(5));
  const int32_t update_id = record.BeginUpdate();
  record.SetData(update_id, kKindFieldByName, *key, Variant::Text(L"six"));
  record.EndUpdate(update_id);
  EXPECT_EQ(record.GetString(L"KeyedQty"), CString(L"six"));
  EXPECT_EQ(record.GetData(kKindFieldByName, Variant::Text(L"KeyedQty")), Variant::Text(L"six"));
}

TEST(BaseDataTest, GetLongTakesI4AndIgnoresOtherTypes) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  Write(record, L"Small", Variant::I4(-42));
  Write(record, L"Wide", Variant::I8(7));
  EXPECT_EQ(record.GetLong(L"Small", 0), -42);
  EXPECT_EQ(record.GetLong(L"Wide", 99), 99);
}

TEST(BaseDataTest, GetInt64TakesI8I4AndText) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  Write(record, L"Price", Variant::I8(INT64_C(123456789012)));
  Write(record, L"Negative", Variant::I4(-3));
  Write(record, L"Text", Variant::Text(L"-9000000000x"));
  EXPECT_EQ(record.GetInt64(L"Price", 0), INT64_C(123456789012));
  EXPECT_EQ(record.GetInt64(L"Negative", 0), -3);
  EXPECT_EQ(record.GetInt64(L"Text", 0), INT64_C(-9000000000));
  EXPECT_EQ(record.GetInt64(L"Missing", INT64_MIN), INT64_MIN);
}

TEST(BaseDataTest, GetInt64ByIdOnI4FieldGivesSmallestInt64) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  const int32_t update_id = record.BeginUpdate();
  record.SetData(update_id, kKindFieldById, Variant::I4(44), Variant::I4(1500));
  record.SetData(update_id, kKindFieldById, Variant::I4(45), Variant::I8(1500));
  record.EndUpdate(update_id);
  EXPECT_EQ(record.GetData(kKindFieldById, Variant::I4(44)), Variant::I4(1500));
  EXPECT_EQ(record.GetInt64ById(44), INT64_MIN);
  EXPECT_EQ(record.GetInt64ById(45), 1500);
  EXPECT_EQ(record.GetInt64ById(46), INT64_MIN);
}

TEST(BaseDataTest, GetStringConvertsNumbersToText) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  Write(record, L"Qty", Variant::I4(-12));
  Write(record, L"Price", Variant::I8(INT64_C(9876543210)));
  EXPECT_EQ(record.GetString(L"Qty"), L"-12");
  EXPECT_EQ(record.GetString(L"Price"), L"9876543210");
  EXPECT_TRUE(record.GetString(L"Missing").IsEmpty());
  EXPECT_EQ(record.GetValue(L"Qty"), Variant::I4(-12));
}

TEST(BaseDataTest, NonAsciiTextSurvivesWriteAndRead) {
  // An account name in Chinese, and a character outside the 16-bit plane.
  const std::wstring account = L"\u6D4B\u8BD5\u8D26\u6237\u4E00\u53F7 \U0001F4C8";
  ObjectPtr object = NewObject(L"\u8D26\u6237");
  CBaseData writer;
  writer.Initialize(nullptr, BindingOf(object.get()));
  Write(writer, L"\u8D26\u6237\u540D", Variant::Text(account));
  CBaseData reader;
  reader.Initialize(nullptr, BindingOf(object.get()));
  EXPECT_EQ(reader.GetString(L"\u8D26\u6237\u540D").wstr(), account);
  EXPECT_EQ(reader.GetName(), L"\u8D26\u6237");
}

TEST(BaseDataTest, WritesOfOneBatchTakeEffectAtEndUpdate) {
  ObjectPtr object = NewObject();
  CBaseData writer, reader;
  writer.Initialize(nullptr, BindingOf(object.get()));
  reader.Initialize(nullptr, BindingOf(object.get()));
  const int32_t update_id = writer.BeginUpdate();
  writer.SetData(update_id, kKindFieldByName, Variant::Text(L"OrderQty"), Variant::I4(10));
  writer.SetData(update_id, kKindFieldByName, Variant::Text(L"LeavesQty"), Variant::I4(10));
  EXPECT_EQ(reader.GetLong(L"OrderQty", -1), -1);
  writer.EndUpdate(update_id);
  EXPECT_EQ(reader.GetLong(L"OrderQty", -1), 10);
  EXPECT_EQ(reader.GetLong(L"LeavesQty", -1), 10);
}

TEST(BaseDataTest, GetNameReadsTheComponentOnlyOnce) {
  ObjectPtr object = NewObject(L"Order");
  CBaseData record, renamer;
  record.Initialize(nullptr, BindingOf(object.get()));
  renamer.Initialize(nullptr, BindingOf(object.get()));
  EXPECT_EQ(record.GetName(), L"Order");
  const int32_t update_id = renamer.BeginUpdate();
  renamer.SetData(update_id, kKindName, Variant(), Variant::Text(L"Renamed"));
  renamer.EndUpdate(update_id);
  EXPECT_EQ(renamer.GetName(), L"Renamed");
  EXPECT_EQ(record.GetName(), L"Order");
}

TEST(BaseDataTest, GetCountReadsTheNumberOfChildren) {
  ObjectPtr parent = NewObject(L"Parent");
  ObjectPtr child = NewObject(L"Child");
  CBaseData record;
  record.Initialize(nullptr, BindingOf(parent.get()));
  EXPECT_EQ(record.GetCount(), 0);
  TsmAppendChild(parent.get(), child.get());
  TsmAppendChild(parent.get(), child.get());
  EXPECT_EQ(record.GetCount(), 2);
}

TEST(BaseDataTest, GetLongParsesTextLikeTheWindowsRuntime) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  Write(record, L"Spaced", Variant::Text(L" \t\r\n-42 lots"));
  Write(record, L"Plus", Variant::Text(L"+7"));
  Write(record, L"Letters", Variant::Text(L"abc"));
  Write(record, L"Empty", Variant::Text(L""));
  Write(record, L"Max", Variant::Text(L"2147483647"));
  Write(record, L"Min", Variant::Text(L"-2147483648"));
  Write(record, L"TooBig", Variant::Text(L"2147483648"));
  Write(record, L"TooSmall", Variant::Text(L"-99999999999"));
  EXPECT_EQ(record.GetLong(L"Spaced", -1), -42);
  EXPECT_EQ(record.GetLong(L"Plus", -1), 7);
  // Text without digits is a number too: 0, not the default.
  EXPECT_EQ(record.GetLong(L"Letters", -1), 0);
  EXPECT_EQ(record.GetLong(L"Empty", -1), 0);
  EXPECT_EQ(record.GetLong(L"Max", 0), INT32_MAX);
  EXPECT_EQ(record.GetLong(L"Min", 0), INT32_MIN);
  // Results are 32-bit: out-of-range text is clamped to the nearest end.
  EXPECT_EQ(record.GetLong(L"TooBig", 0), INT32_MAX);
  EXPECT_EQ(record.GetLong(L"TooSmall", 0), INT32_MIN);
}

TEST(BaseDataTest, GetInt64ParsesTextLikeTheWindowsRuntime) {
  ObjectPtr object = NewObject();
  CBaseData record;
  record.Initialize(nullptr, BindingOf(object.get()));
  Write(record, L"Spaced", Variant::Text(L"  +5000000000abc"));
  Write(record, L"Letters", Variant::Text(L"x1"));
  Write(record, L"TooBig", Variant::Text(L"9223372036854775808"));
  EXPECT_EQ(record.GetInt64(L"Spaced", -1), INT64_C(5000000000));
  EXPECT_EQ(record.GetInt64(L"Letters", -1), 0);
  EXPECT_EQ(record.GetInt64(L"TooBig", 0), INT64_MAX);
}

TEST(BaseDataTest, ChineseAccountNameSurvivesARecordRead) {
  const std::wstring account = L"\u5F20\u4E09\u7684\u8D44\u91D1\u8D26\u6237";
  ObjectPtr object = NewObject();
  CBaseData writer;
  writer.Initialize(nullptr, BindingOf(object.get()));
  Write(writer, L"Account", Variant::Text(account));
  // A record of the same object, as another thread would build it.
  std::unique_ptr<CBaseData> reader(CBaseData::FromCookie(writer.GetCookie(), nullptr));
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(reader->GetString(L"Account").wstr(), account);
  EXPECT_EQ(reader->GetString(L"Account").GetLength(), 7);
  EXPECT_EQ(reader->GetLong(L"Account", -1), 0);
}

// --- JSON ---

class BaseDataJsonTest : public ::testing::Test {
 protected:
  void SetUp() override { record_.Initialize(nullptr, BindingOf(object_.get())); }
  void Store(const wchar_t* field, const Variant& value) { Write(record_, field, value); }

  ObjectPtr object_ = NewObject();
  CBaseData record_;
};

TEST_F(BaseDataJsonTest, GetJsonStringReturnsAStringMember) {
  Store(L"Session", Variant::Text(L"{\"Open\":\"09:30\",\"Close\":\"15:00\"}"));
  EXPECT_EQ(record_.GetJsonString(L"Session", L"Open"), L"09:30");
  EXPECT_EQ(record_.GetJsonString(L"Session", L"Close"), L"15:00");
}

TEST_F(BaseDataJsonTest, GetJsonStringOfANumberMemberIsEmpty) {
  Store(L"Session", Variant::Text(L"{\"Lots\":100,\"Open\":\"09:30\"}"));
  EXPECT_TRUE(record_.GetJsonString(L"Session", L"Lots").IsEmpty());
}

TEST_F(BaseDataJsonTest, GetJsonStringIsEmptyWhenTheMemberOrTheDocumentIsMissing) {
  Store(L"Session", Variant::Text(L"{\"Open\":\"09:30\"}"));
  Store(L"Broken", Variant::Text(L"{\"Open\":\"09:30\""));
  Store(L"List", Variant::Text(L"[\"Open\"]"));
  Store(L"Number", Variant::I4(5));
  EXPECT_TRUE(record_.GetJsonString(L"Session", L"Close").IsEmpty());
  EXPECT_TRUE(record_.GetJsonString(L"Missing", L"Open").IsEmpty());
  EXPECT_TRUE(record_.GetJsonString(L"Broken", L"Open").IsEmpty());
  EXPECT_TRUE(record_.GetJsonString(L"List", L"Open").IsEmpty());
  EXPECT_TRUE(record_.GetJsonString(L"Number", L"Open").IsEmpty());
}

TEST_F(BaseDataJsonTest, GetJsonStringKeepsNonAsciiText) {
  Store(L"Security", Variant::Text(L"{\"\u540D\u79F0\":\"\u6D66\u53D1\u94F6\u884C \U0001F4B9\",\"Esc\":\"\\u4E0A\\uD83D\\uDE00\"}"));
  EXPECT_EQ(record_.GetJsonString(L"Security", L"\u540D\u79F0").wstr(), L"\u6D66\u53D1\u94F6\u884C \U0001F4B9");
  EXPECT_EQ(record_.GetJsonString(L"Security", L"Esc").wstr(), L"\u4E0A\U0001F600");
}

// A member read through 512 levels of arrays and objects; one level more and
// the text is not read (the parser would recurse once per level).
TEST_F(BaseDataJsonTest, GetJsonStringReadsNothingNestedDeeperThanTheLimit) {
  auto nested = [](int depth) {
    std::wstring text = L"{\"Open\":\"09:30\",\"Deep\":";
    const std::size_t inner = static_cast<std::size_t>(depth - 1);  // the root object is one level
    return text + std::wstring(inner, L'[') + std::wstring(inner, L']') + L"}";
  };
  Store(L"AtLimit", Variant::Text(nested(kJsonMaxDepth)));
  Store(L"PastLimit", Variant::Text(nested(kJsonMaxDepth + 1)));
  Store(L"BracketsInText", Variant::Text(L"{\"Open\":\"" + std::wstring(1000, L'[') + L"\"}"));
  EXPECT_EQ(record_.GetJsonString(L"AtLimit", L"Open"), L"09:30");
  EXPECT_TRUE(record_.GetJsonString(L"PastLimit", L"Open").IsEmpty());
  EXPECT_EQ(record_.GetJsonString(L"BracketsInText", L"Open").wstr(), std::wstring(1000, L'['));
}

// --- Children ---

class BaseDataChildrenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TsmAppendChild(parent_.get(), first_.get());
    TsmAppendChild(parent_.get(), second_.get());
    record_.Initialize(nullptr, BindingOf(parent_.get()));
  }

  VirtualClock clock_;
  ObjectPtr parent_ = NewObject(L"Parent");
  ObjectPtr first_ = NewObject(L"First");
  ObjectPtr second_ = NewObject(L"Second");
  ObjectPtr third_ = NewObject(L"Third");
  CBaseData record_{&clock_};
};

TEST_F(BaseDataChildrenTest, GetChildAtGivesARecordOfThatChild) {
  std::unique_ptr<CBaseData> child(record_.GetChildAt(1, nullptr));
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(child->GetName(), L"Second");
  EXPECT_EQ(clock_.SleptMs(), 0);
}

TEST_F(BaseDataChildrenTest, GetChildAtIndexEqualToCountReturnsNullWithoutSleeping) {
  // A pending failure would be used up by any read of a child.
  TsmFailChildReadsForTesting(parent_.get(), 1);
  EXPECT_EQ(record_.GetChildAt(2, nullptr), nullptr);
  EXPECT_EQ(clock_.SleptMs(), 0);
  std::unique_ptr<CBaseData> child(record_.GetChildAt(0, nullptr));
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(clock_.SleptMs(), CBaseData::kChildRetryMs);
}

TEST_F(BaseDataChildrenTest, GetChildAtRereadsTheCountOnceWhenTheIndexIsBeyondTheCache) {
  EXPECT_EQ(record_.GetCount(), 2);
  TsmAppendChild(parent_.get(), third_.get());
  std::unique_ptr<CBaseData> child(record_.GetChildAt(2, nullptr));
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(child->GetName(), L"Third");
  EXPECT_EQ(clock_.SleptMs(), 0);
}

TEST_F(BaseDataChildrenTest, ChildThatCannotBeDeliveredIsAsked20Times50MsApart) {
  // Five more failures than attempts: what is left shows how many were made.
  TsmFailChildReadsForTesting(parent_.get(), CBaseData::kChildAttempts + 5);
  EXPECT_EQ(record_.GetChildAt(0, nullptr), nullptr);
  EXPECT_EQ(clock_.SleptMs(), 1000);
  std::unique_ptr<CBaseData> child(record_.GetChildAt(0, nullptr));
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(clock_.SleptMs(), 1000 + 5 * CBaseData::kChildRetryMs);
}

TEST_F(BaseDataChildrenTest, ChildDeliveredLateIsReturnedAfterTheRetries) {
  TsmFailChildReadsForTesting(parent_.get(), 3);
  std::unique_ptr<CBaseData> child(record_.GetChildAt(0, nullptr));
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(child->GetName(), L"First");
  EXPECT_EQ(clock_.SleptMs(), 3 * CBaseData::kChildRetryMs);
}

TEST_F(BaseDataChildrenTest, NegativeIndexPassesTheBoundsAndGoesToTheComponent) {
  EXPECT_EQ(record_.GetChildAt(-2, nullptr), nullptr);
  EXPECT_EQ(clock_.SleptMs(), CBaseData::kChildAttempts * CBaseData::kChildRetryMs);
}

TEST_F(BaseDataChildrenTest, ChildRecordListensWithTheGivenReceiver) {
  RecordingReceiver events;
  std::unique_ptr<CBaseData> child(record_.GetChildAt(0, &events));
  ASSERT_NE(child, nullptr);
  CBaseData writer;
  writer.Initialize(nullptr, BindingOf(first_.get()));
  const int32_t update_id = Write(writer, L"ExecType", Variant::Text(L"F"));
  TsmWaitEventsDelivered();
  const auto updates = events.Updates();
  ASSERT_EQ(updates.size(), 1u);
  EXPECT_EQ(updates[0].record, child.get());
  EXPECT_EQ(updates[0].id, update_id);
}

TEST_F(BaseDataChildrenTest, GetChildReadsTheChildInAField) {
  TsmSetChild(parent_.get(), L"Leg", third_.get());
  std::unique_ptr<CBaseData> child(record_.GetChild(L"Leg", nullptr));
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(child->GetName(), L"Third");
  EXPECT_EQ(record_.GetChild(L"Missing", nullptr), nullptr);
  EXPECT_EQ(clock_.SleptMs(), 0);
}

// --- What the record asks of the component ---

// Stands between a record and a real object and notes every read the record
// makes: the number of reads of each kind, and the clock's slept time at each
// read of a child by index.
class ReadCounter final : public IBaseData {
 public:
  ReadCounter(IBaseData* inner, VirtualClock& clock) : inner_(inner), clock_(clock) { inner_->AddRef(); }
  ~ReadCounter() { inner_->Release(); }
  ReadCounter(const ReadCounter&) = delete;
  ReadCounter& operator=(const ReadCounter&) = delete;

  // Owned by the test, which outlives every record bound to it.
  uint32_t AddRef() override { return ++refs_; }
  uint32_t Release() override { return --refs_; }

  int32_t BeginUpdate() override { return inner_->BeginUpdate(); }
  void SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value) override {
    inner_->SetData(update_id, kind, key, value);
  }
  void EndUpdate(int32_t update_id) override { inner_->EndUpdate(update_id); }
  Variant GetData(int32_t kind, const Variant& argument) override {
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (kind == kKindChildren && argument.type() == VarType::I4 && argument.i4() == -1) {
        ++count_reads_;
      } else if (kind == kKindChildren) {
        child_reads_at_.push_back(clock_.SleptMs());
      } else if (kind == kKindName) {
        ++name_reads_;
      }
    }
    return inner_->GetData(kind, argument);
  }
  HResult Advise(IBaseDataEvents* sink, uint32_t* cookie) override { return inner_->Advise(sink, cookie); }
  HResult Unadvise(uint32_t cookie) override { return inner_->Unadvise(cookie); }

  int CountReads() {
    std::lock_guard<std::mutex> guard(lock_);
    return count_reads_;
  }
  std::vector<int64_t> ChildReadsAt() {
    std::lock_guard<std::mutex> guard(lock_);
    return child_reads_at_;
  }
  int NameReads() {
    std::lock_guard<std::mutex> guard(lock_);
    return name_reads_;
  }

 private:
  IBaseData* const inner_;
  VirtualClock& clock_;
  std::atomic<uint32_t> refs_{0};
  std::mutex lock_;  // guards the counts below
  int count_reads_ = 0;
  std::vector<int64_t> child_reads_at_;
  int name_reads_ = 0;
};

class BaseDataReadsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TsmAppendChild(parent_.get(), first_.get());
    TsmAppendChild(parent_.get(), second_.get());
    ASSERT_TRUE(record_.Initialize(nullptr, BindingOf(&counter_)));
  }

  VirtualClock clock_;
  ObjectPtr parent_ = NewObject(L"Parent");
  ObjectPtr first_ = NewObject(L"First");
  ObjectPtr second_ = NewObject(L"Second");
  ReadCounter counter_{parent_.get(), clock_};
  CBaseData record_{&clock_};
};

TEST_F(BaseDataReadsTest, GetChildAtIndexEqualToCountRereadsTheCountOnceWithoutSleeping) {
  // The empty cache is filled once, then re-read once for the index.
  EXPECT_EQ(record_.GetChildAt(2, nullptr), nullptr);
  EXPECT_EQ(counter_.CountReads(), 2);
  EXPECT_TRUE(counter_.ChildReadsAt().empty());
  EXPECT_EQ(clock_.SleptMs(), 0);

  // With the cache filled, only the one re-read.
  EXPECT_EQ(record_.GetChildAt(2, nullptr), nullptr);
  EXPECT_EQ(counter_.CountReads(), 3);
  EXPECT_TRUE(counter_.ChildReadsAt().empty());
  EXPECT_EQ(clock_.SleptMs(), 0);

  // An index below the cached count reads no count at all.
  std::unique_ptr<CBaseData> child(record_.GetChildAt(1, nullptr));
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(counter_.CountReads(), 3);
  EXPECT_EQ(counter_.ChildReadsAt(), std::vector<int64_t>{0});
}

TEST_F(BaseDataReadsTest, UndeliverableChildIsAskedTwentyTimesFiftyMsApart) {
  TsmFailChildReadsForTesting(parent_.get(), 1000);
  EXPECT_EQ(record_.GetChildAt(0, nullptr), nullptr);
  std::vector<int64_t> expected;
  for (int attempt = 0; attempt < 20; ++attempt) expected.push_back(attempt * 50);
  EXPECT_EQ(counter_.ChildReadsAt(), expected);
  TsmFailChildReadsForTesting(parent_.get(), 0);
}

TEST_F(BaseDataReadsTest, GetNameAsksTheComponentOnceEvenAfterARename) {
  EXPECT_EQ(record_.GetName(), L"Parent");
  EXPECT_EQ(record_.GetName(), L"Parent");
  CBaseData renamer;
  renamer.Initialize(nullptr, BindingOf(parent_.get()));
  const int32_t update_id = renamer.BeginUpdate();
  renamer.SetData(update_id, kKindName, Variant(), Variant::Text(L"Renamed"));
  renamer.EndUpdate(update_id);
  EXPECT_EQ(record_.GetName(), L"Parent");
  EXPECT_EQ(counter_.NameReads(), 1);
}

TEST(BaseDataNameTest, EmptyNameIsNotCachedAndIsAskedForAgain) {
  VirtualClock clock;
  ObjectPtr object = NewObject(L"");
  ReadCounter counter(object.get(), clock);
  CBaseData record;
  ASSERT_TRUE(record.Initialize(nullptr, BindingOf(&counter)));
  EXPECT_TRUE(record.GetName().IsEmpty());
  EXPECT_TRUE(record.GetName().IsEmpty());
  EXPECT_EQ(counter.NameReads(), 2);
  CBaseData renamer;
  renamer.Initialize(nullptr, BindingOf(object.get()));
  const int32_t update_id = renamer.BeginUpdate();
  renamer.SetData(update_id, kKindName, Variant(), Variant::Text(L"Named"));
  renamer.EndUpdate(update_id);
  EXPECT_EQ(record.GetName(), L"Named");
  EXPECT_EQ(record.GetName(), L"Named");
  EXPECT_EQ(counter.NameReads(), 3);
}

// --- Cookies ---

TEST(BaseDataCookieTest, GetCookieRegistersOnceAndDestructionRevokes) {
  ObjectPtr object = NewObject();
  uint32_t cookie = 0;
  {
    CBaseData record;
    record.Initialize(nullptr, BindingOf(object.get()));
    cookie = record.GetCookie();
    ASSERT_NE(cookie, 0u);
    EXPECT_EQ(record.GetCookie(), cookie);
    EXPECT_EQ(OtherReferences(object.get()), 2u);
  }
  IBaseData* fetched = nullptr;
  EXPECT_EQ(TsmGetGlobalInterfaceTable()->GetInterfaceFromGlobal(cookie, &fetched), kE_INVALIDARG);
  EXPECT_EQ(fetched, nullptr);
  EXPECT_EQ(OtherReferences(object.get()), 0u);
}

TEST(BaseDataCookieTest, FromCookieMakesAnIndependentRecordOfTheSameObject) {
  ObjectPtr object = NewObject();
  CBaseData owner;
  owner.Initialize(nullptr, BindingOf(object.get()));
  Write(owner, L"LevelKey", Variant::Text(L"K-1"));
  std::unique_ptr<CBaseData> copy(CBaseData::FromCookie(owner.GetCookie(), nullptr));
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy.get(), &owner);
  EXPECT_EQ(copy->GetString(L"LevelKey"), L"K-1");
  EXPECT_NE(copy->GetCookie(), owner.GetCookie());
}

TEST(BaseDataCookieTest, FromCookieOfAnUnknownCookieIsNull) {
  EXPECT_EQ(CBaseData::FromCookie(0, nullptr), nullptr);
  EXPECT_EQ(CBaseData::FromCookie(0xFFFFFFF0u, nullptr), nullptr);
}

TEST(BaseDataCookieTest, CookieRoundTripAcrossThreads) {
  ObjectPtr object = NewObject();
  CBaseData owner;
  owner.Initialize(nullptr, BindingOf(object.get()));
  Write(owner, L"Account", Variant::Text(L"\u8D26\u6237-7"));
  const uint32_t cookie = owner.GetCookie();
  ASSERT_NE(cookie, 0u);

  std::wstring seen;
  std::thread other([&] {
    std::unique_ptr<CBaseData> record(CBaseData::FromCookie(cookie, nullptr));
    if (record == nullptr) return;
    seen = record->GetString(L"Account").wstr();
    Write(*record, L"Reply", Variant::I4(1));
  });
  other.join();
  EXPECT_EQ(seen, L"\u8D26\u6237-7");
  EXPECT_EQ(owner.GetLong(L"Reply", 0), 1);
}

TEST(BaseDataCookieTest, CookieMadeOnAnotherThreadOpensHere) {
  ObjectPtr object = NewObject(L"Reply");
  std::unique_ptr<CBaseData> worker_record;
  uint32_t cookie = 0;
  std::thread worker([&] {
    worker_record = std::make_unique<CBaseData>();
    worker_record->Initialize(nullptr, BindingOf(object.get()));
    Write(*worker_record, L"Status", Variant::Text(L"done"));
    cookie = worker_record->GetCookie();
  });
  worker.join();
  std::unique_ptr<CBaseData> here(CBaseData::FromCookie(cookie, nullptr));
  ASSERT_NE(here, nullptr);
  EXPECT_EQ(here->GetString(L"Status"), L"done");
  EXPECT_EQ(here->GetName(), L"Reply");
}

// --- Events ---

class BaseDataEventsTest : public ::testing::Test {
 protected:
  ObjectPtr object_ = NewObject();
};

TEST_F(BaseDataEventsTest, OwnUpdateIsDroppedButReachesAnotherRecordOfTheSameObject) {
  RecordingReceiver mine, theirs;
  CBaseData writer, other;
  writer.Initialize(&mine, BindingOf(object_.get()));
  other.Initialize(&theirs, BindingOf(object_.get()));
  const int32_t update_id = Write(writer, L"OrderQty", Variant::I4(100));
  EXPECT_EQ(writer.OwnUpdateId(), update_id);
  TsmWaitEventsDelivered();
  EXPECT_TRUE(mine.Updates().empty());
  const auto updates = theirs.Updates();
  ASSERT_EQ(updates.size(), 1u);
  EXPECT_EQ(updates[0].record, &other);
  EXPECT_EQ(updates[0].id, update_id);
  EXPECT_EQ(updates[0].text, L"OrderQty");
}

TEST_F(BaseDataEventsTest, OlderOwnUpdatesAreDeliveredOnceANewerOneIsOpened) {
  RecordingReceiver events;
  CBaseData record;
  record.Initialize(&events, BindingOf(object_.get()));
  const int32_t first = record.BeginUpdate();
  const int32_t second = record.BeginUpdate();
  record.EndUpdate(first);
  record.EndUpdate(second);
  TsmWaitEventsDelivered();
  const auto updates = events.Updates();
  ASSERT_EQ(updates.size(), 1u);
  EXPECT_EQ(updates[0].id, first);
}

TEST_F(BaseDataEventsTest, OwnUpdateIdIsMinus999BeforeAnyBeginUpdate) {
  RecordingReceiver fresh_events, used_events;
  CBaseData fresh, used, writer;
  fresh.Initialize(&fresh_events, BindingOf(object_.get()));
  used.Initialize(&used_events, BindingOf(object_.get()));
  writer.Initialize(nullptr, BindingOf(object_.get()));
  EXPECT_EQ(fresh.OwnUpdateId(), -999);
  used.EndUpdate(used.BeginUpdate());
  ASSERT_NE(used.OwnUpdateId(), -999);

  // Closing an update that was never opened still raises its event.
  writer.EndUpdate(-999);
  writer.EndUpdate(-998);
  TsmWaitEventsDelivered();
  const auto fresh_updates = fresh_events.Updates();
  ASSERT_EQ(fresh_updates.size(), 2u);
  EXPECT_EQ(fresh_updates[0].id, used.OwnUpdateId());
  EXPECT_EQ(fresh_updates[1].id, -998);
  const auto used_updates = used_events.Updates();
  ASSERT_EQ(used_updates.size(), 2u);
  EXPECT_EQ(used_updates[0].id, -999);
  EXPECT_EQ(used_updates[1].id, -998);
}

TEST_F(BaseDataEventsTest, DeliverOwnUpdatesFlagLetsOwnWritesThrough) {
  RecordingReceiver events;
  CBaseData record;
  record.Initialize(&events, BindingOf(object_.get()));
  record.SetDeliverOwnUpdates(1);
  const int32_t update_id = Write(record, L"SendQty", Variant::I4(5));
  TsmWaitEventsDelivered();
  const auto updates = events.Updates();
  ASSERT_EQ(updates.size(), 1u);
  EXPECT_EQ(updates[0].id, update_id);
  EXPECT_EQ(updates[0].record, &record);
}

TEST_F(BaseDataEventsTest, UpdatesArriveInTheOrderTheyWereClosedWithTheirFieldNames) {
  RecordingReceiver events;
  CBaseData listened, writer;
  listened.Initialize(&events, BindingOf(object_.get()));
  writer.Initialize(nullptr, BindingOf(object_.get()));
  std::vector<int32_t> ids;
  for (int i = 0; i < 50; ++i) {
    const int32_t update_id = writer.BeginUpdate();
    writer.SetData(update_id, kKindFieldByName, Variant::Text(L"CumQty"), Variant::I4(i));
    writer.SetData(update_id, kKindFieldByName, Variant::Text(L"LeavesQty"), Variant::I4(50 - i));
    writer.EndUpdate(update_id);
    ids.push_back(update_id);
  }
  TsmWaitEventsDelivered();
  const auto updates = events.Updates();
  ASSERT_EQ(updates.size(), ids.size());
  for (std::size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(updates[i].id, ids[i]);
    EXPECT_EQ(updates[i].text, L"CumQty,LeavesQty");
  }
}

TEST_F(BaseDataEventsTest, RecordWithoutReceiverHearsNothing) {
  RecordingReceiver events;
  CBaseData deaf, writer;
  deaf.Initialize(nullptr, BindingOf(object_.get()));
  writer.Initialize(nullptr, BindingOf(object_.get()));
  // A receiver stored after binding does not connect the record.
  deaf.Initialize(&events, BindingOf(object_.get()));
  Write(writer, L"ExecType", Variant::Text(L"0"));
  TsmRaiseReplace(object_.get(), 3);
  TsmWaitEventsDelivered();
  EXPECT_TRUE(events.Updates().empty());
  EXPECT_TRUE(events.Replaces().empty());
}

TEST_F(BaseDataEventsTest, ReplaceReachesTheReceiver) {
  RecordingReceiver events;
  CBaseData record;
  record.Initialize(&events, BindingOf(object_.get()));
  TsmRaiseReplace(object_.get(), 7);
  TsmWaitEventsDelivered();
  const auto replaces = events.Replaces();
  ASSERT_EQ(replaces.size(), 1u);
  EXPECT_EQ(replaces[0].record, &record);
  EXPECT_EQ(replaces[0].id, 7);
}

TEST_F(BaseDataEventsTest, DisconnectStopsEventsButKeepsTheBinding) {
  RecordingReceiver events;
  CBaseData record, writer;
  record.Initialize(&events, BindingOf(object_.get()));
  writer.Initialize(nullptr, BindingOf(object_.get()));
  record.Disconnect();
  Write(writer, L"ExecType", Variant::Text(L"4"));
  TsmRaiseReplace(object_.get(), 1);
  TsmWaitEventsDelivered();
  EXPECT_TRUE(events.Updates().empty());
  EXPECT_TRUE(events.Replaces().empty());
  EXPECT_TRUE(record.IsBound());
  EXPECT_EQ(record.GetString(L"ExecType"), L"4");
  Write(record, L"ExecType", Variant::Text(L"8"));
  EXPECT_EQ(writer.GetString(L"ExecType"), L"8");
}

TEST_F(BaseDataEventsTest, DestroyedRecordLetsGoOfItsConnection) {
  RecordingReceiver events;
  auto* record = new CBaseData();
  record->Initialize(&events, BindingOf(object_.get()));
  delete record;
  CBaseData writer;
  writer.Initialize(nullptr, BindingOf(object_.get()));
  Write(writer, L"ExecType", Variant::Text(L"2"));
  TsmWaitEventsDelivered();
  EXPECT_TRUE(events.Updates().empty());
  EXPECT_EQ(OtherReferences(object_.get()), 1u);
}

// --- Concurrency: events racing Disconnect and destruction ---

// Counts receiver calls that start after the record was let go of.
class GuardedReceiver : public CBaseDataEventReceiver {
 public:
  explicit GuardedReceiver(std::atomic<int>* late_calls) : late_calls_(late_calls) {}
  void OnDataUpdate(CBaseData* record, int32_t update_id, CString text) override {
    if (released_.load()) late_calls_->fetch_add(1);
    calls_.fetch_add(1);
  }
  void LetGo() { released_.store(true); }
  int Calls() const { return calls_.load(); }

 private:
  std::atomic<bool> released_{false};
  std::atomic<int> calls_{0};
  std::atomic<int>* late_calls_;
};

// Writes to `object` on its own thread until stopped, or a bounded number of
// times.
class BackgroundWriter {
 public:
  explicit BackgroundWriter(IBaseData* object) : thread_([this, object] { Run(object); }) {}
  ~BackgroundWriter() { Stop(); }
  void Stop() {
    stop_.store(true);
    if (thread_.joinable()) thread_.join();
  }

 private:
  void Run(IBaseData* object) {
    CBaseData writer;
    writer.Initialize(nullptr, BindingOf(object));
    for (int i = 0; i < 20000 && !stop_.load(); ++i) Write(writer, L"CumQty", Variant::I4(i));
  }

  std::atomic<bool> stop_{false};
  std::thread thread_;
};

constexpr int kRaceRounds = 200;

TEST(BaseDataConcurrencyTest, NoReceiverCallStartsAfterDisconnectReturns) {
  std::atomic<int> late_calls{0};
  for (int round = 0; round < kRaceRounds; ++round) {
    ObjectPtr object = NewObject();
    GuardedReceiver receiver(&late_calls);
    CBaseData listened;
    listened.Initialize(&receiver, BindingOf(object.get()));
    BackgroundWriter writer(object.get());
    while (receiver.Calls() == 0) std::this_thread::yield();
    listened.Disconnect();
    receiver.LetGo();
    writer.Stop();
    TsmWaitEventsDelivered();
  }
  EXPECT_EQ(late_calls.load(), 0);
}

TEST(BaseDataConcurrencyTest, NoReceiverCallStartsAfterTheRecordIsDestroyed) {
  std::atomic<int> late_calls{0};
  for (int round = 0; round < kRaceRounds; ++round) {
    ObjectPtr object = NewObject();
    auto* receiver = new GuardedReceiver(&late_calls);
    auto* listened = new CBaseData();
    listened->Initialize(receiver, BindingOf(object.get()));
    BackgroundWriter writer(object.get());
    while (receiver->Calls() == 0) std::this_thread::yield();
    delete listened;
    receiver->LetGo();
    // A call after this point would touch freed memory.
    delete receiver;
    writer.Stop();
    TsmWaitEventsDelivered();
  }
  EXPECT_EQ(late_calls.load(), 0);
}

TEST(BaseDataConcurrencyTest, ReceiverMayReadItsRecordWhileOthersWrite) {
  ObjectPtr object = NewObject();
  struct ReadingReceiver : CBaseDataEventReceiver {
    void OnDataUpdate(CBaseData* record, int32_t update_id, CString text) override {
      last.store(record->GetLong(L"CumQty", -1));
    }
    std::atomic<int32_t> last{-1};
  } receiver;
  CBaseData listened;
  listened.Initialize(&receiver, BindingOf(object.get()));
  {
    BackgroundWriter first(object.get());
    BackgroundWriter second(object.get());
    while (receiver.last.load() < 0) std::this_thread::yield();
  }
  TsmWaitEventsDelivered();
  listened.Disconnect();
  EXPECT_GE(receiver.last.load(), 0);
}

}  // namespace
}  // namespace tsm
