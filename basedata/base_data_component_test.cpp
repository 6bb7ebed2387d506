#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "basedata/base_data_entry.h"
#include "platform/sync.h"
#include "tradeslice/base_data_api.h"

namespace tsm {
namespace {

struct Releaser {
  void operator()(IBaseData* object) const { object->Release(); }
};
using ObjectPtr = std::unique_ptr<IBaseData, Releaser>;

ObjectPtr NewObject(const wchar_t* name = L"Order") { return ObjectPtr(TsmCreateBaseData(name)); }

uint32_t OtherReferences(IRefCounted* object) {
  const uint32_t count = object->AddRef();
  object->Release();
  return count - 2;
}

// A sink owned by the test; it counts references instead of deleting itself.
// With a gate, each delivery signals `entered` and waits for the gate.
class TestSink final : public IBaseDataEvents {
 public:
  struct Event {
    bool replace;
    int32_t id;
    std::wstring text;
    std::thread::id thread;
    int tag;
  };

  explicit TestSink(int tag = 0, std::vector<Event>* shared_log = nullptr, std::mutex* shared_lock = nullptr)
      : tag_(tag), log_(shared_log != nullptr ? shared_log : &own_log_), lock_(shared_lock != nullptr ? shared_lock : &own_lock_) {}

  uint32_t AddRef() override { return refs_.fetch_add(1) + 1; }
  uint32_t Release() override { return refs_.fetch_sub(1) - 1; }
  uint32_t References() const { return refs_.load(); }

  void OnUpdate(int32_t update_id, const std::wstring& text) override { Record(false, update_id, text); }
  void OnReplace(int32_t id) override { Record(true, id, std::wstring()); }

  void UseGate(CEvent* gate, CEvent* entered) {
    gate_ = gate;
    entered_ = entered;
  }
  std::vector<Event> Events() const {
    std::lock_guard<std::mutex> guard(*lock_);
    return *log_;
  }

 private:
  void Record(bool replace, int32_t id, const std::wstring& text) {
    {
      std::lock_guard<std::mutex> guard(*lock_);
      log_->push_back(Event{replace, id, text, std::this_thread::get_id(), tag_});
    }
    if (gate_ != nullptr) {
      entered_->Set();
      gate_->Wait();
    }
  }

