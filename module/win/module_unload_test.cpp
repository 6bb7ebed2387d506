// Unloading TradeSliceManager.dll the way a host does: LoadLibrary, create
// the object through the DLL's own exports, let its threads work, release,
// ask DllCanUnloadNow until it allows, FreeLibrary. Every thread the DLL
// starts (one per armed timer, the volume worker) and every callback that
// outlives the object keeps DllCanUnloadNow at S_FALSE and the module mapped
// until it has left the DLL's code; a module freed under such a thread would
// crash this program. The manager's own flows raise host events from its
// timer threads and from the base-data event thread.
#include <windows.h>
#include <oleauto.h>
#include <ocidl.h>
#include <olectl.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "data/base_data.h"
#include "module/win/qx_trade_slice_manager.h"
#include "module/win/test_host_sink.h"
#include "platform/win/com_win.h"
#include "testing/component_binding.h"
#include "tradeslice/base_data_api.h"
#include "tradeslice/norda_host.h"

namespace tsm::module {
namespace {

using platform::ComPtr;
using platform::UniqueBstr;

constexpr wchar_t kDllName[] = L"TradeSliceManager.dll";
// Bounds of the waits below: a lost event or a module that never unloads
// fails the test instead of hanging it.
constexpr auto kDeadline = std::chrono::seconds(20);
constexpr DWORD kPollMs = 2;
// Logged by the timer 102 callback for every parent order it finishes.
constexpr wchar_t kFinishLine[] = L"<CTradeSliceManager>[Sliced Send End order] ";

// The host's sink. GetTopicData answers the cookie set for "NordaSystemTime"
// and no record for any other topic. A WriteLog of the timer
// 102 callback is counted; while `hold` is set, that callback waits inside
// the sink until `Let()`.
class HostSink final : public TestHostSink {
 public:
  HRESULT STDMETHODCALLTYPE Invoke(DISPID dispid, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT* result,
                                   EXCEPINFO*, UINT*) override {
    if (result != nullptr) {
      VariantInit(result);
      result->vt = VT_I4;
      result->lVal = 0;
      if (dispid == 4 && params->cArgs == 1 && params->rgvarg[0].vt == VT_BSTR &&
          std::wstring(params->rgvarg[0].bstrVal) == L"NordaSystemTime") {
        result->lVal = system_time_cookie_;
      }
    }
    if (dispid != 7 || params->cArgs != 1 || params->rgvarg[0].vt != VT_BSTR) return S_OK;
    const std::wstring line(params->rgvarg[0].bstrVal, SysStringLen(params->rgvarg[0].bstrVal));
    std::unique_lock<std::mutex> guard(lock_);
    lines_.push_back({line, GetCurrentThreadId()});
    changed_.notify_all();
    if (line.rfind(kFinishLine, 0) != 0) return S_OK;
    ++finished_;
    changed_.notify_all();
    if (hold_) changed_.wait_for(guard, kDeadline, [this] { return !hold_; });
    return S_OK;
  }

  void Hold() {
    std::lock_guard<std::mutex> guard(lock_);
    hold_ = true;
  }
  void Let() {
    std::lock_guard<std::mutex> guard(lock_);
    hold_ = false;
    changed_.notify_all();
  }
  // The thread of the first log line that starts with `prefix`, once it has
  // come; 0 when it never does.
  DWORD WaitForLine(const std::wstring& prefix) {
    std::unique_lock<std::mutex> guard(lock_);
    DWORD thread = 0;
    changed_.wait_for(guard, kDeadline, [&] {
      for (const auto& [line, from] : lines_) {
        if (line.rfind(prefix, 0) == 0) thread = from;
        if (thread != 0) return true;
      }
      return false;
    });
    return thread;
  }
  bool WaitFinished(int count) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, kDeadline, [&] { return finished_ >= count; });
  }
  void SetSystemTimeCookie(LONG cookie) { system_time_cookie_ = cookie; }

