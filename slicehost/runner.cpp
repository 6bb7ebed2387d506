#include "slicehost/runner.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "data/text.h"
#include "platform/clock.h"
#include "platform/virtual_clock.h"
#include "slicehost/host_loop.h"
#include "slicehost/manager_link.h"
#include "tradeslice/host_api.h"

namespace tsm::sim {

namespace {

using Wall = std::chrono::steady_clock;

// ---- The manager as the host calls it -------------------------------------

// Records every call the host makes into the manager (SetStage, SetTopic) in
// the host's event list before passing it on, and measures the host thread's
// time inside those calls.
class RecordingManager final : public INordaManager {
 public:
  RecordingManager(SimHost& host, INordaManager* inner) : host_(host), inner_(inner) {}

  uint32_t AddRef() override { return 1; }  // owned by the run
  uint32_t Release() override { return 1; }

  HResult SetStage(int32_t kind, int32_t stage) override {
    if (host_.KeepsEvents()) {
      HostEvent e;
      e.ev = "SetStage";
      e.p1 = kind;
      e.p2 = stage;
      host_.RecordCall(std::move(e));
    }
    const auto start = Wall::now();
    const HResult hr = inner_->SetStage(kind, stage);
    inside_ns_ += std::chrono::duration_cast<std::chrono::nanoseconds>(Wall::now() - start).count();
    return hr;
  }

  HResult SetTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                   Variant* data) override {
    host_.RecordTopicCall("SetTopic", topic, param1, param2, text, data);
    const auto start = Wall::now();
    const HResult hr = inner_->SetTopic(topic, param1, param2, text, data);
    inside_ns_ += std::chrono::duration_cast<std::chrono::nanoseconds>(Wall::now() - start).count();
    return hr;
  }

  HResult Advise(INordaManagerEvents* sink, uint32_t* cookie) override { return inner_->Advise(sink, cookie); }
  HResult Unadvise(uint32_t cookie) override { return inner_->Unadvise(cookie); }

  int64_t InsideNs() const { return inside_ns_.load(); }

 private:
  SimHost& host_;
  INordaManager* inner_;
  std::atomic<int64_t> inside_ns_{0};
};

// ---- The base-data component's event thread ------------------------------

class ProbeSink final : public IBaseDataEvents {
 public:
  uint32_t AddRef() override { return 1; }
  uint32_t Release() override { return 1; }
  void OnUpdate(int32_t, const std::wstring&) override { thread = std::this_thread::get_id(); }
  void OnReplace(int32_t) override {}
  std::thread::id thread;
};

// The id of the component's one event thread, found by listening to a record
// of our own once.
std::thread::id EventThreadId() {
  static const std::thread::id id = [] {
    IBaseData* record = TsmCreateBaseData(L"event thread probe");
    ProbeSink sink;
    uint32_t cookie = 0;
    record->Advise(&sink, &cookie);
    SimHost::Write(record, {{L"Probe", Variant::I4(1)}});
    TsmWaitEventsDelivered();
    record->Unadvise(cookie);
    record->Release();
    return sink.thread;
  }();
  return id;
}

// ---- Quote records -----------------------------------------------------------

// The host's quote record of one symbol (traded volume at field id 6), in
// front of a record of the base-data component. It lets the host wait for
// the manager's volume worker, the one thread of the manager that the clock
// does not drive: after a traded volume was written while the manager
// listens, `SettleWorker` waits until the worker has read the new volume and
// then gives it time to finish its check (cancels included) before the host
// goes on. Reads from the event thread (the start volume of a child) are not
// the worker's and are not counted.
//
// Reference counted: the manager's records may keep it after the run.
class WatchedQuote final : public IBaseData {
 public:
  static constexpr int32_t kVolumeField = 6;
  static constexpr auto kReadWait = std::chrono::seconds(3);
  static constexpr auto kQuiet = std::chrono::milliseconds(40);

  WatchedQuote(const std::wstring& symbol, int64_t volume) : inner_(TsmCreateBaseData(symbol.c_str())) {
    const int32_t update = inner_->BeginUpdate();
    inner_->SetData(update, kKindFieldById, Variant::I4(kVolumeField), Variant::I8(volume));
    inner_->EndUpdate(update);
  }

  uint32_t AddRef() override { return ++refs_; }
  uint32_t Release() override {
    const uint32_t left = --refs_;
    if (left == 0) delete this;
    return left;
  }

  int32_t BeginUpdate() override { return inner_->BeginUpdate(); }
  void SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value) override {
    inner_->SetData(update_id, kind, key, value);
  }
  void EndUpdate(int32_t update_id) override {
    // Counted before the write takes effect: the worker may read the new
    // volume before EndUpdate returns.
    uint64_t reads_before;
    bool heard;
    {
      std::lock_guard<std::mutex> guard(lock_);
      reads_before = worker_reads_;
      heard = listeners_ > 0;
    }
    inner_->EndUpdate(update_id);
    if (!heard) return;
    std::lock_guard<std::mutex> guard(lock_);
    pending_ = true;
    reads_at_write_ = reads_before;
  }
  Variant GetData(int32_t kind, const Variant& argument) override {
    if (kind == kKindFieldById && argument.type() == VarType::I4 && argument.i4() == kVolumeField &&
        std::this_thread::get_id() != EventThreadId()) {
      std::lock_guard<std::mutex> guard(lock_);
      ++worker_reads_;
      read_.notify_all();
    }
    return inner_->GetData(kind, argument);
  }
  HResult Advise(IBaseDataEvents* sink, uint32_t* cookie) override {
    const HResult hr = inner_->Advise(sink, cookie);
    if (hr == kS_OK) {
      std::lock_guard<std::mutex> guard(lock_);
      ++listeners_;
    }
    return hr;
  }
  HResult Unadvise(uint32_t cookie) override {
    const HResult hr = inner_->Unadvise(cookie);
    if (hr == kS_OK) {
      std::lock_guard<std::mutex> guard(lock_);
      --listeners_;
    }
    return hr;
  }