  const int tag_;
  std::atomic<uint32_t> refs_{0};
  CEvent* gate_ = nullptr;
  CEvent* entered_ = nullptr;
  std::mutex own_lock_;  // guards own_log_ when no shared log is given
  std::vector<Event> own_log_;
  std::vector<Event>* log_;
  std::mutex* lock_;  // guards *log_
};

int32_t WriteField(IBaseData* object, const wchar_t* field, const Variant& value) {
  const int32_t update_id = object->BeginUpdate();
  object->SetData(update_id, kKindFieldByName, Variant::Text(field), value);
  object->EndUpdate(update_id);
  return update_id;
}

Variant Field(IBaseData* object, const wchar_t* field) { return object->GetData(kKindFieldByName, Variant::Text(field)); }

ObjectPtr FromTable(uint32_t cookie) {
  IBaseData* object = nullptr;
  if (TsmGetGlobalInterfaceTable()->GetInterfaceFromGlobal(cookie, &object) != kS_OK) return ObjectPtr();
  return ObjectPtr(object);
}

// --- Creation ---

TEST(BaseDataComponentTest, ProgIdCreatesAnEmptyObject) {
  ObjectPtr object(TsmCreateBaseDataByProgId(L"QX_Data.BaseData.1"));
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->GetData(kKindName, Variant()), Variant::Text(L""));
  EXPECT_TRUE(Field(object.get(), L"OrderQty").IsEmpty());
}

TEST(BaseDataComponentTest, OtherProgIdsCreateNothing) {
  EXPECT_EQ(TsmCreateBaseDataByProgId(L"QX_Data.BaseData.2"), nullptr);
  EXPECT_EQ(TsmCreateBaseDataByProgId(L"qx_data.basedata.1"), nullptr);
  EXPECT_EQ(TsmCreateBaseDataByProgId(nullptr), nullptr);
}

TEST(BaseDataComponentTest, NamedObjectGivesItsNameAsText) {
  ObjectPtr object = NewObject(L"NordaSystemTime");
  EXPECT_EQ(object->GetData(kKindName, Variant()), Variant::Text(L"NordaSystemTime"));
}

TEST(BaseDataComponentTest, ClassObjectCreatesObjects) {
  IBaseDataClassFactory* factory = nullptr;
  ASSERT_EQ(TsmBaseDataGetClassObject(&factory), kS_OK);
  ASSERT_NE(factory, nullptr);
  IBaseData* raw = nullptr;
  ASSERT_EQ(factory->CreateInstance(&raw), kS_OK);
  ObjectPtr object(raw);
  ASSERT_NE(object, nullptr);
  WriteField(object.get(), L"Side", Variant::Text(L"1"));
  EXPECT_EQ(Field(object.get(), L"Side"), Variant::Text(L"1"));

  TsmFailCreateInstanceForTesting(1);
  IBaseData* refused = nullptr;
  EXPECT_EQ(factory->CreateInstance(&refused), kE_FAIL);
  EXPECT_EQ(refused, nullptr);
  IBaseData* again = nullptr;
  EXPECT_EQ(factory->CreateInstance(&again), kS_OK);
  ObjectPtr again_owner(again);
  factory->Release();
}

// --- Fields ---

TEST(BaseDataComponentTest, FieldsByNameKeepTheirType) {
  ObjectPtr object = NewObject();
  WriteField(object.get(), L"Qty", Variant::I4(7));
  WriteField(object.get(), L"Price", Variant::I8(INT64_C(1234567890123)));
  WriteField(object.get(), L"Symbol", Variant::Text(L"SH.600000"));
  EXPECT_EQ(Field(object.get(), L"Qty"), Variant::I4(7));
  EXPECT_EQ(Field(object.get(), L"Price"), Variant::I8(INT64_C(1234567890123)));
  EXPECT_EQ(Field(object.get(), L"Symbol"), Variant::Text(L"SH.600000"));
  EXPECT_TRUE(Field(object.get(), L"Missing").IsEmpty());
  EXPECT_TRUE(object->GetData(kKindFieldByName, Variant::I4(1)).IsEmpty());
}

TEST(BaseDataComponentTest, WritingAnEmptyValueRemovesTheField) {
  ObjectPtr object = NewObject();
  WriteField(object.get(), L"Qty", Variant::I4(7));
  WriteField(object.get(), L"Qty", Variant());
  EXPECT_TRUE(Field(object.get(), L"Qty").IsEmpty());
}

TEST(BaseDataComponentTest, FieldsByIdAreReadBackAsStored) {
  ObjectPtr object = NewObject();
  const int32_t update_id = object->BeginUpdate();
  object->SetData(update_id, kKindFieldById, Variant::I4(10), Variant::I4(5));
  object->SetData(update_id, kKindFieldById, Variant::I4(11), Variant::I8(6));
  object->EndUpdate(update_id);
  EXPECT_EQ(object->GetData(kKindFieldById, Variant::I4(10)), Variant::I4(5));
  EXPECT_EQ(object->GetData(kKindFieldById, Variant::I4(11)), Variant::I8(6));
  EXPECT_TRUE(object->GetData(kKindFieldById, Variant::I4(12)).IsEmpty());
  // Ids and names are separate spaces.
  EXPECT_TRUE(Field(object.get(), L"10").IsEmpty());
}

TEST(BaseDataComponentTest, NameCanBeWrittenWithItsKind) {
  ObjectPtr object = NewObject(L"Before");
  const int32_t update_id = object->BeginUpdate();
  object->SetData(update_id, kKindName, Variant(), Variant::Text(L"After"));
  object->EndUpdate(update_id);
  EXPECT_EQ(object->GetData(kKindName, Variant()), Variant::Text(L"After"));
}

TEST(BaseDataComponentTest, ObjectMadeWithItsFieldsHoldsThemAsOneFirstUpdate) {
  TsmField fields[] = {{L"LevelKey", Variant::Text(L"C1")},
                       {L"Qty", Variant::I4(300)},
                       {L"Price", Variant::I8(INT64_C(1234567890123))},
                       {L"OrderID", Variant::Text(L"")},
                       {nullptr, Variant::I4(1)},
                       {L"Skipped", Variant()}};
  ObjectPtr object(TsmCreateBaseDataWithFields(L"order", fields, 6));
  EXPECT_EQ(object->GetData(kKindName, Variant()), Variant::Text(L"order"));
  EXPECT_EQ(Field(object.get(), L"LevelKey"), Variant::Text(L"C1"));
  EXPECT_EQ(Field(object.get(), L"Qty"), Variant::I4(300));
  EXPECT_EQ(Field(object.get(), L"Price"), Variant::I8(INT64_C(1234567890123)));
  // An empty text is a value; an empty variant is no field.
  EXPECT_EQ(Field(object.get(), L"OrderID"), Variant::Text(L""));
  EXPECT_TRUE(Field(object.get(), L"Skipped").IsEmpty());
  // The values were moved out.
  EXPECT_TRUE(fields[0].value.text().empty());
  // The fields took update id 1, as a first batch write would.
  EXPECT_EQ(object->BeginUpdate(), 2);
}

TEST(BaseDataComponentTest, ObjectMadeWithNoFieldsIsEmptyAndStartsAtUpdateOne) {
  ObjectPtr object(TsmCreateBaseDataWithFields(L"order", nullptr, 0));
  EXPECT_TRUE(Field(object.get(), L"LevelKey").IsEmpty());
  EXPECT_EQ(object->BeginUpdate(), 1);
}

TEST(BaseDataComponentTest, UnknownKindsReadEmpty) {
  ObjectPtr object = NewObject();
  EXPECT_TRUE(object->GetData(2, Variant::Text(L"Qty")).IsEmpty());
  EXPECT_TRUE(object->GetData(99, Variant()).IsEmpty());
}

// --- Updates ---

TEST(BaseDataComponentTest, UpdateIdsCountUpFromOnePerObject) {
  ObjectPtr first = NewObject(), second = NewObject();
  EXPECT_EQ(first->BeginUpdate(), 1);
  EXPECT_EQ(first->BeginUpdate(), 2);
  EXPECT_EQ(second->BeginUpdate(), 1);
}

TEST(BaseDataComponentTest, WritesInsideAnOpenUpdateWaitForEndUpdate) {
  ObjectPtr object = NewObject();
  const int32_t update_id = object->BeginUpdate();
  object->SetData(update_id, kKindFieldByName, Variant::Text(L"Qty"), Variant::I4(1));
  object->SetData(update_id, kKindFieldByName, Variant::Text(L"Qty"), Variant::I4(2));
  EXPECT_TRUE(Field(object.get(), L"Qty").IsEmpty());
  object->EndUpdate(update_id);
  EXPECT_EQ(Field(object.get(), L"Qty"), Variant::I4(2));
}

TEST(BaseDataComponentTest, WritesUnderAnIdThatIsNotOpenApplyAtOnce) {
  ObjectPtr object = NewObject();
  object->SetData(42, kKindFieldByName, Variant::Text(L"Qty"), Variant::I4(9));
  EXPECT_EQ(Field(object.get(), L"Qty"), Variant::I4(9));
  const int32_t closed = object->BeginUpdate();
  object->EndUpdate(closed);
  object->SetData(closed, kKindFieldByName, Variant::Text(L"Qty"), Variant::I4(10));
  EXPECT_EQ(Field(object.get(), L"Qty"), Variant::I4(10));
}

// --- Events ---

TEST(BaseDataComponentTest, EndUpdateRaisesTheChangedFieldNames) {
  ObjectPtr object = NewObject();
  TestSink sink;
  uint32_t cookie = 0;
  ASSERT_EQ(object->Advise(&sink, &cookie), kS_OK);
  EXPECT_NE(cookie, 0u);
  const int32_t update_id = object->BeginUpdate();
  object->SetData(update_id, kKindFieldByName, Variant::Text(L"OrderQty"), Variant::I4(1));
  object->SetData(update_id, kKindFieldById, Variant::I4(44), Variant::I8(2));
  object->SetData(update_id, kKindFieldByName, Variant::Text(L"ExecType"), Variant::Text(L"F"));
  object->EndUpdate(update_id);
  TsmWaitEventsDelivered();
  const auto events = sink.Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_FALSE(events[0].replace);
  EXPECT_EQ(events[0].id, update_id);
  EXPECT_EQ(events[0].text, L"OrderQty,44,ExecType");
  EXPECT_EQ(object->Unadvise(cookie), kS_OK);
}

TEST(BaseDataComponentTest, EndUpdateOfAnIdThatWasNeverOpenedRaisesWithEmptyText) {
  ObjectPtr object = NewObject();
  TestSink sink;
  uint32_t cookie = 0;
  object->Advise(&sink, &cookie);
  object->EndUpdate(-999);
  TsmWaitEventsDelivered();
  const auto events = sink.Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, -999);
  EXPECT_EQ(events[0].text, L"");
  object->Unadvise(cookie);
}

