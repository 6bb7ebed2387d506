// TradeSliceManager.dll as an in-process COM server: the class object and
// unloading through the DLL's own exports, plain and aggregated creation,
// IDispatch of INordaManager through the type library, the connection point
// of _INordaManagerEvents, and raises reaching a sink from the timer and the
// base-data event threads.
#include <windows.h>
#include <oleauto.h>
#include <ocidl.h>
#include <olectl.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "module/win/event_bridge.h"
#include "module/win/qx_trade_slice_manager.h"
#include "module/win/test_host_sink.h"
#include "module/win/sink_point.h"
#include "platform/virtual_clock.h"
#include "platform/win/com_win.h"
#include "tracking/timer.h"
#include "tradeslice/base_data_api.h"
#include "tradeslice/norda_host.h"

namespace tsm::module {
namespace {

using platform::ComPtr;
using platform::UniqueBstr;

// One call the sink received, arguments in declaration order.
struct SinkCall {
  DISPID dispid;
  std::vector<std::wstring> args;
  DWORD thread;
};

std::wstring Text(const VARIANT& value) {
  const VARIANT& v = value.vt == (VT_VARIANT | VT_BYREF) ? *value.pvarVal : value;
  switch (v.vt) {
    case VT_BSTR: return std::wstring(v.bstrVal, SysStringLen(v.bstrVal));
    case VT_I4: return L"i4:" + std::to_wstring(v.lVal);
    case VT_EMPTY: return L"empty";
    default: return L"vt:" + std::to_wstring(v.vt);
  }
}

// The host's event sink: records every Invoke. GetTopicData answers VT_I4 0,
// RegisterTopic VT_I4 1, SendTopic VT_BSTR "sent" and rewrites its data
// argument to VT_I4 42.
class RecordingSink final : public TestHostSink {
 public:
  HRESULT STDMETHODCALLTYPE Invoke(DISPID dispid, REFIID, LCID lcid, WORD flags, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO*, UINT*) override {
    SinkCall call{dispid, {}, GetCurrentThreadId()};
    for (UINT i = params->cArgs; i > 0; --i) call.args.push_back(Text(params->rgvarg[i - 1]));
    if (lcid != LOCALE_USER_DEFAULT || flags != DISPATCH_METHOD) call.args.push_back(L"bad lcid or flags");
    if (result != nullptr) {
      VariantInit(result);
      if (dispid == 2 || dispid == 4) {
        result->vt = VT_I4;
        result->lVal = dispid == 2 ? 1 : 0;
      }
      if (dispid == 5) {
        result->vt = VT_BSTR;
        result->bstrVal = SysAllocString(L"sent");
      }
    }
    if (dispid == 5 && params->cArgs == 5 && params->rgvarg[0].vt == (VT_VARIANT | VT_BYREF)) {
      VARIANT* data = params->rgvarg[0].pvarVal;
      VariantClear(data);
      data->vt = VT_I4;
      data->lVal = 42;
    }
    {
      std::lock_guard<std::mutex> guard(lock_);
      calls_.push_back(call);
    }
    changed_.notify_all();
    return S_OK;
  }

  std::vector<SinkCall> Calls() {
    std::lock_guard<std::mutex> guard(lock_);
    return calls_;
  }
  // Waits (bounded, so that a lost event fails instead of hanging) until
  // `count` calls have arrived.
  bool WaitForCalls(std::size_t count) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(30), [&] { return calls_.size() >= count; });
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<SinkCall> calls_;
};

// The DLL loaded by name with its exports, as COM loads it. It stays loaded
// for the process, as COM keeps it until DllCanUnloadNow allows otherwise.
class ServerDll {
 public:
  ServerDll() : module_(Module()) {
    get_class_object = reinterpret_cast<decltype(get_class_object)>(
        reinterpret_cast<void*>(GetProcAddress(module_, "DllGetClassObject")));
    can_unload_now = reinterpret_cast<decltype(can_unload_now)>(
        reinterpret_cast<void*>(GetProcAddress(module_, "DllCanUnloadNow")));
  }
  ServerDll(const ServerDll&) = delete;
  ServerDll& operator=(const ServerDll&) = delete;

  ComPtr<IClassFactory> Factory() {
    ComPtr<IClassFactory> factory;
    get_class_object(CLSID_TradeSliceManager, IID_IClassFactory, factory.PutVoid());
    return factory;
  }

