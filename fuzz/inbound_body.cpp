// The inbound surface: the input becomes a sequence of host calls on a fresh
// manager (stages, topics with data of every kind, record changes, order set
// children, clock steps), then stage 4 and the release of the last reference.
// Checked: every call returns S_OK, every "TRADE.NEWORDER" is template A or B
// filled in, and stage 4 and the release return after a bounded number of
// clock steps (a hang is the fuzzer's time-out); the sanitizers check the rest.
#include <algorithm>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "fuzz/command_shape.h"
#include "fuzz/fuzz_bodies.h"
#include "fuzz/fuzz_input.h"
#include "testing/manager_fixture.h"

namespace tsm::fuzz {

namespace {

const std::vector<std::wstring> kTopics = {
    L"TRADE.HOT.MONTH", L"TRADE.SLICE.MANAGER", L"TRADE.SLICE.MANAGER.CANCEL", L"TRADE.SLICE.ORDER",
    L"ORDERSET.LOCK",   L"ORDERSET.UNLOCK",     L"trade.slice.order",          L"NordaSystemTime",
    L"Security.Info",   L"TRADE.ORDERSET",      L"MARZIPAN.REQUEST",           L"TRADE.NEWORDER"};

const std::vector<std::wstring> kFields = {
    L"LevelKey",     L"SliceID",         L"ExecType",       L"OrderQty",       L"LeavesQty",     L"CumQty",
    L"SendQty",      L"SlicedType",      L"Interval",       L"LeftoverAction", L"DiscloseQty",   L"Variance",
    L"Symbol",       L"Side",            L"SecurityType",   L"GroupType",      L"GroupID",       L"GroupPrefix",
    L"OrderID",      L"Price",           L"PriceString",    L"TimeInForce",    L"OriTimeInForce", L"ExtCommands",
    L"FlowControl",  L"FitOrdFreq",      L"OriLevelKey",    L"Consecutive",    L"NumberOfRetries", L"RetryInterval",
    L"OriginalQty",  L"ClientModify",    L"ClientModifyNew", L"NewChase",      L"SpreadType",    L"SpreadID",
    L"SystemDate",   L"SystemTime",      L"TimeDiff",       L"VAULT",          L"LoginType",     L"UserKey3"};

const std::vector<std::wstring> kKeys = {L"P1", L"P2", L"C1", L"C2", L"SPA_1", L"", L"P1-S"};
const std::vector<std::wstring> kSymbols = {L"QX.S.TW.2330", L"QX.F.TW.TXF.1", L"QX.S.TW"};

// ExecType codes the manager tells apart, and any other.
int32_t ExecTypeValue(FuzzInput& in) {
  static constexpr int32_t kCodes[] = {0, 1, 3, 5, 7, 8, 10, 15, 16, 20, 21};
  const uint8_t b = in.Byte();
  return b < 200 ? kCodes[b % (sizeof kCodes / sizeof kCodes[0])] : in.I32();
}

Variant FieldValue(FuzzInput& in, const std::wstring& field) {
  switch (in.Byte() % 6) {
    case 0:
      if (field == L"ExecType") return Variant::I4(ExecTypeValue(in));
    {
      const int32_t small = in.Byte();
      return Variant::I4(in.Bool() ? small * 100 : small);
    }
    case 1: return Variant::I4(in.I32());
    case 2: return Variant::I8(in.I64());
    case 3: return Variant();
    case 4:
      if (field == L"LevelKey" || field == L"SliceID" || field == L"OriLevelKey") return Variant::Text(in.Pick(kKeys, true));
      if (field == L"Symbol") return Variant::Text(in.Pick(kSymbols, true));
      return Variant::Text(std::to_wstring(in.Byte()));
    default: return Variant::Text(in.Text(24));
  }
}

sim::FieldList Fields(FuzzInput& in, bool order) {
  sim::FieldList fields;
  if (order) {
    // Most orders are whole enough to be sliced.
    fields = {{L"LevelKey", Variant::Text(in.Pick(kKeys, true))},
              {L"SliceID", Variant::Text(in.Pick(kKeys, true))},
              {L"SlicedType", Variant::I4(static_cast<int32_t>(in.Below(7)))},
              {L"OrderQty", Variant::I4(static_cast<int32_t>(in.Byte()) * 100)},
              {L"DiscloseQty", Variant::I4(static_cast<int32_t>(in.Byte()) * 10)},
              {L"Symbol", Variant::Text(in.Pick(kSymbols, true))},
              {L"SecurityType", Variant::Text(L"S")}};
  }
  const uint32_t extra = in.Below(8);
  for (uint32_t i = 0; i < extra; ++i) {
    const std::wstring name = in.Pick(kFields, true);
    if (name.empty()) continue;
    fields.emplace_back(name, FieldValue(in, name));
  }
  return fields;
}

class Session {
 public:
  Session() : host_(clock_), manager_(new CTradeSliceManager(&clock_)) {
    host_.SetKeepEvents(false);
    host_.SetSecurityText(L"QX.S.TW.2330", L"Q|100|x|1000");
    IBaseData* entry = Own(sim::SimHost::NewRecord(
        L"entry", {{L"QX.S.TW.2330", Variant::Text(L"{\"OpenCloseTime\":\"09:00~11:30;13:00~15:00\"}")}}));
    TsmSetChild(host_.Topic(L"Security.Info"), L"QX.S.TW", entry);
    host_.on_send = [this](const std::wstring& topic, int32_t, int32_t, const std::wstring& text, Variant*, Variant*) {
      if (topic == L"TRADE.NEWORDER") CheckCommand(text);
    };
    manager_->AddRef();
    manager_->Advise(&host_, &sink_);
    clock_.AddQuiescer([] { TsmWaitEventsDelivered(); });
  }