TEST(BaseDataComponentTest, EventsComeOnOneThreadInTheOrderUpdatesWereClosed) {
  ObjectPtr first = NewObject(L"First"), second = NewObject(L"Second");
  std::mutex log_lock;
  std::vector<TestSink::Event> log;
  TestSink first_sink(1, &log, &log_lock), second_sink(2, &log, &log_lock);
  uint32_t first_cookie = 0, second_cookie = 0;
  first->Advise(&first_sink, &first_cookie);
  second->Advise(&second_sink, &second_cookie);

  std::vector<std::pair<int, int32_t>> closed;
  for (int i = 0; i < 20; ++i) {
    IBaseData* object = (i % 3 == 0) ? second.get() : first.get();
    closed.emplace_back(object == first.get() ? 1 : 2, WriteField(object, L"CumQty", Variant::I4(i)));
  }
  TsmRaiseReplace(first.get(), 5);
  closed.emplace_back(1, 5);
  TsmWaitEventsDelivered();

  std::vector<TestSink::Event> events;
  {
    std::lock_guard<std::mutex> guard(log_lock);
    events = log;
  }
  ASSERT_EQ(events.size(), closed.size());
  for (std::size_t i = 0; i < closed.size(); ++i) {
    EXPECT_EQ(events[i].tag, closed[i].first);
    EXPECT_EQ(events[i].id, closed[i].second);
    EXPECT_EQ(events[i].thread, events[0].thread);
  }
  EXPECT_TRUE(events.back().replace);
  EXPECT_NE(events[0].thread, std::this_thread::get_id());
  first->Unadvise(first_cookie);
  second->Unadvise(second_cookie);
}

