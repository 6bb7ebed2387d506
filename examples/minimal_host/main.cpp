// The smallest host of the slice manager. It creates the component through its factory export, advises a
// sink that prints every request and log line, serves the three records the manager fetches when it starts,
// and works one iceberg parent to its end: each child the manager asks for is placed and filled at once,
// until the parent comes back as its final portion.
// Threads: the manager calls the sink on any of its threads (host, timers, record events, worker), so the
// sink only prints and queues; the main thread answers the requests.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <tradeslice/host_api.h>
#include <tradeslice/version.h>

using namespace tsm;
using Fields = std::vector<std::pair<const wchar_t*, Variant>>;

namespace {

// The value of KEY in a "KEY=value,KEY=value" command.
std::wstring CommandValue(const std::wstring& command, const std::wstring& key) {
  const std::wstring text = L"," + command + L",";
  const size_t at = text.find(L"," + key + L"=");
  if (at == std::wstring::npos) return {};
  const size_t begin = at + key.size() + 2;
  return text.substr(begin, text.find(L',', begin) - begin);
}

IBaseData* NewRecord(const wchar_t* name, Fields fields) {
  std::vector<TsmField> list;
  for (auto& [field, value] : fields) list.push_back({field, std::move(value)});
  return TsmCreateBaseDataWithFields(name, list.data(), static_cast<int32_t>(list.size()));
}

struct Request {
  std::wstring topic, text;
  IBaseData* record;  // the request's record, if any (a reference of ours)
};

class Host final : public INordaManagerEvents {
 public:
  ~Host() {
    for (uint32_t cookie : cookies_) TsmGetGlobalInterfaceTable()->RevokeInterfaceFromGlobal(cookie);
    for (auto& [topic, record] : records) record->Release();
  }
  uint32_t AddRef() override { return 2; }  // on main's stack, outlives the manager
  uint32_t Release() override { return 1; }
  HResult RegisterTopic(const std::wstring&, Variant*) override { return kS_OK; }
  HResult GetTopicData(const std::wstring& topic, Variant* result) override {
    auto it = records.find(topic);
    *result = it != records.end() ? Publish(it->second) : Variant();
    return kS_OK;
  }
  HResult SendTopic(const std::wstring& topic, int32_t, int32_t, const std::wstring& text, Variant* data,
                    Variant*) override {
    Print("request: ", topic + L" " + text);
    IBaseData* record = nullptr;
    if (data != nullptr && data->type() == VarType::I4) {
      TsmGetGlobalInterfaceTable()->GetInterfaceFromGlobal(static_cast<uint32_t>(data->i4()), &record);
    }
    std::lock_guard<std::mutex> guard(lock_);
    requests_.push_back({topic, text, record});
    arrived_.notify_one();
    return kS_OK;
  }
  HResult WriteLog(const std::wstring& line) override { Print("log: ", line); return kS_OK; }

  // A record crosses to the manager as a cookie of the interface table.
  Variant Publish(IBaseData* record) {
    uint32_t cookie = 0;
    TsmGetGlobalInterfaceTable()->RegisterInterfaceInGlobal(record, &cookie);
    std::lock_guard<std::mutex> guard(lock_);
    cookies_.push_back(cookie);
    return Variant::I4(static_cast<int32_t>(cookie));
  }
  bool Next(Request* request) {  // false after 10 s without one
    std::unique_lock<std::mutex> guard(lock_);
    if (!arrived_.wait_for(guard, std::chrono::seconds(10), [this] { return !requests_.empty(); })) return false;
    *request = requests_.front();
    requests_.pop_front();
    return true;
  }
  void Print(const char* what, const std::wstring& text) {
    std::lock_guard<std::mutex> guard(print_lock_);
    std::printf("%s%ls\n", what, text.c_str());
    std::fflush(stdout);
  }

  std::map<std::wstring, IBaseData*> records;  // by topic; filled before the manager starts

 private:
  std::mutex lock_, print_lock_;
  std::condition_variable arrived_;
  std::deque<Request> requests_;
  std::vector<uint32_t> cookies_;
};

}  // namespace

