#include "testing/manager_fixture.h"

#include <algorithm>

namespace tsm {

ManagerTest::ManagerTest(int64_t start_utc_ms)
    : clock_(start_utc_ms), host_(clock_), manager_(new CTradeSliceManager(&clock_)), peer_(manager_) {
  manager_->AddRef();
  manager_->Advise(&host_, &sink_cookie_);
  manager_->SetRandomSourceForTesting(&DefaultRand);
  clock_.AddQuiescer([] { TsmWaitEventsDelivered(); });
}

ManagerTest::~ManagerTest() {
  manager_->Unadvise(sink_cookie_);
  manager_->Release();
  TsmWaitEventsDelivered();
  bound_.clear();
  for (IBaseData* record : records_) record->Release();
}

void ManagerTest::Start() {
  manager_->SetStage(1, 1);
  manager_->SetStage(1, 2);
}

IBaseData* ManagerTest::Record(const std::wstring& name, const sim::FieldList& fields) {
  IBaseData* record = sim::SimHost::NewRecord(name, fields);
  records_.push_back(record);
  return record;
}

CBaseData* ManagerTest::Bound(const sim::FieldList& fields, const std::wstring& name) {
  bound_.push_back(std::unique_ptr<CBaseData>(CBaseData::FromCookie(Publish(name, fields), nullptr, &clock_)));
  return bound_.back().get();
}

uint32_t ManagerTest::Publish(const std::wstring& name, const sim::FieldList& fields) {
  return host_.Publish(Record(name, fields));
}

void ManagerTest::HostAddsEntryOnVaultRequest(const std::wstring& product, const std::wstring& field,
                                              const std::wstring& value) {
  IBaseData* entry = Record(L"entry", {{field, Variant::Text(value)}});
  IBaseData* security_info = host_.Topic(L"Security.Info");
  host_.on_send = [entry, security_info, product](const std::wstring& topic, int32_t, int32_t, const std::wstring&,
                                                  Variant*, Variant*) {
    if (topic == L"MARZIPAN.REQUEST") TsmSetChild(security_info, product.c_str(), entry);
  };
}

void ManagerTest::Topic(const std::wstring& topic, int32_t p1, int32_t p2, const std::wstring& text, Variant data) {
  manager_->SetTopic(topic, p1, p2, text, &data);
  TsmWaitEventsDelivered();
}

std::vector<std::wstring> ManagerTest::Logs() const { return host_.Logs(); }

bool ManagerTest::Logged(const std::wstring& line) const {
  const auto logs = host_.Logs();
  return std::find(logs.begin(), logs.end(), L"<CTradeSliceManager>" + line) != logs.end();
}

std::vector<std::wstring> ManagerTest::NewOrders() const {
  std::vector<std::wstring> texts;
  for (const auto& e : host_.Sent(L"TRADE.NEWORDER")) texts.push_back(e.text);
  return texts;
}

namespace {
std::vector<std::wstring> DescribeRequests(const std::vector<sim::HostEvent>& events, bool skip_security_queries) {
  std::vector<std::wstring> out;
  for (const auto& e : events) {
    if (e.ev != "SendTopic" || (skip_security_queries && e.topic == L"MARZIPAN.REQUEST")) continue;
    out.push_back(e.topic + L" " + std::to_wstring(e.p1) + L"," + std::to_wstring(e.p2) + L" " + e.text);
  }
  return out;
}
}  // namespace

std::vector<std::wstring> ManagerTest::Requests() const { return DescribeRequests(host_.Events(), false); }

std::vector<std::wstring> ManagerTest::RequestsBesideSecurityQueries() const {
  return DescribeRequests(host_.Events(), true);
}

}  // namespace tsm