 private:
  std::atomic<LONG> system_time_cookie_{0};
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::pair<std::wstring, DWORD>> lines_;  // WriteLog lines and their threads
  int finished_ = 0;
  bool hold_ = false;
};

// A record of the host's, made in the base-data component.
class HostRecord {
 public:
  template <std::size_t N>
  explicit HostRecord(TsmField (&&fields)[N])
      : object_(TsmCreateBaseDataWithFields(L"Record", fields, static_cast<int32_t>(N))) {
    if (object_ != nullptr) record_.Initialize(nullptr, BindingOf(object_));
  }
  ~HostRecord() {
    if (object_ != nullptr) object_->Release();
  }
  HostRecord(const HostRecord&) = delete;
  HostRecord& operator=(const HostRecord&) = delete;

  LONG Cookie() { return static_cast<LONG>(record_.GetCookie()); }
  // One change, heard on the component's event thread by whoever listens.
  void Write(const wchar_t* field, int32_t value) {
    const int32_t id = record_.BeginUpdate();
    record_.SetData(id, kKindFieldByName, Variant::Text(field), Variant::I4(value));
    record_.EndUpdate(id);
  }

 private:
  IBaseData* object_ = nullptr;
  CBaseData record_;
};

// A parent order of slice type 5: "TRADE.SLICE.MANAGER" keeps it and arms
// timer 102 (10 ms), whose callback logs its end of slicing.
class ParentOrder : public HostRecord {
 public:
  explicit ParentOrder(const std::wstring& level_key) : HostRecord(Fields(level_key).fields) {}

 private:
  struct FieldList {
    TsmField fields[7];
  };
  static FieldList Fields(const std::wstring& level_key) {
    return {{{L"SlicedType", Variant::I4(5)},
             {L"Interval", Variant::I4(1)},
             {L"LeftoverAction", Variant::I4(0)},
             {L"TimeInForce", Variant::I4(6)},
             {L"SliceID", Variant::Text(L"S-" + level_key)},
             {L"LevelKey", Variant::Text(level_key)},
             {L"Symbol", Variant::Text(L"2330")}}};
  }
};

// The host's "NordaSystemTime": the object listens to it from stage 2.
class SystemTime : public HostRecord {
 public:
  SystemTime() : HostRecord(Fields().fields) {}

 private:
  struct FieldList {
    TsmField fields[3];
  };
  static FieldList Fields() {
    return {{{L"SystemDate", Variant::I4(20240102)}, {L"SystemTime", Variant::I4(90000)}, {L"TimeDiff", Variant::I4(0)}}};
  }
};

// One load of the DLL, as a host makes it.
class LoadedDll {
 public:
  LoadedDll() : module_(LoadLibraryW(kDllName)) {
    if (module_ == nullptr) return;
    get_class_object_ = reinterpret_cast<decltype(get_class_object_)>(
        reinterpret_cast<void*>(GetProcAddress(module_, "DllGetClassObject")));
    can_unload_now_ = reinterpret_cast<decltype(can_unload_now_)>(
        reinterpret_cast<void*>(GetProcAddress(module_, "DllCanUnloadNow")));
  }
  ~LoadedDll() { Free(); }
  LoadedDll(const LoadedDll&) = delete;
  LoadedDll& operator=(const LoadedDll&) = delete;

  bool ok() const { return get_class_object_ != nullptr && can_unload_now_ != nullptr; }
  HRESULT CanUnloadNow() { return can_unload_now_(); }

  ComPtr<INordaManager> Create() {
    ComPtr<IClassFactory> factory;
    ComPtr<INordaManager> manager;
    if (FAILED(get_class_object_(CLSID_TradeSliceManager, IID_IClassFactory, factory.PutVoid())) || !factory) {
      return manager;
    }
    factory->CreateInstance(nullptr, IID_INordaManager, manager.PutVoid());
    return manager;
  }