  HRESULT(STDAPICALLTYPE* get_class_object)(REFCLSID, REFIID, void**) = nullptr;
  HRESULT(STDAPICALLTYPE* can_unload_now)() = nullptr;

 private:
  static HMODULE Module() {
    static const HMODULE module = LoadLibraryW(L"TradeSliceManager.dll");
    return module;
  }

  HMODULE module_;
};

// The outer object of an aggregate: answers IUnknown itself and hands every
// other request to the inner object.
class Outer final : public IUnknown {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    if (iid == IID_IUnknown) {
      AddRef();
      *out = static_cast<IUnknown*>(this);
      return S_OK;
    }
    return inner->QueryInterface(iid, out);
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs; }

  IUnknown* inner = nullptr;
  std::atomic<ULONG> refs{1};
};

// Invokes `name` of `object` by name with `args` (declaration order).
HRESULT InvokeByName(IDispatch* object, const wchar_t* name, std::vector<VARIANT> args) {
  DISPID dispid = 0;
  LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
  HRESULT result = object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &dispid);
  if (FAILED(result)) return result;
  std::vector<VARIANT> reversed(args.rbegin(), args.rend());
  DISPPARAMS params{reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
  return object->Invoke(dispid, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr);
}

VARIANT I4(LONG value) {
  VARIANT v;
  v.vt = VT_I4;
  v.lVal = value;
  return v;
}

VARIANT Bstr(BSTR value) {
  VARIANT v;
  v.vt = VT_BSTR;
  v.bstrVal = value;
  return v;
}

// Advises `sink` on the object's _INordaManagerEvents point.
DWORD AdviseHostSink(IUnknown* object, IDispatch* sink) {
  ComPtr<IConnectionPointContainer> container;
  EXPECT_EQ(object->QueryInterface(IID_IConnectionPointContainer, container.PutVoid()), S_OK);
  ComPtr<IConnectionPoint> point;
  EXPECT_EQ(container->FindConnectionPoint(DIID__INordaManagerEvents, point.Put()), S_OK);
  DWORD cookie = 0;
  EXPECT_EQ(point->Advise(sink, &cookie), S_OK);
  return cookie;
}

TEST(ComServerTest, DllCanUnloadNowGoesFromSFalseToSOkAfterTheLastRelease) {
  ServerDll dll;
  ASSERT_NE(dll.get_class_object, nullptr);
  ComPtr<IClassFactory> factory = dll.Factory();
  ASSERT_TRUE(factory);
  EXPECT_EQ(dll.can_unload_now(), S_OK);  // the cached class object alone keeps nothing
  ComPtr<IUnknown> object;
  ASSERT_EQ(factory->CreateInstance(nullptr, IID_INordaManager, object.PutVoid()), S_OK);
  EXPECT_EQ(dll.can_unload_now(), S_FALSE);
  object.Reset();
  EXPECT_EQ(dll.can_unload_now(), S_OK);
  factory->LockServer(TRUE);
  EXPECT_EQ(dll.can_unload_now(), S_FALSE);
  factory->LockServer(FALSE);
  EXPECT_EQ(dll.can_unload_now(), S_OK);
}

TEST(ComServerTest, TheClassObjectIsCachedAndOnlyForTradeSliceManager) {
  ServerDll dll;
  ComPtr<IClassFactory> first = dll.Factory();
  ComPtr<IClassFactory> second = dll.Factory();
  EXPECT_EQ(first.get(), second.get());
  ComPtr<IClassFactory> other;
  EXPECT_EQ(dll.get_class_object(IID_IDispatch, IID_IClassFactory, other.PutVoid()), CLASS_E_CLASSNOTAVAILABLE);
}

TEST(ComServerTest, AnOuterObjectReachesITradeSliceManagerThroughItsQueryInterface) {
  ServerDll dll;
  Outer outer;
  ASSERT_EQ(dll.Factory()->CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&outer.inner)), S_OK);
  ComPtr<IUnknown> manager;
  ASSERT_EQ(outer.QueryInterface(IID_ITradeSliceManager, manager.PutVoid()), S_OK);
  // The inner object's interfaces count on and answer for the outer object.
  EXPECT_EQ(outer.refs.load(), 2u);
  ComPtr<IUnknown> identity;
  ASSERT_EQ(manager->QueryInterface(IID_IUnknown, identity.PutVoid()), S_OK);
  EXPECT_EQ(identity.get(), static_cast<IUnknown*>(&outer));
  ComPtr<IUnknown> host;
  EXPECT_EQ(manager->QueryInterface(IID_INordaManager, host.PutVoid()), S_OK);
  identity.Reset();
  host.Reset();
  manager.Reset();
  EXPECT_EQ(outer.refs.load(), 1u);
  EXPECT_EQ(dll.can_unload_now(), S_FALSE);
  outer.inner->Release();
  EXPECT_EQ(dll.can_unload_now(), S_OK);
}