  ~Session() {
    for (IBaseData* record : records_) record->Release();
  }

  std::string Play(FuzzInput& in) {
    for (int step = 0; step < 96 && !in.Empty(); ++step) {
      switch (in.Byte() % 7) {
        case 0: Stage(in); break;
        case 1: NewOrder(in); break;
        case 2:
        case 3: Topic(in); break;
        case 4: Update(in); break;
        case 5: Advance(in); break;
        default: OrderSetChild(in); break;
      }
    }
    // Stage 4, a bounded number of clock steps, and the last release.
    Unlock();
    Check(manager_->SetStage(1, 4), "SetStage(1, 4)");
    for (int i = 0; i < 40; ++i) clock_.Advance(500);
    manager_->Unadvise(sink_);
    manager_->Release();
    TsmWaitEventsDelivered();
    std::lock_guard<std::mutex> guard(lock_);
    return broken_;
  }

 private:
  IBaseData* Own(IBaseData* record) {
    records_.push_back(record);
    return record;
  }

  void Broken(const std::string& what) {
    std::lock_guard<std::mutex> guard(lock_);
    if (broken_.empty()) broken_ = what;
  }

  // A parent may send the same command thousands of times; each text is
  // matched once.
  void CheckCommand(const std::wstring& text) {
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (commands_seen_.count(text) != 0) return;
    }
    const bool ok = IsNewOrderCommand(text);
    std::lock_guard<std::mutex> guard(lock_);
    commands_seen_.insert(text);
    if (!ok && broken_.empty()) broken_ = "a TRADE.NEWORDER that is no command";
  }

  void Check(HResult hr, const std::string& call) {
    if (hr != kS_OK) Broken(call + " did not return S_OK");
  }

  // Events and clock steps need the order set unlocked: the manager's other
  // threads wait for the order mutex while the host holds it.
  void Unlock() {
    for (; locks_ > 0; --locks_) Check(manager_->SetTopic(L"ORDERSET.UNLOCK", 0, 0, L"", nullptr), "ORDERSET.UNLOCK");
    TsmWaitEventsDelivered();
  }

  void Stage(FuzzInput& in) {
    const int32_t kind = in.Byte() < 224 ? 1 : in.I32();
    static constexpr int32_t kStages[] = {1, 2, 4, 3, 0};
    const uint8_t b = in.Byte();
    const int32_t stage = b < 240 ? kStages[b % 5] : in.I32();
    if (kind == 1 && stage == 4) Unlock();
    Check(manager_->SetStage(kind, stage), "SetStage");
  }