  // Asks DllCanUnloadNow until it answers S_OK; false when it never does.
  bool WaitUntilUnloadable() {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (can_unload_now_() != S_OK) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      Sleep(kPollMs);
    }
    return true;
  }

  void Free() {
    if (module_ != nullptr) FreeLibrary(module_);
    module_ = nullptr;
  }

 private:
  HMODULE module_ = nullptr;
  HRESULT(STDAPICALLTYPE* get_class_object_)(REFCLSID, REFIID, void**) = nullptr;
  HRESULT(STDAPICALLTYPE* can_unload_now_)() = nullptr;
};

// Waits until no module of the DLL's name is mapped: the last thread that
// held it has let go.
bool WaitUntilUnmapped() {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (GetModuleHandleW(kDllName) != nullptr) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    Sleep(kPollMs);
  }
  return true;
}

DWORD AdviseHostSink(INordaManager* manager, IDispatch* sink) {
  ComPtr<IConnectionPointContainer> container;
  ComPtr<IConnectionPoint> point;
  DWORD cookie = 0;
  if (SUCCEEDED(manager->QueryInterface(IID_IConnectionPointContainer, container.PutVoid())) &&
      SUCCEEDED(container->FindConnectionPoint(DIID__INordaManagerEvents, point.Put()))) {
    point->Advise(sink, &cookie);
  }
  return cookie;
}

// Delivers `record` under `topic` with the order index `index`.
HRESULT SetRecordTopic(INordaManager* manager, const wchar_t* topic, const wchar_t* index, HostRecord& record) {
  UniqueBstr topic_text(topic);
  UniqueBstr index_text(index);
  VARIANT data;
  VariantInit(&data);
  data.vt = VT_I4;
  data.lVal = record.Cookie();
  return manager->SetTopic(topic_text.get(), 0, 0, index_text.get(), &data);
}

HRESULT KeepParent(INordaManager* manager, ParentOrder& order) {
  return SetRecordTopic(manager, L"TRADE.SLICE.MANAGER", L"0", order);
}

// How far the object gets before the host lets go, in turn over the rounds:
// at once after arming its timer (the timer thread is still starting), or
// after its timer callback ran (the thread is ending).
enum class ReleasePoint { kTimerArmed, kTimerCalledBack };

void OneRound(int round, ReleasePoint when) {
  SCOPED_TRACE(testing::Message() << "round " << round);
  ASSERT_EQ(GetModuleHandleW(kDllName), nullptr);
  LoadedDll dll;
  ASSERT_TRUE(dll.ok());
  HostSink sink;
  ParentOrder order(L"K-" + std::to_wstring(round));
  SystemTime system_time;
  sink.SetSystemTimeCookie(system_time.Cookie());
  {
    ComPtr<INordaManager> manager = dll.Create();
    ASSERT_TRUE(manager);
    ASSERT_NE(AdviseHostSink(manager.get(), &sink), 0u);
    EXPECT_EQ(manager->SetStage(1, 1), S_OK);
    // Starts the volume worker and listens to the system time, whose changes
    // are on their way on the event thread as the host lets go.
    EXPECT_EQ(manager->SetStage(1, 2), S_OK);
    for (int second = 1; second <= 3; ++second) system_time.Write(L"SystemTime", 90000 + second);
    EXPECT_EQ(KeepParent(manager.get(), order), S_OK);
    if (when == ReleasePoint::kTimerCalledBack) {
      ASSERT_TRUE(sink.WaitFinished(1));
    }
  }
  ASSERT_TRUE(dll.WaitUntilUnloadable());
  dll.Free();
  ASSERT_TRUE(WaitUntilUnmapped());
  EXPECT_EQ(sink.refs(), 1u);  // the object let go of the host's sink
}

TEST(ModuleUnloadTest, FreeingTheDllOnceItAllowsNeverCutsOffItsThreads) {
  constexpr int kRounds = 100;
  for (int round = 0; round < kRounds; ++round) {
    OneRound(round, round % 2 == 0 ? ReleasePoint::kTimerArmed : ReleasePoint::kTimerCalledBack);
    if (HasFatalFailure()) return;
  }
}