  // True when a check of the worker was waited for.
  bool SettleWorker(SimHost& host) {
    {
      std::unique_lock<std::mutex> guard(lock_);
      if (!pending_) return false;
      pending_ = false;
      const uint64_t before = reads_at_write_;
      read_.wait_for(guard, kReadWait, [&] { return worker_reads_ > before; });
    }
    // The worker runs its check without waiting for anything once it has
    // read the volume; give it a quiet spell before the host goes on.
    size_t seen = host.EventsFrom(0).size();
    for (;;) {
      std::this_thread::sleep_for(kQuiet);
      const size_t now = host.EventsFrom(seen).size();
      if (now == 0) break;
      seen += now;
    }
    return true;
  }

 private:
  ~WatchedQuote() { inner_->Release(); }

  IBaseData* inner_;
  std::atomic<uint32_t> refs_{1};
  std::mutex lock_;  // guards the members below
  std::condition_variable read_;
  int listeners_ = 0;
  bool pending_ = false;
  uint64_t worker_reads_ = 0;
  uint64_t reads_at_write_ = 0;
};

// ---- Keys of a symbol id ---------------------------------------------------

std::vector<std::wstring> SymbolParts(const std::wstring& symbol) {
  std::vector<std::wstring> parts;
  size_t start = 0;
  while (start <= symbol.size()) {
    const size_t dot = symbol.find(L'.', start);
    const size_t end = dot == std::wstring::npos ? symbol.size() : dot;
    if (end > start) parts.push_back(symbol.substr(start, end - start));
    if (dot == std::wstring::npos) break;
    start = dot + 1;
  }
  return parts;
}

std::wstring JoinParts(const std::vector<std::wstring>& parts, size_t count) {
  std::wstring key;
  for (size_t i = 0; i < count && i < parts.size(); ++i) key += (i == 0 ? L"" : L".") + parts[i];
  return key;
}

std::string OpenCloseJson(const std::wstring& sessions) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.StartObject();
  writer.Key("OpenCloseTime");
  const std::string text = Utf8FromWide(sessions);
  writer.String(text.c_str(), static_cast<rapidjson::SizeType>(text.size()));
  writer.EndObject();
  return buffer.GetString();
}

std::wstring FieldsSummary(const ScenarioFields& fields) {
  std::wstring text;
  for (const auto& [name, value] : fields) {
    Variant shown = value;
    shown.ChangeTypeToText();
    text += (text.empty() ? L"" : L",") + name + L"=" + shown.text();
  }
  return text;
}

int32_t FieldI4(const ScenarioFields& fields, const std::wstring& name, int32_t fallback) {
  for (const auto& [field, value] : fields) {
    if (field == name) return SimHost::ToI4(value, fallback);
  }
  return fallback;
}

std::wstring FieldText(const ScenarioFields& fields, const std::wstring& name) {
  for (const auto& [field, value] : fields) {
    if (field != name) continue;
    Variant shown = value;
    shown.ChangeTypeToText();
    return shown.text();
  }
  return {};
}

// ---- One run -------------------------------------------------------------------

class Play {
 public:
  // `settle`: wait for the manager's reactions after every host action (a
  // reproducible run); off for the benchmark.
  Play(const Scenario& scenario, bool real_time, bool settle, ManagerPath path)
      : scenario_(scenario),
        virtual_clock_(real_time ? nullptr : std::make_unique<VirtualClock>(scenario.start_utc_ms)),
        clock_(real_time ? RealClock() : static_cast<IClock&>(*virtual_clock_)),
        host_(clock_),
        loop_(clock_),
        exchange_(host_, loop_, clock_) {
    EventThreadId();
    if (virtual_clock_ != nullptr) {
      virtual_clock_->SetLocalOffsetSeconds(scenario.time_offset_s);
      if (settle) {
        // Between clock steps: the manager's reactions are over, its timers
        // are armed, and the host's next actions come after its timers due
        // at the same moment.
        virtual_clock_->AddQuiescer([this] {
          Settle();
          virtual_clock_->WaitForArming();
          loop_.ArmAgain();
        });
        loop_.SetAfterAction([this] {
          Settle();
          virtual_clock_->WaitForArming();
        });
      } else {
        virtual_clock_->AddQuiescer([] { TsmWaitEventsDelivered(); });
      }
    } else if (settle) {
      loop_.SetAfterAction([this] { Settle(); });
    }
    time_diff_ = scenario.time_offset_s;
    SetUpRecords();
    SetUpExchange();
    std::string problem;
    manager_ = CreateManager(&clock_, path, &problem);
    if (manager_ == nullptr) throw std::runtime_error(problem);
    proxy_ = std::make_unique<RecordingManager>(host_, manager_);
    manager_->Advise(&host_, &sink_cookie_);
    exchange_.SetManager(proxy_.get());
  }

  ~Play() {
    loop_.Stop();
    if (manager_ != nullptr) {
      manager_->Unadvise(sink_cookie_);
      manager_->Release();
    }
    TsmWaitEventsDelivered();
    for (auto& [name, record] : records_) record->Release();
    for (auto& [symbol, quote] : quotes_) quote->Release();
  }

  Play(const Play&) = delete;
  Play& operator=(const Play&) = delete;