TEST(BaseDataComponentTest, OnlySinksConnectedWhenTheUpdateClosesHearIt) {
  ObjectPtr object = NewObject();
  TestSink early, late;
  uint32_t early_cookie = 0, late_cookie = 0;
  object->Advise(&early, &early_cookie);
  const int32_t update_id = object->BeginUpdate();
  object->EndUpdate(update_id);
  object->Advise(&late, &late_cookie);
  TsmWaitEventsDelivered();
  EXPECT_EQ(early.Events().size(), 1u);
  EXPECT_TRUE(late.Events().empty());
  object->Unadvise(early_cookie);
  object->Unadvise(late_cookie);
}

TEST(BaseDataComponentTest, SinkIsHeldWhileConnectedAndReleasedByUnadvise) {
  ObjectPtr object = NewObject();
  TestSink sink;
  uint32_t cookie = 0;
  object->Advise(&sink, &cookie);
  EXPECT_EQ(sink.References(), 1u);
  EXPECT_EQ(object->Unadvise(cookie), kS_OK);
  EXPECT_EQ(sink.References(), 0u);
  EXPECT_EQ(object->Unadvise(cookie), kE_INVALIDARG);
  EXPECT_EQ(object->Advise(nullptr, &cookie), kE_INVALIDARG);
}