// The timer callback is held inside the host's sink while the host lets go:
// the last release waits its bounded time, leaves the object to the callback
// and returns. No object is left, yet the timer thread still runs the DLL's
// code: DllCanUnloadNow answers S_FALSE until that thread has finished.
TEST(ModuleUnloadTest, DllCanUnloadNowGoesFromSFalseToSOkWhenALateTimerCallbackHasFinished) {
  ASSERT_EQ(GetModuleHandleW(kDllName), nullptr);
  LoadedDll dll;
  ASSERT_TRUE(dll.ok());
  HostSink sink;
  ParentOrder order(L"K-late");
  sink.Hold();
  {
    ComPtr<INordaManager> manager = dll.Create();
    ASSERT_TRUE(manager);
    ASSERT_NE(AdviseHostSink(manager.get(), &sink), 0u);
    EXPECT_EQ(manager->SetStage(1, 1), S_OK);
    EXPECT_EQ(KeepParent(manager.get(), order), S_OK);
    ASSERT_TRUE(sink.WaitFinished(1));  // the callback now waits inside the sink
    EXPECT_EQ(dll.CanUnloadNow(), S_FALSE);
  }
  // The last release returned; the callback still runs.
  EXPECT_EQ(dll.CanUnloadNow(), S_FALSE);
  sink.Let();
  EXPECT_TRUE(dll.WaitUntilUnloadable());
  dll.Free();
  EXPECT_TRUE(WaitUntilUnmapped());
}

// A child order of slice "S-K-flow": "TRADE.HOT.MONTH" listens to it.
class ChildOrder : public HostRecord {
 public:
  ChildOrder() : HostRecord(Fields().fields) {}

 private:
  struct FieldList {
    TsmField fields[4];
  };
  static FieldList Fields() {
    return {{{L"SliceID", Variant::Text(L"S-K-flow")},
             {L"LevelKey", Variant::Text(L"C-flow")},
             {L"ExecType", Variant::I4(0)},
             {L"SlicedType", Variant::I4(1)}}};
  }
};

// The manager's own flows raise on its other threads: timer 102 logs the end
// of slicing of a kept parent on its timer thread; a change of a listened
// child order is logged from the base-data component's event thread. Both
// reach the sink the host made and advised on its own thread.
TEST(ManagerThreadEventsTest, EventsFromATimerThreadAndFromTheDataEventThreadReachTheHostsSink) {
  ASSERT_EQ(GetModuleHandleW(kDllName), nullptr);
  LoadedDll dll;
  ASSERT_TRUE(dll.ok());
  HostSink sink;
  ParentOrder parent(L"K-flow");
  ChildOrder child;
  const DWORD host_thread = GetCurrentThreadId();
  {
    ComPtr<INordaManager> manager = dll.Create();
    ASSERT_TRUE(manager);
    ASSERT_NE(AdviseHostSink(manager.get(), &sink), 0u);
    EXPECT_EQ(manager->SetStage(1, 1), S_OK);
    EXPECT_EQ(KeepParent(manager.get(), parent), S_OK);
    const DWORD timer_thread = sink.WaitForLine(kFinishLine);
    EXPECT_NE(timer_thread, 0u);
    EXPECT_NE(timer_thread, host_thread);

    EXPECT_EQ(SetRecordTopic(manager.get(), L"TRADE.HOT.MONTH", L"1", child), S_OK);
    child.Write(L"ExecType", 1);
    const DWORD event_thread =
        sink.WaitForLine(L"<CTradeSliceManager>OnDataUpdate : LevelKey=C-flow, SliceID=S-K-flow, ExecType=1");
    EXPECT_NE(event_thread, 0u);
    EXPECT_NE(event_thread, host_thread);
    EXPECT_NE(event_thread, timer_thread);
    EXPECT_EQ(manager->SetStage(1, 4), S_OK);
  }
  EXPECT_TRUE(dll.WaitUntilUnloadable());
  dll.Free();
  EXPECT_TRUE(WaitUntilUnmapped());
}

}  // namespace
}  // namespace tsm::module