  // Posts the stages, the steps and the system time ticks.
  void Schedule(bool ticks) {
    // Times are since the start; on the wall clock some has passed already.
    const int64_t now = host_.ElapsedMs();
    const bool auto_stages = !scenario_.HasStageSteps();
    if (auto_stages) {
      loop_.PostSetStage(proxy_.get(), 1, 1, 0);
      loop_.PostSetStage(proxy_.get(), 1, 2, 0);
    }
    std::vector<const Step*> steps;
    for (const Step& step : scenario_.steps) steps.push_back(&step);
    std::stable_sort(steps.begin(), steps.end(), [](const Step* a, const Step* b) { return a->at_ms < b->at_ms; });
    for (const Step* step : steps) loop_.Post(step->at_ms - now, [this, step] { RunStep(*step); });
    if (auto_stages) loop_.PostSetStage(proxy_.get(), 1, 4, scenario_.duration_ms - now);
    loop_.Post(scenario_.duration_ms - now, [this] { ended_ = true; });
    if (ticks) loop_.Post(0, [this] { Tick(); });
  }

  // Moves the virtual clock to `t_ms` since the start.
  void AdvanceTo(int64_t t_ms) {
    const int64_t now = host_.ElapsedMs();
    if (t_ms > now) virtual_clock_->Advance(t_ms - now);
  }