TEST(ComServerTest, AggregationAskingForMoreThanIUnknownIsRefused) {
  ServerDll dll;
  Outer outer;
  void* out = reinterpret_cast<void*>(1);
  EXPECT_EQ(dll.Factory()->CreateInstance(&outer, IID_ITradeSliceManager, &out), CLASS_E_NOAGGREGATION);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(dll.can_unload_now(), S_OK);
}

TEST(ComServerTest, SetStageThroughIDispatchRegistersTheSixTopicsOnTheSink) {
  ServerDll dll;
  ComPtr<IDispatch> manager;
  ASSERT_EQ(dll.Factory()->CreateInstance(nullptr, IID_IDispatch, manager.PutVoid()), S_OK);
  RecordingSink sink;
  const DWORD cookie = AdviseHostSink(manager.get(), &sink);
  ASSERT_EQ(InvokeByName(manager.get(), L"SetStage", {I4(1), I4(1)}), S_OK);
  std::vector<std::wstring> topics;
  for (const SinkCall& call : sink.Calls()) {
    EXPECT_EQ(call.dispid, 2);
    ASSERT_EQ(call.args.size(), 1u);
    topics.push_back(call.args[0]);
  }
  EXPECT_EQ(topics, (std::vector<std::wstring>{L"TRADE.HOT.MONTH", L"TRADE.SLICE.MANAGER",
                                                L"TRADE.SLICE.MANAGER.CANCEL", L"TRADE.SLICE.ORDER",
                                                L"ORDERSET.LOCK", L"ORDERSET.UNLOCK"}));
  ComPtr<IConnectionPointContainer> container;
  manager->QueryInterface(IID_IConnectionPointContainer, container.PutVoid());
  ComPtr<IConnectionPoint> point;
  container->FindConnectionPoint(DIID__INordaManagerEvents, point.Put());
  EXPECT_EQ(point->Unadvise(cookie), S_OK);
  EXPECT_EQ(point->Unadvise(cookie), CONNECT_E_NOCONNECTION);
}

TEST(ComServerTest, SetTopicThroughIDispatchLogsThroughWriteLogOnly) {
  ServerDll dll;
  ComPtr<IDispatch> manager;
  ASSERT_EQ(dll.Factory()->CreateInstance(nullptr, IID_IDispatch, manager.PutVoid()), S_OK);
  RecordingSink sink;
  AdviseHostSink(manager.get(), &sink);
  UniqueBstr topic(L"TRADE.SLICE.ORDER");
  UniqueBstr text(L"7");
  UniqueBstr data_text(L"not a cookie");
  VARIANT data = Bstr(data_text.get());
  VARIANT by_ref;
  by_ref.vt = VT_VARIANT | VT_BYREF;
  by_ref.pvarVal = &data;
  ASSERT_EQ(InvokeByName(manager.get(), L"SetTopic", {Bstr(topic.get()), I4(0), I4(0), Bstr(text.get()), by_ref}),
            S_OK);
  const std::vector<SinkCall> calls = sink.Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].dispid, 7);
  EXPECT_EQ(calls[0].args, (std::vector<std::wstring>{L"<CTradeSliceManager>SetTopic:TRADE.SLICE.ORDER, 7"}));
}

TEST(ComServerTest, IDispatchDescribesINordaManagerFromTheHostTypeLibrary) {
  ServerDll dll;
  ComPtr<IDispatch> manager;
  ASSERT_EQ(dll.Factory()->CreateInstance(nullptr, IID_IDispatch, manager.PutVoid()), S_OK);
  UINT count = 0;
  ASSERT_EQ(manager->GetTypeInfoCount(&count), S_OK);
  EXPECT_EQ(count, 1u);
  ComPtr<ITypeInfo> info;
  ASSERT_EQ(manager->GetTypeInfo(0, LOCALE_USER_DEFAULT, info.Put()), S_OK);
  TYPEATTR* attributes = nullptr;
  ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
  EXPECT_TRUE(attributes->guid == IID_INordaManager);
  info->ReleaseTypeAttr(attributes);
  DISPID ids[2] = {};
  LPOLESTR names[] = {const_cast<LPOLESTR>(L"SetStage"), const_cast<LPOLESTR>(L"SetTopic")};
  EXPECT_EQ(manager->GetIDsOfNames(IID_NULL, &names[0], 1, LOCALE_USER_DEFAULT, &ids[0]), S_OK);
  EXPECT_EQ(manager->GetIDsOfNames(IID_NULL, &names[1], 1, LOCALE_USER_DEFAULT, &ids[1]), S_OK);
  EXPECT_NE(ids[0], ids[1]);
}