  void NewOrder(FuzzInput& in) {
    IBaseData* record = Own(sim::SimHost::NewRecord(L"order", Fields(in, true)));
    orders_.push_back(record);
    cookies_.push_back(host_.Publish(record));
  }

  Variant Data(FuzzInput& in) {
    switch (in.Byte() % 6) {
      case 0: return Variant();
      case 1:
      case 2:
        if (!cookies_.empty()) return Variant::I4(static_cast<int32_t>(cookies_[in.Byte() % cookies_.size()]));
        return Variant::I4(in.I32());
      case 3: return Variant::I4(in.I32());
      case 4: return Variant::I8(in.I64());
      default: return Variant::Text(in.Text(16));
    }
  }

  void Topic(FuzzInput& in) {
    const std::wstring topic = in.Pick(kTopics, true);
    const int32_t p1 = in.Byte() < 240 ? 0 : in.I32();
    const uint8_t b = in.Byte();
    const int32_t p2 = b < 200 ? static_cast<int32_t>(b % 4) : in.I32();
    const std::wstring text = in.Bool() ? std::to_wstring(in.Below(8)) : in.Pick(kKeys, true);
    Variant data = Data(in);
    // Held across calls the order mutex stalls the other threads; the host
    // never holds it long, and never across a clock step.
    if (topic == L"ORDERSET.LOCK" && locks_ >= 4) return;
    Check(manager_->SetTopic(topic, p1, p2, text, &data), "SetTopic");
    if (topic == L"ORDERSET.LOCK") ++locks_;
    if (topic == L"ORDERSET.UNLOCK" && locks_ > 0) --locks_;
    if (locks_ == 0) TsmWaitEventsDelivered();
  }

  void Update(FuzzInput& in) {
    Unlock();
    const uint8_t which = in.Byte() % 4;
    if (which == 0 && !orders_.empty()) {
      sim::SimHost::Write(orders_[in.Byte() % orders_.size()], Fields(in, false));
    } else if (which == 1) {
      sim::SimHost::Write(host_.Topic(L"NordaSystemTime"),
                          {{L"SystemDate", FieldValue(in, L"SystemDate")}, {L"SystemTime", FieldValue(in, L"SystemTime")},
                           {L"TimeDiff", Variant::I4(static_cast<int32_t>(in.U32() % 172801) - 86400)}});
    } else {
      // A quote record: the traded volume by field id 6, as the exchange writes it.
      IBaseData* quote = host_.Topic(in.Pick(kSymbols, false));
      const int32_t update = quote->BeginUpdate();
      quote->SetData(update, 1, Variant::I4(6), in.Bool() ? Variant::I8(in.I64()) : Variant::I4(in.I32()));
      quote->EndUpdate(update);
    }
    TsmWaitEventsDelivered();
  }

  void Advance(FuzzInput& in) {
    Unlock();
    static constexpr int64_t kSteps[] = {1, 10, 50, 100, 1000, 10000, 20000, 60000};
    const uint8_t b = in.Byte();
    clock_.Advance(b < 240 ? kSteps[b % 8] : static_cast<int64_t>(in.U32() % 600000));
  }

  void OrderSetChild(FuzzInput& in) {
    if (orders_.empty()) return;
    IBaseData* set = host_.Topic(L"TRADE.ORDERSET");
    if (in.Byte() % 8 == 0) {
      TsmClearChildren(set);
    } else {
      TsmAppendChild(set, orders_[in.Byte() % orders_.size()]);
    }
  }

  VirtualClock clock_{kDefaultStartUtcMs};
  sim::SimHost host_;
  CTradeSliceManager* manager_;
  uint32_t sink_ = 0;
  int locks_ = 0;  // ORDERSET.LOCK calls not yet matched by an unlock
  std::vector<IBaseData*> records_;  // references this session holds
  std::vector<IBaseData*> orders_;
  std::vector<uint32_t> cookies_;
  std::mutex lock_;  // guards the two below (requests arrive on the manager's threads)
  std::string broken_;
  std::unordered_set<std::wstring> commands_seen_;
};

}  // namespace

std::string FuzzInbound(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  Session session;
  return session.Play(in);
}

}  // namespace tsm::fuzz