  // On the wall clock: returns when the host has played everything up to
  // the end of the scenario.
  void WaitForTheEnd() {
    while (!ended_) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      if (on_flush_) on_flush_();
    }
  }

  SimHost& host() { return host_; }
  SimExchange& exchange() { return exchange_; }
  RecordingManager& proxy() { return *proxy_; }
  const std::vector<ParentInfo>& parents() const { return parents_; }
  void set_on_flush(std::function<void()> flush) { on_flush_ = std::move(flush); }

 private:
  void SetUpRecords() {
    IBaseData* system_time = host_.Topic(L"NordaSystemTime");
    SimHost::Write(system_time, SystemTimeFields(std::nullopt, std::nullopt));

    IBaseData* security_info = host_.Topic(L"Security.Info");
    SimHost::Write(security_info, {{L"VAULT", Variant::I4(scenario_.vault)}});
    std::map<std::wstring, IBaseData*> products;
    rapidjson::StringBuffer vault_json;
    rapidjson::Writer<rapidjson::StringBuffer> vault(vault_json);
    vault.StartObject();
    for (const Security& security : scenario_.securities) {
      const std::vector<std::wstring> parts = SymbolParts(security.symbol);
      const std::wstring security_key = JoinParts(parts, 4);
      const std::wstring product_key = JoinParts(parts, 3);
      if (!security.info.empty()) host_.SetSecurityText(security.symbol, security.info);
      if (security.source == "record") {
        IBaseData*& product = products[product_key];
        if (product == nullptr) {
          product = SimHost::NewRecord(product_key);
          TsmSetChild(security_info, product_key.c_str(), product);
        }
        SimHost::Write(product, {{security_key, Variant::Text(WideFromUtf8(OpenCloseJson(security.sessions)))}});
      } else if (security.source == "vault") {
        const std::string key = Utf8FromWide(security_key);
        vault.Key(key.c_str(), static_cast<rapidjson::SizeType>(key.size()));
        vault.StartObject();
        vault.Key("OpenCloseTime");
        const std::string sessions = Utf8FromWide(security.sessions);
        vault.String(sessions.c_str(), static_cast<rapidjson::SizeType>(sessions.size()));
        vault.EndObject();
      }
      auto* quote = new WatchedQuote(security.symbol, security.volume);
      quotes_[security.symbol] = quote;
      host_.SetTopicRecord(security.symbol, quote);
    }
    vault.EndObject();
    for (auto& [key, product] : products) product->Release();
    host_.SetVaultAnswer(vault_json.GetString(), scenario_.vault_answer);

    SimHost::Write(host_.Topic(L"PERMISSIONS.General"), {{L"LoginType", Variant::I4(scenario_.login_type)}});
    host_.Topic(L"TRADE.ORDERSET");
    for (const auto& [name, fields] : scenario_.topics) SimHost::Write(host_.Topic(name), fields);
    for (const auto& [name, fields] : scenario_.records) {
      IBaseData*& record = records_[name];
      if (record != nullptr) record->Release();
      record = SimHost::NewRecord(name, fields);
    }
  }

  void SetUpExchange() {
    exchange_.SetDefaultBehaviour(scenario_.exchange);
    for (const Security& security : scenario_.securities) {
      if (security.behaviour) exchange_.SetBehaviour(security.symbol, *security.behaviour);
    }
    exchange_.SetExecTypes(scenario_.exec_types);
    exchange_.SetLevelKeyPrefix(scenario_.level_key_prefix);
    exchange_.SetLockOrderSetOnAdd(scenario_.lock_order_set_on_add);
  }

  // The platform's system time: the exchange clock (UTC plus the time
  // difference) as YYYYMMDD and HHMMSS.
  FieldList SystemTimeFields(std::optional<int32_t> date, std::optional<int32_t> time) {
    std::tm tm{};
    clock_.ToUtc(clock_.UtcSeconds() + time_diff_, &tm);
    const int32_t now_date = (tm.tm_year + 1900) * 10000 + (tm.tm_mon + 1) * 100 + tm.tm_mday;
    const int32_t now_time = tm.tm_hour * 10000 + tm.tm_min * 100 + tm.tm_sec;
    return {{L"SystemDate", Variant::I4(date.value_or(now_date))},
            {L"SystemTime", Variant::I4(time.value_or(now_time))},
            {L"TimeDiff", Variant::I4(time_diff_)}};
  }

  void Tick() {
    SimHost::Write(host_.Topic(L"NordaSystemTime"), SystemTimeFields(std::nullopt, std::nullopt));
    loop_.Post(scenario_.tick_ms, [this] { Tick(); });
  }

  // What the host does after every action: the record change events it
  // caused are delivered, and the volume worker has finished its check.
  void Settle() {
    TsmWaitEventsDelivered();
    bool waited = false;
    for (auto& [symbol, quote] : quotes_) waited = quote->SettleWorker(host_) || waited;
    if (waited) TsmWaitEventsDelivered();
  }

  void Note(const char* ev, const std::wstring& subject, const std::wstring& text) {
    HostEvent e;
    e.ev = ev;
    e.topic = subject;
    e.p1 = -1;
    e.text = text;
    host_.RecordCall(std::move(e));
  }

  void Ignore(const Step& step, const std::wstring& subject, const std::wstring& why) {
    Note("HostStepIgnored", subject, why + L",Step=" + WideFromUtf8(step.where));
  }

  // A named record for the data of a SetTopic step or an update: an order
  // the exchange made, a named record of the scenario, or a topic record.
  IBaseData* FindRecord(const std::wstring& name) {
    if (IBaseData* order = exchange_.OrderRecord(name)) return order;
    auto it = records_.find(name);
    if (it != records_.end()) return it->second;
    if (host_.HasTopic(name)) return host_.Topic(name);
    return nullptr;
  }

  void RunStep(const Step& step) {
    switch (step.kind) {
      case Step::Kind::kSetStage:
        proxy_->SetStage(step.stage_kind, step.stage);
        break;
      case Step::Kind::kSetTopic: {
        Variant data;
        if (step.data.kind == StepData::Kind::kRecord) {
          IBaseData* record = FindRecord(step.data.record);
          if (record == nullptr) {
            Ignore(step, step.data.record, L"Reason=unknown record");
            return;
          }
          data = Variant::I4(static_cast<int32_t>(host_.Publish(record)));
        } else if (step.data.kind == StepData::Kind::kValue) {
          data = step.data.value;
        }
        proxy_->SetTopic(step.topic, step.p1, step.p2, step.text, &data);
        break;
      }
      case Step::Kind::kSubmit: {
        ParentInfo parent;
        parent.level_key = FieldText(step.fields, L"LevelKey");
        parent.slice_id = FieldText(step.fields, L"SliceID");
        parent.symbol = FieldText(step.fields, L"Symbol");
        parent.sliced_type = FieldI4(step.fields, L"SlicedType", 0);
        parent.qty = FieldI4(step.fields, L"OrderQty", FieldI4(step.fields, L"LeavesQty", 0));
        parent.submit_ms = host_.ElapsedMs();
        parents_.push_back(parent);
        exchange_.SubmitParent(step.fields, 0, step.in_order_set);
        break;
      }
      case Step::Kind::kRelease:
        if (exchange_.OrderRecord(step.order) == nullptr) return Ignore(step, step.order, L"Reason=unknown order");
        exchange_.ReleaseParent(step.order, 0);
        break;
      case Step::Kind::kCancel:
        if (exchange_.OrderRecord(step.order) == nullptr) return Ignore(step, step.order, L"Reason=unknown order");
        exchange_.CancelParent(step.order, step.all, 0);
        break;
      case Step::Kind::kUpdate: {
        IBaseData* record = FindRecord(step.record);
        if (record == nullptr) return Ignore(step, step.record, L"Reason=unknown record");
        Note("HostUpdate", step.record, FieldsSummary(step.fields));
        SimHost::Write(record, step.fields);
        break;
      }
      case Step::Kind::kFill:
        if (!exchange_.Order(step.order)) return Ignore(step, step.order, L"Reason=unknown order");
        Note("HostFill", step.order, L"Qty=" + std::to_wstring(step.qty));
        exchange_.FillChild(step.order, step.qty, 0);
        break;
      case Step::Kind::kVolume:
        Note("HostVolume", step.symbol, L"TradeVolume=" + std::to_wstring(step.volume));
        exchange_.SetTradedVolume(step.symbol, step.volume, 0);
        break;
      case Step::Kind::kSystemTime: {
        if (step.time_diff) time_diff_ = *step.time_diff;
        FieldList fields = SystemTimeFields(step.date, step.time);
        Note("HostSystemTime", L"NordaSystemTime", FieldsSummary(fields));
        SimHost::Write(host_.Topic(L"NordaSystemTime"), fields);
        break;
      }
      case Step::Kind::kRenumber: {
        Variant none;
        proxy_->SetTopic(L"ORDERSET.LOCK", 0, 0, L"", &none);
        const std::wstring order = Reorder(step.new_order);
        Note("HostRenumber", L"TRADE.ORDERSET", order);
        proxy_->SetTopic(L"ORDERSET.UNLOCK", 0, 0, L"", &none);
        break;
      }
    }
  }

  // Puts the named orders first in the host's order set, the others after
  // them in their present order; returns the new order as text.
  std::wstring Reorder(const std::vector<std::wstring>& first) {
    IBaseData* order_set = host_.Topic(L"TRADE.ORDERSET");
    const Variant count = order_set->GetData(kKindChildren, Variant::I4(-1));
    std::vector<std::pair<std::wstring, IBaseData*>> children;
    const int32_t n = count.type() == VarType::I4 ? count.i4() : 0;
    for (int32_t i = 0; i < n; ++i) {
      const Variant cookie = order_set->GetData(kKindChildren, Variant::I4(i));
      IBaseData* child = SimHost::FromCookie(&cookie);
      if (child == nullptr) continue;
      children.emplace_back(SimHost::ReadText(child, L"LevelKey"), child);
    }
    std::stable_sort(children.begin(), children.end(), [&first](const auto& a, const auto& b) {
      auto rank = [&first](const std::wstring& key) {
        return static_cast<size_t>(std::find(first.begin(), first.end(), key) - first.begin());
      };
      return rank(a.first) < rank(b.first);
    });
    TsmClearChildren(order_set);
    std::wstring text;
    for (auto& [key, child] : children) {
      TsmAppendChild(order_set, child);
      child->Release();
      text += (text.empty() ? L"" : L",") + key;
    }
    return text;
  }

  const Scenario& scenario_;
  std::unique_ptr<VirtualClock> virtual_clock_;
  IClock& clock_;
  SimHost host_;
  HostLoop loop_;
  SimExchange exchange_;
  INordaManager* manager_ = nullptr;
  std::unique_ptr<RecordingManager> proxy_;
  uint32_t sink_cookie_ = 0;
  std::map<std::wstring, IBaseData*> records_;      // named records, owned
  std::map<std::wstring, WatchedQuote*> quotes_;    // symbol -> quote record, one reference each
  std::vector<ParentInfo> parents_;                 // written by loop actions; read once the run has ended
  std::atomic<int32_t> time_diff_{0};
  std::atomic<bool> ended_{false};                  // the host has played the last moment
  std::function<void()> on_flush_;
};