TEST(ComServerTest, TheContainerHasExactlyTheTwoEventPoints) {
  ServerDll dll;
  ComPtr<IConnectionPointContainer> container;
  ASSERT_EQ(dll.Factory()->CreateInstance(nullptr, IID_IConnectionPointContainer, container.PutVoid()), S_OK);
  ComPtr<IConnectionPoint> own;
  EXPECT_EQ(container->FindConnectionPoint(DIID__ITradeSliceManagerEvents, own.Put()), S_OK);
  ComPtr<IConnectionPoint> none;
  EXPECT_EQ(container->FindConnectionPoint(IID_IDispatch, none.Put()), CONNECT_E_NOCONNECTION);
  ComPtr<IEnumConnectionPoints> points;
  ASSERT_EQ(container->EnumConnectionPoints(points.Put()), S_OK);
  IConnectionPoint* found[3] = {};
  ULONG fetched = 0;
  EXPECT_EQ(points->Next(3, found, &fetched), S_FALSE);
  ASSERT_EQ(fetched, 2u);
  std::vector<IID> iids(2);
  for (ULONG i = 0; i < fetched; ++i) {
    found[i]->GetConnectionInterface(&iids[i]);
    found[i]->Release();
  }
  EXPECT_TRUE(iids[0] == DIID__ITradeSliceManagerEvents);
  EXPECT_TRUE(iids[1] == DIID__INordaManagerEvents);
}

// The bridge alone, over a point whose owner is a plain counted object.
class BridgeTest : public testing::Test {
 protected:
  BridgeTest() : point_(DIID__INordaManagerEvents, &outer_, nullptr), bridge_(&point_) {
    DWORD cookie = 0;
    point_.Advise(&sink_, &cookie);
  }

  Outer outer_;
  RecordingSink sink_;
  SinkPoint point_;
  EventBridge bridge_;
};

TEST_F(BridgeTest, SendTopicPassesArgumentsInOrderAndDataByReferenceAndHandsBackTheResult) {
  Variant data = Variant::I4(7);
  Variant result;
  EXPECT_EQ(bridge_.SendTopic(L"TRADE.NEWORDER", 1, 2, L"SIDE=1", &data, &result), S_OK);
  const std::vector<SinkCall> calls = sink_.Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].dispid, 5);
  EXPECT_EQ(calls[0].args, (std::vector<std::wstring>{L"TRADE.NEWORDER", L"i4:1", L"i4:2", L"SIDE=1", L"i4:7"}));
  EXPECT_EQ(data, Variant::I4(42));
  EXPECT_EQ(result, Variant::Text(L"sent"));
}

TEST_F(BridgeTest, EverySinkIsCalledInTurnAndTheLastOnesResultIsHandedBack) {
  RecordingSink second;
  DWORD cookie = 0;
  ASSERT_EQ(point_.Advise(&second, &cookie), S_OK);
  Variant result;
  EXPECT_EQ(bridge_.RegisterTopic(L"TRADE.HOT.MONTH", &result), S_OK);
  EXPECT_EQ(result, Variant::I4(1));
  ASSERT_EQ(sink_.Calls().size(), 1u);
  ASSERT_EQ(second.Calls().size(), 1u);
  EXPECT_EQ(second.Calls()[0].args, (std::vector<std::wstring>{L"TRADE.HOT.MONTH"}));
  point_.Unadvise(cookie);
}

TEST_F(BridgeTest, GetTopicDataAndRegisterTopicHandBackTheSinksResult) {
  Variant result;
  EXPECT_EQ(bridge_.GetTopicData(L"NordaSystemTime", &result), S_OK);
  EXPECT_EQ(result, Variant::I4(0));
  EXPECT_EQ(bridge_.RegisterTopic(L"TRADE.HOT.MONTH", &result), S_OK);
  EXPECT_EQ(result, Variant::I4(1));
  EXPECT_EQ(sink_.Calls()[0].dispid, 4);
  EXPECT_EQ(sink_.Calls()[1].dispid, 2);
}