TEST(BaseDataComponentTest, UnadviseNeitherWaitsForADeliveryInProgressNorLetsQueuedEventsThrough) {
  ObjectPtr object = NewObject();
  CEvent gate(true, false), entered(false, false);
  TestSink blocking, skipped;
  blocking.UseGate(&gate, &entered);
  uint32_t blocking_cookie = 0, skipped_cookie = 0;
  object->Advise(&blocking, &blocking_cookie);
  object->Advise(&skipped, &skipped_cookie);
  // The first update stops the event thread inside the blocking sink; its
  // event for the other sink, and both events of the second update, queue
  // behind it.
  WriteField(object.get(), L"Qty", Variant::I4(1));
  entered.Wait();
  WriteField(object.get(), L"Qty", Variant::I4(2));

  // Returns although a delivery to this very sink is in progress.
  EXPECT_EQ(object->Unadvise(blocking_cookie), kS_OK);
  EXPECT_EQ(object->Unadvise(skipped_cookie), kS_OK);
  // The events still hold their references.
  EXPECT_GT(blocking.References(), 0u);
  EXPECT_GT(skipped.References(), 0u);

  gate.Set();
  TsmWaitEventsDelivered();
  EXPECT_EQ(blocking.Events().size(), 1u);
  EXPECT_TRUE(skipped.Events().empty());
  EXPECT_EQ(blocking.References(), 0u);
  EXPECT_EQ(skipped.References(), 0u);
}

TEST(BaseDataComponentTest, WaitEventsDeliveredReturnsAtOnceOnTheEventThread) {
  ObjectPtr object = NewObject();
  struct WaitingSink final : IBaseDataEvents {
    uint32_t AddRef() override { return 1; }
    uint32_t Release() override { return 1; }
    void OnUpdate(int32_t, const std::wstring&) override {
      TsmWaitEventsDelivered();
      returned.store(true);
    }
    void OnReplace(int32_t) override {}
    std::atomic<bool> returned{false};
  } sink;
  uint32_t cookie = 0;
  object->Advise(&sink, &cookie);
  WriteField(object.get(), L"Qty", Variant::I4(1));
  TsmWaitEventsDelivered();
  EXPECT_TRUE(sink.returned.load());
  object->Unadvise(cookie);
}

TEST(BaseDataComponentTest, ReplaceReachesEverySink) {
  ObjectPtr object = NewObject();
  TestSink first, second;
  uint32_t first_cookie = 0, second_cookie = 0;
  object->Advise(&first, &first_cookie);
  object->Advise(&second, &second_cookie);
  TsmRaiseReplace(object.get(), 12);
  TsmWaitEventsDelivered();
  for (TestSink* sink : {&first, &second}) {
    const auto events = sink->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].replace);
    EXPECT_EQ(events[0].id, 12);
  }
  object->Unadvise(first_cookie);
  object->Unadvise(second_cookie);
}

TEST(BaseDataComponentTest, ObjectDestroyedWhileConnectedReleasesItsSinks) {
  TestSink sink;
  {
    ObjectPtr object = NewObject();
    uint32_t cookie = 0;
    object->Advise(&sink, &cookie);
    WriteField(object.get(), L"Qty", Variant::I4(1));
  }
  TsmWaitEventsDelivered();
  EXPECT_EQ(sink.References(), 0u);
}

// --- Interface table ---

TEST(BaseDataComponentTest, TableCookiesAreNonZeroIncreasingAndGiveNewReferences) {
  IGlobalInterfaceTable* table = TsmGetGlobalInterfaceTable();
  ASSERT_EQ(table, TsmGetGlobalInterfaceTable());
  ObjectPtr object = NewObject(L"Shared");
  uint32_t first = 0, second = 0;
  ASSERT_EQ(table->RegisterInterfaceInGlobal(object.get(), &first), kS_OK);
  ASSERT_EQ(table->RegisterInterfaceInGlobal(object.get(), &second), kS_OK);
  EXPECT_NE(first, 0u);
  EXPECT_GT(second, first);
  EXPECT_EQ(OtherReferences(object.get()), 2u);

  IBaseData* fetched = nullptr;
  ASSERT_EQ(table->GetInterfaceFromGlobal(first, &fetched), kS_OK);
  EXPECT_EQ(fetched, object.get());
  EXPECT_EQ(OtherReferences(object.get()), 3u);
  fetched->Release();

  EXPECT_EQ(table->RevokeInterfaceFromGlobal(first), kS_OK);
  EXPECT_EQ(table->RevokeInterfaceFromGlobal(second), kS_OK);
  EXPECT_EQ(OtherReferences(object.get()), 0u);
  EXPECT_EQ(table->GetInterfaceFromGlobal(first, &fetched), kE_INVALIDARG);
  EXPECT_EQ(fetched, nullptr);
  EXPECT_EQ(table->RevokeInterfaceFromGlobal(first), kE_INVALIDARG);
  uint32_t none = 7;
  EXPECT_EQ(table->RegisterInterfaceInGlobal(nullptr, &none), kE_INVALIDARG);
  EXPECT_EQ(none, 0u);
}