// ---- Reports of a run ------------------------------------------------------

int64_t TextNumber(const std::wstring& text, const std::wstring& key) {
  const std::wstring value = CommandValue(text, key);
  return value.empty() ? 0 : WToI64(value);
}

std::vector<ParentReport> BuildReports(const std::vector<HostEvent>& events, const std::vector<ParentInfo>& parents,
                                       const SimExchange& exchange, const ExecTypeCodes& codes, int64_t end_ms) {
  struct Span {
    int64_t start = -1;
    int64_t end = -1;
    std::string outcome = "working";
  };
  std::map<std::wstring, Span> spans;   // children by level key
  std::map<std::wstring, Span> finals;  // final portions by parent level key
  std::map<std::wstring, int64_t> cancelled_at;
  std::map<std::wstring, std::wstring> slice_of;  // level key -> slice id
  for (const ExchangeOrder& order : exchange.Orders()) slice_of[order.level_key] = order.slice_id;
  for (const ParentInfo& parent : parents) slice_of[parent.level_key] = parent.slice_id;

  std::map<std::wstring, std::vector<std::pair<int64_t, int64_t>>> filled;  // slice -> (t, total filled)
  std::map<std::wstring, std::map<std::wstring, int64_t>> cum;              // slice -> order -> cum qty
  for (const HostEvent& e : events) {
    if (e.ev == "ExchangeNew") {
      spans[e.topic].start = e.t_ms;
    } else if (e.ev == "ExchangeFinal") {
      Span& span = finals[e.topic];
      span.start = e.t_ms;
      span.end = -1;
      span.outcome = "working";
    } else if (e.ev == "ExchangeFill" || e.ev == "ExchangeCancel" || e.ev == "ExchangeReplace" ||
               e.ev == "ExchangeReject") {
      const bool is_final = finals.count(e.topic) != 0 && spans.count(e.topic) == 0;
      Span& span = is_final ? finals[e.topic] : spans[e.topic];
      if (e.ev == "ExchangeFill") {
        if (e.p1 == codes.filled) {
          span.end = e.t_ms;
          span.outcome = "filled";
        }
        auto slice = slice_of.find(e.topic);
        if (slice != slice_of.end()) {
          cum[slice->second][e.topic] = TextNumber(e.text, L"CumQty");
          int64_t total = 0;
          for (const auto& [key, qty] : cum[slice->second]) total += qty;
          filled[slice->second].emplace_back(e.t_ms, total);
        }
      } else {
        span.end = e.t_ms;
        span.outcome = e.ev == "ExchangeCancel" ? "cancelled" : e.ev == "ExchangeReplace" ? "replaced" : "rejected";
      }
    } else if (e.ev == "ExchangeParentCancel") {
      cancelled_at[e.topic] = e.t_ms;
    }
  }

  std::vector<ParentReport> reports;
  std::map<std::wstring, size_t> by_slice;
  for (const ParentInfo& parent : parents) {
    if (by_slice.count(parent.slice_id) != 0) continue;
    by_slice[parent.slice_id] = reports.size();
    ParentReport report;
    report.info = parent;
    report.account.slice_id = parent.slice_id;
    report.account.parent_level_key = parent.level_key;
    reports.push_back(report);
  }
  for (const ParentAccount& account : exchange.Accounts()) {
    auto it = by_slice.find(account.slice_id);
    if (it == by_slice.end()) {
      ParentReport report;
      report.info.level_key = account.parent_level_key;
      report.info.slice_id = account.slice_id;
      report.info.qty = static_cast<int32_t>(account.qty_sent + account.final_portion_qty);
      report.info.submit_ms = account.start_ms;
      by_slice[account.slice_id] = reports.size();
      reports.push_back(report);
      it = by_slice.find(account.slice_id);
    }
    reports[it->second].account = account;
  }

  for (ParentReport& report : reports) {
    const ParentAccount& account = report.account;
    for (size_t i = 0; i < account.children.size(); ++i) {
      ChildSpan child;
      child.level_key = account.children[i];
      child.qty = i < account.child_qtys.size() ? account.child_qtys[i] : 0;
      const Span& span = spans[child.level_key];
      child.start_ms = span.start;
      child.end_ms = span.end;
      child.outcome = span.outcome;
      report.children.push_back(child);
    }
    const std::wstring parent_key = account.parent_level_key.empty() ? report.info.level_key : account.parent_level_key;
    auto final_span = finals.find(parent_key);
    if (account.final_portion && final_span != finals.end()) {
      ChildSpan child;
      child.level_key = parent_key;
      child.qty = account.final_portion_qty;
      child.start_ms = final_span->second.start;
      child.end_ms = final_span->second.end;
      child.outcome = final_span->second.outcome;
      child.final_portion = true;
      report.children.push_back(child);
    }
    const int64_t start = report.info.submit_ms >= 0 ? report.info.submit_ms : std::max<int64_t>(0, account.start_ms);
    report.remaining.emplace_back(start, report.info.qty);
    for (const auto& [t, total] : filled[report.info.slice_id]) report.remaining.emplace_back(t, report.info.qty - total);
    report.end_ms = account.end_ms;
    if (report.end_ms < 0 && !report.children.empty() && report.children.back().final_portion) {
      report.end_ms = report.children.back().end_ms;  // the final portion rejected or cancelled
    }
    if (report.end_ms < 0) {
      auto cancel = cancelled_at.find(parent_key);
      if (cancel != cancelled_at.end()) report.end_ms = cancel->second;
    }
    const int64_t last = report.end_ms >= 0 ? report.end_ms : end_ms;
    report.remaining.emplace_back(std::max(last, report.remaining.back().first), report.remaining.back().second);
  }
  return reports;
}