TEST_F(BridgeTest, NoSinkAdvisedRaisesNothingAndAnswersZero) {
  for (DWORD cookie : point_.Cookies()) point_.Unadvise(cookie);
  Variant result;
  EXPECT_EQ(bridge_.WriteLog(L"line"), S_OK);
  EXPECT_EQ(bridge_.GetTopicData(L"NordaSystemTime", &result), S_OK);
  EXPECT_TRUE(result.IsEmpty());
  EXPECT_TRUE(sink_.Calls().empty());
}

// Each text argument in turn fails to allocate: the raise answers
// E_OUTOFMEMORY (0x8007000E) without calling any sink.
TEST_F(BridgeTest, AFailedArgumentStringAllocationIsReportedAsOutOfMemory) {
  EXPECT_EQ(E_OUTOFMEMORY, static_cast<HRESULT>(0x8007000E));
  Variant result;
  platform::FailBstrAllocationForTesting(1);
  EXPECT_EQ(bridge_.WriteLog(L"line"), E_OUTOFMEMORY);
  platform::FailBstrAllocationForTesting(1);
  EXPECT_EQ(bridge_.RegisterTopic(L"TRADE.HOT.MONTH", &result), E_OUTOFMEMORY);
  platform::FailBstrAllocationForTesting(1);
  EXPECT_EQ(bridge_.GetTopicData(L"NordaSystemTime", &result), E_OUTOFMEMORY);
  // SendTopic allocates the topic, the text and the data's text.
  for (int nth = 1; nth <= 3; ++nth) {
    SCOPED_TRACE(testing::Message() << "allocation " << nth << " fails");
    Variant data = Variant::Text(L"data");
    platform::FailBstrAllocationForTesting(nth);
    EXPECT_EQ(bridge_.SendTopic(L"TRADE.NEWORDER", 1, 1, L"SIDE=1", &data, &result), E_OUTOFMEMORY);
  }
  platform::FailBstrAllocationForTesting(0);
  EXPECT_TRUE(sink_.Calls().empty());
  EXPECT_EQ(bridge_.WriteLog(L"line"), S_OK);
  EXPECT_EQ(sink_.Calls().size(), 1u);
}

void RaiseFromTimer(unsigned, void* context) { static_cast<EventBridge*>(context)->WriteLog(L"from the timer"); }

TEST_F(BridgeTest, ARaiseFromATimerThreadReachesTheSinkMadeOnTheHostThread) {
  VirtualClock clock;
  CTimer timer(&clock);
  ASSERT_EQ(timer.StartTimer(101, 100, &RaiseFromTimer, &bridge_), 1);
  clock.WaitForArming();
  clock.Advance(100);
  ASSERT_TRUE(sink_.WaitForCalls(1));
  timer.Shutdown();
  const SinkCall call = sink_.Calls()[0];
  EXPECT_EQ(call.args, (std::vector<std::wstring>{L"from the timer"}));
  EXPECT_NE(call.thread, GetCurrentThreadId());
}

// Raises WriteLog with the update's text from the base-data component's
// event thread.
class RaisingReceiver final : public IBaseDataEvents {
 public:
  explicit RaisingReceiver(EventBridge* bridge) : bridge_(bridge) {}
  uint32_t AddRef() override { return 1; }
  uint32_t Release() override { return 1; }
  void OnUpdate(int32_t, const std::wstring& text) override { bridge_->WriteLog(L"update " + text); }
  void OnReplace(int32_t) override {}

 private:
  EventBridge* bridge_;
};

TEST_F(BridgeTest, ARaiseFromTheDataEventThreadReachesTheSinkMadeOnTheHostThread) {
  IBaseData* record = TsmCreateBaseData(L"event thread record");
  ASSERT_NE(record, nullptr);
  RaisingReceiver receiver(&bridge_);
  uint32_t cookie = 0;
  ASSERT_EQ(record->Advise(&receiver, &cookie), kS_OK);
  const int32_t update = record->BeginUpdate();
  record->SetData(update, kKindFieldByName, Variant::Text(L"ExecType"), Variant::I4(2));
  record->EndUpdate(update);
  ASSERT_TRUE(sink_.WaitForCalls(1));
  record->Unadvise(cookie);
  record->Release();
  const SinkCall call = sink_.Calls()[0];
  EXPECT_EQ(call.dispid, 7);
  EXPECT_NE(call.thread, GetCurrentThreadId());
}

}  // namespace
}  // namespace tsm::module