TEST(BaseDataComponentTest, TableGivesUniqueCookiesToConcurrentRegistrations) {
  IGlobalInterfaceTable* table = TsmGetGlobalInterfaceTable();
  ObjectPtr object = NewObject();
  constexpr int kThreads = 4, kEach = 500;
  std::vector<std::vector<uint32_t>> cookies(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        uint32_t cookie = 0;
        table->RegisterInterfaceInGlobal(object.get(), &cookie);
        cookies[t].push_back(cookie);
        ObjectPtr fetched = FromTable(cookie);
        if (i % 2 == 0) table->RevokeInterfaceFromGlobal(cookie);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::set<uint32_t> unique;
  for (const auto& list : cookies) {
    for (uint32_t cookie : list) {
      EXPECT_NE(cookie, 0u);
      unique.insert(cookie);
    }
  }
  EXPECT_EQ(unique.size(), static_cast<std::size_t>(kThreads * kEach));
  for (const auto& list : cookies) {
    for (std::size_t i = 1; i < list.size(); i += 2) table->RevokeInterfaceFromGlobal(list[i]);
  }
  EXPECT_EQ(OtherReferences(object.get()), 0u);
}

// --- Children ---

TEST(BaseDataComponentTest, ChildInAFieldIsPublishedOnceUntilItLeaves) {
  ObjectPtr parent = NewObject(L"Parent"), leg = NewObject(L"Leg"), other = NewObject(L"Other");
  TsmSetChild(parent.get(), L"Leg", leg.get());
  const Variant first = parent->GetData(kKindChildByName, Variant::Text(L"Leg"));
  ASSERT_EQ(first.type(), VarType::I4);
  EXPECT_EQ(parent->GetData(kKindChildByName, Variant::Text(L"Leg")), first);
  ObjectPtr fetched = FromTable(static_cast<uint32_t>(first.i4()));
  ASSERT_NE(fetched, nullptr);
  EXPECT_EQ(fetched->GetData(kKindName, Variant()), Variant::Text(L"Leg"));

  TsmSetChild(parent.get(), L"Leg", other.get());
  EXPECT_EQ(FromTable(static_cast<uint32_t>(first.i4())), nullptr);
  const Variant second = parent->GetData(kKindChildByName, Variant::Text(L"Leg"));
  ASSERT_EQ(second.type(), VarType::I4);
  EXPECT_NE(second, first);

  TsmSetChild(parent.get(), L"Leg", nullptr);
  EXPECT_TRUE(parent->GetData(kKindChildByName, Variant::Text(L"Leg")).IsEmpty());
  EXPECT_EQ(FromTable(static_cast<uint32_t>(second.i4())), nullptr);
  EXPECT_TRUE(parent->GetData(kKindChildByName, Variant::Text(L"Missing")).IsEmpty());
  fetched.reset();
  EXPECT_EQ(OtherReferences(leg.get()), 0u);
  EXPECT_EQ(OtherReferences(other.get()), 0u);
}

TEST(BaseDataComponentTest, ChildrenByIndexGiveCountAndCookies) {
  ObjectPtr parent = NewObject(L"Parent"), first = NewObject(L"First"), second = NewObject(L"Second");
  EXPECT_EQ(parent->GetData(kKindChildren, Variant::I4(-1)), Variant::I4(0));
  TsmAppendChild(parent.get(), first.get());
  TsmAppendChild(parent.get(), second.get());
  EXPECT_EQ(parent->GetData(kKindChildren, Variant::I4(-1)), Variant::I4(2));

  const Variant cookie = parent->GetData(kKindChildren, Variant::I4(1));
  ASSERT_EQ(cookie.type(), VarType::I4);
  EXPECT_EQ(parent->GetData(kKindChildren, Variant::I4(1)), cookie);
  EXPECT_EQ(FromTable(static_cast<uint32_t>(cookie.i4()))->GetData(kKindName, Variant()), Variant::Text(L"Second"));
  EXPECT_TRUE(parent->GetData(kKindChildren, Variant::I4(2)).IsEmpty());
  EXPECT_TRUE(parent->GetData(kKindChildren, Variant::I4(-2)).IsEmpty());

  TsmClearChildren(parent.get());
  EXPECT_EQ(parent->GetData(kKindChildren, Variant::I4(-1)), Variant::I4(0));
  EXPECT_EQ(FromTable(static_cast<uint32_t>(cookie.i4())), nullptr);
  EXPECT_EQ(OtherReferences(first.get()), 0u);
  EXPECT_EQ(OtherReferences(second.get()), 0u);
}

TEST(BaseDataComponentTest, ParentDestroyedRevokesItsChildrensCookies) {
  ObjectPtr child = NewObject(L"Child");
  Variant by_index, by_field;
  {
    ObjectPtr parent = NewObject(L"Parent");
    TsmAppendChild(parent.get(), child.get());
    TsmSetChild(parent.get(), L"Leg", child.get());
    by_index = parent->GetData(kKindChildren, Variant::I4(0));
    by_field = parent->GetData(kKindChildByName, Variant::Text(L"Leg"));
    ASSERT_EQ(by_index.type(), VarType::I4);
    ASSERT_EQ(by_field.type(), VarType::I4);
  }
  EXPECT_EQ(FromTable(static_cast<uint32_t>(by_index.i4())), nullptr);
  EXPECT_EQ(FromTable(static_cast<uint32_t>(by_field.i4())), nullptr);
  EXPECT_EQ(OtherReferences(child.get()), 0u);
}

TEST(BaseDataComponentTest, FailedChildReadsFailOnlyIndexReadsAndRunOut) {
  ObjectPtr parent = NewObject(L"Parent"), child = NewObject(L"Child");
  TsmAppendChild(parent.get(), child.get());
  TsmFailChildReadsForTesting(parent.get(), 2);
  EXPECT_EQ(parent->GetData(kKindChildren, Variant::I4(-1)), Variant::I4(1));
  EXPECT_TRUE(parent->GetData(kKindChildren, Variant::I4(0)).IsEmpty());
  EXPECT_TRUE(parent->GetData(kKindChildren, Variant::I4(0)).IsEmpty());
  EXPECT_EQ(parent->GetData(kKindChildren, Variant::I4(0)).type(), VarType::I4);

  TsmFailChildReadsForTesting(parent.get(), 5);
  TsmFailChildReadsForTesting(parent.get(), 0);
  EXPECT_EQ(parent->GetData(kKindChildren, Variant::I4(0)).type(), VarType::I4);
}

// --- Concurrency ---

TEST(BaseDataComponentTest, ConcurrentWritersReadersAndSinksOnOneObject) {
  ObjectPtr object = NewObject();
  TestSink sink;
  uint32_t cookie = 0;
  object->Advise(&sink, &cookie);
  constexpr int kWrites = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      const std::wstring field = L"Field" + std::to_wstring(t);
      for (int i = 0; i < kWrites; ++i) {
        WriteField(object.get(), field.c_str(), Variant::I4(i));
        Field(object.get(), L"Field0");
      }
    });
  }
  TestSink passing;
  threads.emplace_back([&] {
    for (int i = 0; i < kWrites; ++i) {
      uint32_t passing_cookie = 0;
      object->Advise(&passing, &passing_cookie);
      object->GetData(kKindChildren, Variant::I4(-1));
      object->GetData(kKindName, Variant());
      object->Unadvise(passing_cookie);
    }
  });
  for (auto& thread : threads) thread.join();
  TsmWaitEventsDelivered();
  EXPECT_EQ(sink.Events().size(), static_cast<std::size_t>(3 * kWrites));
  EXPECT_EQ(passing.References(), 0u);
  for (int t = 0; t < 3; ++t) {
    EXPECT_EQ(Field(object.get(), (L"Field" + std::to_wstring(t)).c_str()), Variant::I4(kWrites - 1));
  }
  object->Unadvise(cookie);
}

}  // namespace
}  // namespace tsm