// ---- Timeline -------------------------------------------------------------------

std::string Shorten(const std::string& text, size_t width) {
  if (text.size() <= width) return text;
  size_t cut = width - 3;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;  // whole UTF-8 characters
  return text.substr(0, cut) + "...";
}

// The interesting pairs of a new-order command, in a fixed order.
std::string CommandGist(const std::wstring& command) {
  static const wchar_t* const kKeys[] = {L"SYMBOL", L"SIDE", L"QTY", L"PRICE", L"SlicedID", L"SlicedType", L"GROUPID"};
  std::wstring gist;
  for (const wchar_t* key : kKeys) {
    const std::wstring value = CommandValue(command, key);
    if (value.empty()) continue;
    gist += (gist.empty() ? L"" : L" ") + std::wstring(key) + L"=" + value;
  }
  return Utf8FromWide(gist);
}

std::string Pad(std::string text, size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

}  // namespace

ChildCounts CountChildren(const ParentReport& parent) {
  ChildCounts counts;
  counts.failed = parent.account.children_failed;
  for (const ChildSpan& child : parent.children) {
    if (child.final_portion) continue;
    if (child.outcome == "filled") ++counts.filled;
    if (child.outcome == "cancelled" || child.outcome == "replaced") ++counts.cancelled;
    if (child.outcome == "rejected") ++counts.failed;
  }
  return counts;
}

std::string FormatSimTime(int64_t ms) {
  if (ms < 0) return "-";
  char buffer[32];
  const int64_t h = ms / 3600000, m = ms / 60000 % 60, s = ms / 1000 % 60, f = ms % 1000;
  if (h > 0) {
    std::snprintf(buffer, sizeof buffer, "%lld:%02lld:%02lld.%03lld", static_cast<long long>(h),
                  static_cast<long long>(m), static_cast<long long>(s), static_cast<long long>(f));
  } else {
    std::snprintf(buffer, sizeof buffer, "%02lld:%02lld.%03lld", static_cast<long long>(m), static_cast<long long>(s),
                  static_cast<long long>(f));
  }
  return buffer;
}

std::string SliceKindName(int32_t sliced_type) {
  switch (sliced_type) {
    case 1: return "iceberg";
    case 2: return "timed";
    case 3: return "volume";
    case 4: return "slice-all";
    case 5: return "on-release";
    default: return std::to_string(sliced_type);
  }
}

std::string TimelineLine(const HostEvent& e, bool verbose) {
  const std::string time = FormatSimTime(e.t_ms);
  const std::string topic = Utf8FromWide(e.topic);
  const std::string text = Utf8FromWide(e.text);
  auto line = [&](const char* direction, const std::string& what, const std::string& detail) {
    return Pad(time, 10) + "  " + direction + "  " + Pad(what, 28) + "  " + Shorten(detail, 100);
  };
  if (e.ev == "SetStage") return line("->", "SetStage", "kind=" + std::to_string(e.p1) + " stage=" + std::to_string(e.p2));
  if (e.ev == "SetTopic") {
    std::string detail = text;
    if (e.data_json != "null" && !e.data_json.empty()) detail += (detail.empty() ? "" : " ") + e.data_json;
    if (e.p2 != 0) detail = "p2=" + std::to_string(e.p2) + (detail.empty() ? "" : " ") + detail;
    return line("->", topic, detail);
  }
  if (e.ev == "SendTopic") {
    if (e.topic == L"MARZIPAN.REQUEST" && !verbose) return {};
    std::string detail = e.topic == L"TRADE.NEWORDER" || e.topic == L"TRADE.FAILORDER" ? CommandGist(e.text) : text;
    if (e.data_json != "null" && !e.data_json.empty()) detail += (detail.empty() ? "" : " ") + e.data_json;
    return line("<-", topic, detail);
  }
  if (e.ev == "WriteLog") {
    // Without --verbose only the lines that explain a pause or a refusal.
    const bool notable = text.find("CheckOpenCloseTime:0,") != std::string::npos ||
                         text.find("not exist") != std::string::npos || text.find("error:") != std::string::npos ||
                         text.find(" Fail:") != std::string::npos;
    const std::string prefix = "<CTradeSliceManager>";
    const std::string shown = text.rfind(prefix, 0) == 0 ? text.substr(prefix.size()) : text;
    return verbose || notable ? line("..", "log", shown) : std::string();
  }
  if (e.ev == "RegisterTopic" || e.ev == "GetTopicData") return verbose ? line("<-", e.ev, topic) : std::string();
  std::string what = e.ev;
  if (what.rfind("Exchange", 0) == 0) what = "exchange " + what.substr(8);
  if (what.rfind("Host", 0) == 0) what = "host " + what.substr(4);
  return line("  ", what + " " + topic, text);
}

