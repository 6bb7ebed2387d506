#include "slicehost/player.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "data/text.h"
#include "platform/clock.h"
#include "platform/virtual_clock.h"
#include "slicehost/host_loop.h"
#include "slicehost/parent_summary.h"
#include "slicehost/watched_quote.h"
#include "tradeslice/host_api.h"

namespace tsm::sim {

namespace {

using Wall = std::chrono::steady_clock;

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

int64_t FieldI8(const ScenarioFields& fields, const std::wstring& name, int64_t fallback) {
  for (const auto& [field, value] : fields) {
    if (field == name) return SimHost::ToI8(value, fallback);
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

}  // namespace

class Player::Impl {
 public:
  // `settle`: wait for the manager's reactions after every host action (a
  // reproducible run); off for the benchmark.
  Impl(const Scenario& scenario, bool real_time, bool settle, ManagerPath path)
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

  ~Impl() {
    loop_.Stop();
    if (manager_ != nullptr) {
      manager_->Unadvise(sink_cookie_);
      manager_->Release();
    }
    TsmWaitEventsDelivered();
    for (auto& [name, record] : records_) record->Release();
    for (auto& [symbol, quote] : quotes_) quote->Release();
  }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

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
        parent.qty = FieldI8(step.fields, L"OrderQty", FieldI8(step.fields, L"LeavesQty", 0));
        parent.submit_ms = host_.ElapsedMs();
        parents_.push_back(parent);
        exchange_.SubmitParentNow(step.fields, step.in_order_set);
        break;
      }
      case Step::Kind::kRelease:
        if (exchange_.OrderRecord(step.order) == nullptr) return Ignore(step, step.order, L"Reason=unknown order");
        exchange_.ReleaseParentNow(step.order);
        break;
      case Step::Kind::kCancel:
        if (exchange_.OrderRecord(step.order) == nullptr) return Ignore(step, step.order, L"Reason=unknown order");
        exchange_.CancelParentNow(step.order, step.all);
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
        exchange_.FillChildNow(step.order, step.qty);
        break;
      case Step::Kind::kVolume:
        Note("HostVolume", step.symbol, L"TradeVolume=" + std::to_wstring(step.volume));
        exchange_.SetTradedVolumeNow(step.symbol, step.volume);
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

Player::Player(const Scenario& scenario, bool real_time, bool settle, ManagerPath path)
    : impl_(std::make_unique<Impl>(scenario, real_time, settle, path)) {}
Player::~Player() = default;
void Player::Schedule(bool ticks) { impl_->Schedule(ticks); }
void Player::AdvanceTo(int64_t t_ms) { impl_->AdvanceTo(t_ms); }
void Player::WaitForTheEnd() { impl_->WaitForTheEnd(); }
SimHost& Player::host() { return impl_->host(); }
SimExchange& Player::exchange() { return impl_->exchange(); }
RecordingManager& Player::proxy() { return impl_->proxy(); }
const std::vector<ParentInfo>& Player::parents() const { return impl_->parents(); }
void Player::set_on_flush(std::function<void()> flush) { impl_->set_on_flush(std::move(flush)); }

RunResult RunScenario(const Scenario& scenario, const RunOptions& options) {
  const auto wall_start = Wall::now();
  RunResult result;
  result.name = scenario.name;
  result.description = scenario.description;
  result.duration_ms = scenario.duration_ms;
  result.clock_origin_ms = scenario.start_utc_ms + int64_t{scenario.time_offset_s} * 1000;
  result.time_offset_s = scenario.time_offset_s;
  {
    Player play(scenario, options.real_time, true, options.path);
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

}  // namespace tsm::sim