int main() {
  Host host;
  host.Print("minimal_host, TradeSliceManager " TSM_VERSION_TEXT, L"");
  host.records[L"NordaSystemTime"] = NewRecord(L"NordaSystemTime", {{L"SystemDate", Variant::I4(20261123)}});
  host.records[L"Security.Info"] = NewRecord(L"Security.Info", {{L"VAULT", Variant::I4(0)}});
  host.records[L"PERMISSIONS.General"] = NewRecord(L"PERMISSIONS.General", {{L"LoginType", Variant::I4(1)}});

  INordaManager* manager = nullptr;
  if (TsmCreateTradeSliceManager(nullptr, &manager) != kS_OK) return 1;  // no clock given: the wall clock
  uint32_t sink = 0;
  manager->Advise(&host, &sink);
  manager->SetStage(1, 1);  // registers its topics
  manager->SetStage(1, 2);  // starts; fetches the three records

  // One iceberg parent (SlicedType 1): 5,500 shown 1,000 at a time.
  IBaseData* parent = NewRecord(L"order", {
      {L"LevelKey", Variant::Text(L"P1")}, {L"SliceID", Variant::Text(L"S1")}, {L"Side", Variant::Text(L"B")},
      {L"Symbol", Variant::Text(L"QX.S.TW.2330")}, {L"Account", Variant::Text(L"A1")}, {L"Price", Variant::I8(5000)},
      {L"OrderQty", Variant::I4(5500)}, {L"LeavesQty", Variant::I4(5500)}, {L"SendQty", Variant::I4(5500)},
      {L"DiscloseQty", Variant::I4(1000)}, {L"Variance", Variant::I4(0)}, {L"SlicedType", Variant::I4(1)}});
  Variant data = host.Publish(parent);
  parent->Release();
  int32_t index = 0;  // the order's place in the host's order set
  manager->SetTopic(L"TRADE.SLICE.MANAGER", 0, 0, std::to_wstring(index), &data);

  bool finished = false;
  for (Request request; !finished && host.Next(&request);) {
    if (request.topic == L"TRADE.NEWORDER") {
      // The host places the child and shows it to the manager; the market fills it.
      const int32_t qty = std::stoi(CommandValue(request.text, L"QTY"));
      IBaseData* child = NewRecord(L"order", {
          {L"LevelKey", Variant::Text(L"C" + std::to_wstring(++index))}, {L"OriginalQty", Variant::I4(qty)},
          {L"SliceID", Variant::Text(CommandValue(request.text, L"SlicedID"))}, {L"OrderQty", Variant::I4(qty)},
          {L"LeavesQty", Variant::I4(qty)}});
      Variant cookie = host.Publish(child);
      manager->SetTopic(L"TRADE.HOT.MONTH", 0, 0, std::to_wstring(index), &cookie);
      // The fill is one update (ExecType 3: filled); the manager hears it on the record's event thread.
      const int32_t update = child->BeginUpdate();
      child->SetData(update, kKindFieldByName, Variant::Text(L"ExecType"), Variant::I4(3));
      child->SetData(update, kKindFieldByName, Variant::Text(L"CumQty"), Variant::I4(qty));
      child->SetData(update, kKindFieldByName, Variant::Text(L"LeavesQty"), Variant::I4(0));
      child->EndUpdate(update);
      child->Release();
    } else if (request.topic == L"TRADE.HOT.MONTH" && request.record != nullptr) {
      // The parent comes back holding what remains, for the host to place as it is.
      Variant qty = request.record->GetData(kKindFieldByName, Variant::Text(L"OrderQty"));
      qty.ChangeTypeToText();
      host.Print("final portion: ", qty.text());
      finished = true;
    }
    if (request.record != nullptr) request.record->Release();
  }
  manager->SetStage(1, 4);  // stops
  manager->Unadvise(sink);
  manager->Release();
  if (!finished) host.Print("no final portion within 10 s", L"");
  return finished ? 0 : 1;
}