std::vector<std::string> SummaryCells(const ParentReport& p) {
  const ParentAccount& a = p.account;
  const ChildCounts counts = CountChildren(p);
  return {Utf8FromWide(p.info.level_key),
          Utf8FromWide(p.info.slice_id),
          p.info.sliced_type != 0 ? SliceKindName(p.info.sliced_type) : "-",
          std::to_string(p.info.qty),
          std::to_string(a.children_sent),
          std::to_string(counts.filled),
          std::to_string(counts.cancelled),
          std::to_string(counts.failed),
          a.transferred ? "transfer" : a.final_portion ? std::to_string(a.final_portion_qty) : "-",
          std::to_string(a.qty_filled),
          FormatSimTime(a.start_ms >= 0 ? a.start_ms : p.info.submit_ms),
          FormatSimTime(p.end_ms)};
}

std::string SummaryText(const RunResult& result) {
  std::string out = "Summary of \"" + result.name + "\" (" + FormatSimTime(result.duration_ms) + " simulated, " +
                    std::to_string(static_cast<int64_t>(result.wall_seconds * 1000)) + " ms real)\n";
  const std::vector<std::pair<std::string, size_t>> columns = {
      {"Parent", 8}, {"Slice", 8}, {"Kind", 11}, {"Qty", 8},      {"Sent", 5},       {"Filled", 7}, {"Cancelled", 10},
      {"Failed", 7}, {"Final", 9}, {"Done qty", 9}, {"Start", 10}, {"End", 10}};
  for (const auto& [name, width] : columns) out += Pad(name, width) + " ";
  out += "\n";
  for (const ParentReport& p : result.parents) {
    const std::vector<std::string> cells = SummaryCells(p);
    for (size_t i = 0; i < cells.size(); ++i) out += Pad(cells[i], columns[i].second) + " ";
    out += "\n";
  }
  return out;
}

RunResult RunScenario(const Scenario& scenario, const RunOptions& options) {
  const auto wall_start = Wall::now();
  RunResult result;
  result.name = scenario.name;
  result.description = scenario.description;
  result.duration_ms = scenario.duration_ms;
  {
    Play play(scenario, options.real_time, true, options.path);
    size_t flushed = 0;
    auto flush = [&] {
      std::vector<HostEvent> fresh = play.host().EventsFrom(flushed);
      flushed += fresh.size();
      if (options.on_event) {
        for (const HostEvent& e : fresh) options.on_event(e);
      }
    };
    play.set_on_flush(flush);
    play.Schedule(true);
    if (options.real_time) {
      play.WaitForTheEnd();
    } else {
      for (int64_t t = 0; t < scenario.duration_ms;) {
        t = std::min(scenario.duration_ms, t + 1000);
        play.AdvanceTo(t);
        flush();
      }
    }
    flush();
    result.events = play.host().Events();
    result.parents = BuildReports(result.events, play.parents(), play.exchange(), scenario.exec_types,
                                  scenario.duration_ms);
  }
  result.wall_seconds = std::chrono::duration<double>(Wall::now() - wall_start).count();
  return result;
}

BenchResult RunBench(const BenchOptions& options) {
  Scenario scenario;
  scenario.name = "bench";
  scenario.source = "bench";
  scenario.start_utc_ms = *ParseUtcTime("2026-11-23T01:30:00Z");
  scenario.time_offset_s = 28800;
  scenario.duration_ms = 7LL * 24 * 3600 * 1000;
  scenario.exchange.delivery_delay_ms = 0;
  scenario.exchange.ack_delay_ms = 0;
  scenario.exchange.fill_delay_ms = 0;
  Security security;
  security.symbol = L"QX.S.TW.2330";
  security.info = L"2330|100|x|100";
  security.source = "none";
  scenario.securities.push_back(security);
  const int32_t disclose = 100;
  for (int i = 0; i < options.parents; ++i) {
    Step step;
    step.kind = Step::Kind::kSubmit;
    step.at_ms = 1000;
    const int32_t qty = disclose * std::max(1, options.children_per_parent);
    step.fields = {{L"LevelKey", Variant::Text(L"P" + std::to_wstring(i + 1))},
                   {L"SliceID", Variant::Text(L"S" + std::to_wstring(i + 1))},
                   {L"Symbol", Variant::Text(security.symbol)},
                   {L"Side", Variant::Text(L"B")},
                   {L"SecurityType", Variant::Text(L"S")},
                   {L"Account", Variant::Text(L"A1")},
                   {L"Price", Variant::I8(5000)},
                   {L"OrderQty", Variant::I4(qty)},
                   {L"LeavesQty", Variant::I4(qty)},
                   {L"SendQty", Variant::I4(qty)},
                   {L"DiscloseQty", Variant::I4(disclose)},
                   {L"Variance", Variant::I4(0)},
                   {L"SlicedType", Variant::I4(options.sliced_type)},
                   {L"TimeInForce", Variant::I4(6)}};
    scenario.steps.push_back(step);
  }
  BenchResult result;
  result.parents = options.parents;
  Play play(scenario, false, false, options.path);
  // Nothing below reads the recorded calls.
  play.host().SetKeepEvents(false);
  play.Schedule(false);
  play.AdvanceTo(999);
  const auto wall_start = Wall::now();
  int64_t t = 999;
  for (;;) {
    t += 100;
    play.AdvanceTo(t);
    const SimExchange& exchange = play.exchange();
    if (exchange.AccountCount() == options.parents && exchange.EndedAccountCount() == options.parents) break;
    if (t > 3600 * 1000) break;
  }
  result.wall_seconds = std::chrono::duration<double>(Wall::now() - wall_start).count();
  for (const ParentAccount& account : play.exchange().Accounts()) result.children += account.children_sent;
  result.simulated_ms = t - 999;
  result.children_per_second = result.wall_seconds > 0 ? static_cast<double>(result.children) / result.wall_seconds : 0;
  result.host_us_per_parent =
      options.parents > 0 ? static_cast<double>(play.proxy().InsideNs()) / 1000.0 / options.parents : 0;
  return result;
}

}  // namespace tsm::sim

namespace tsm::sim {

const std::string& DemoScenarioJson() {
  static const std::string kDemo = R"json({
  "name": "demo",
  "description": "slicehost demo: nine parent orders of every slicing kind against a simulated exchange, on a virtual clock starting 08:59:30 exchange time (sessions 09:00~11:30;13:00~15:00).",
  "start": "2026-11-23T00:59:30Z",
  "time_offset": 28800,
  "duration_ms": 75000,
  "securities": [
    {"symbol": "QX.S.TW.2330", "info": "2330|100|x|100", "sessions": "09:00~11:30;13:00~15:00"},
    {"symbol": "QX.S.TW.2317", "info": "2317|100|x|100", "sessions": "09:00~11:30;13:00~15:00",
     "behaviour": {"ack_ms": 20, "fill_ms": 1100, "fill_steps": 4, "cancel_ms": 10, "replace_ms": 10}},
    {"symbol": "QX.S.TW.2454", "info": "2454|100|x|100", "sessions": "09:00~11:30;13:00~15:00", "volume": 120000,
     "behaviour": {"ack_ms": 20, "fill_ms": 800, "fill_steps": 10, "cancel_ms": 30}}
  ],
  "exchange": {"ack_ms": 20, "fill_ms": 200, "fill_steps": 2},
  "steps": [
    {"at": 1000, "do": "Submit", "comment": "before the open: parked until 09:00",
     "fields": {"LevelKey": "P1", "SliceID": "S1", "Symbol": "QX.S.TW.2330", "Side": "B", "SecurityType": "S",
                "Account": "A1", "Price": 5000, "PriceString": "50.00", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 1, "Interval": 0, "LeftoverAction": 0}},
    {"at": 32000, "do": "Submit", "comment": "iceberg, variance 20 %, rounded to the lot of 100",
     "fields": {"LevelKey": "P2", "SliceID": "S2", "Symbol": "QX.S.TW.2330", "Side": "B", "SecurityType": "S",
                "Account": "A1", "Price": 5010, "PriceString": "50.10", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 8000, "LeavesQty": 8000, "SendQty": 8000, "DiscloseQty": 1000, "Variance": 20,
                "SlicedType": 1, "Interval": 0, "LeftoverAction": 0}},
    {"at": 32000, "do": "Submit", "comment": "timed, leftover action 0: earlier children keep working",
     "fields": {"LevelKey": "P3", "SliceID": "S3", "Symbol": "QX.S.TW.2317", "Side": "S", "SecurityType": "S",
                "Account": "A1", "Price": 10450, "PriceString": "104.50", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 2, "Interval": 3000, "LeftoverAction": 0}},
    {"at": 32000, "do": "Submit", "comment": "timed, leftover action 1: cancel the previous child, roll its rest over",
     "fields": {"LevelKey": "P4", "SliceID": "S4", "Symbol": "QX.S.TW.2317", "Side": "S", "SecurityType": "S",
                "Account": "A1", "Price": 10450, "PriceString": "104.50", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 2, "Interval": 3000, "LeftoverAction": 1}},
    {"at": 32000, "do": "Submit", "comment": "timed, leftover action 2: replace the previous child",
     "fields": {"LevelKey": "P5", "SliceID": "S5", "Symbol": "QX.S.TW.2317", "Side": "S", "SecurityType": "S",
                "Account": "A1", "Price": 10450, "PriceString": "104.50", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 2, "Interval": 3000, "LeftoverAction": 2}},
    {"at": 33000, "do": "Submit", "comment": "by volume: a child is cancelled after 3 more shares trade",
     "fields": {"LevelKey": "P6", "SliceID": "S6", "Symbol": "QX.S.TW.2454", "Side": "B", "SecurityType": "S",
                "Account": "A1", "Price": 88000, "PriceString": "880.00", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 3, "Interval": 1, "LeftoverAction": 1}},
    {"at": 34000, "do": "Submit", "comment": "slice-all: every child at once",
     "fields": {"LevelKey": "P7", "SliceID": "S7", "Symbol": "QX.S.TW.2330", "Side": "S", "SecurityType": "S",
                "Account": "A2", "Price": 4990, "PriceString": "49.90", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 4500, "LeavesQty": 4500, "SendQty": 4500, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 4, "Interval": 0, "LeftoverAction": 0}},
    {"at": 34000, "do": "Submit", "comment": "slice-all on release: waits for TRADE.SLICE.ORDER",
     "fields": {"LevelKey": "P8", "SliceID": "S8", "Symbol": "QX.S.TW.2330", "Side": "B", "SecurityType": "S",
                "Account": "A2", "Price": 4980, "PriceString": "49.80", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 5, "Interval": 0, "LeftoverAction": 0}},
    {"at": 35000, "do": "Submit", "comment": "timed, to be cancelled with its children",
     "fields": {"LevelKey": "P9", "SliceID": "S9", "Symbol": "QX.S.TW.2317", "Side": "B", "SecurityType": "S",
                "Account": "A3", "Price": 10400, "PriceString": "104.00", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 5000, "LeavesQty": 5000, "SendQty": 5000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 2, "Interval": 2500, "LeftoverAction": 0}},
    {"at": 36000, "do": "Volume", "symbol": "QX.S.TW.2454", "volume": 120002},
    {"at": 37000, "do": "Volume", "symbol": "QX.S.TW.2454", "volume": 120004},
    {"at": 39000, "do": "Release", "order": "P8"},
    {"at": 40000, "do": "Cancel", "order": "P9", "all": true},
    {"at": 41000, "do": "Volume", "symbol": "QX.S.TW.2454", "volume": 120011},
    {"at": 45000, "do": "Volume", "symbol": "QX.S.TW.2454", "volume": 120020}
  ]
})json";
  return kDemo;
}

}  // namespace tsm::sim
