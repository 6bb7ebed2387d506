// `SimHost`: the platform host as the slice manager sees it. It serves topic
// records made in the base-data component ("NordaSystemTime",
// "Security.Info", "PERMISSIONS.General", "TRADE.ORDERSET",
// "MARZIPAN.REQUEST", quote records), answers the security-information and
// vault requests, and records every call across the host link, in order,
// with the clock's time, for tests and transcripts. What the host does with
// the other requests (orders, cancels) is plugged in through `on_send`.
//
// Threading: the manager raises events on any of its threads; every method
// here may be called from any thread. Recorded events are kept under one
// mutex; `on_send` runs on the raising thread, outside that mutex.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tradeslice/base_data_api.h"
#include "tradeslice/clock.h"
#include "tradeslice/host_api.h"

namespace tsm::sim {

// One call across the host link (or a simulator event of its own).
struct HostEvent {
  int64_t t_ms = 0;       // clock time since the host was made
  std::string ev;         // "RegisterTopic", "GetTopicData", "SendTopic", "WriteLog", "SetStage", "SetTopic", ...
  std::wstring topic;
  int32_t p1 = 0;
  int32_t p2 = 0;
  std::wstring text;      // SendTopic/SetTopic text, WriteLog line
  std::string data_json;  // the data argument as the transcript writes it
  Variant data;
};

using FieldList = std::vector<std::pair<std::wstring, Variant>>;

class SimHost final : public INordaManagerEvents {
 public:
  explicit SimHost(IClock& clock);
  ~SimHost();
  SimHost(const SimHost&) = delete;
  SimHost& operator=(const SimHost&) = delete;

  // The host lives as long as its owner; reference counts are kept only so
  // that misuse shows.
  uint32_t AddRef() override;
  uint32_t Release() override;
  HResult RegisterTopic(const std::wstring& topic, Variant* result) override;
  HResult GetTopicData(const std::wstring& topic, Variant* result) override;
  HResult SendTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                    Variant* data, Variant* result) override;
  HResult WriteLog(const std::wstring& line) override;

  // Records. NewRecord hands the caller a reference; Publish registers an
  // object in the interface table once (revoked when the host goes) and
  // returns its cookie.
  static IBaseData* NewRecord(const std::wstring& name, const FieldList& fields = {});
  static void Write(IBaseData* record, const FieldList& fields);
  static Variant Read(IBaseData* record, const std::wstring& field);
  // A field as text (empty when absent).
  static std::wstring ReadText(IBaseData* record, const std::wstring& field);
  // A number field (a text one by its digits), else `fallback`.
  static int32_t ReadI4(IBaseData* record, const std::wstring& field, int32_t fallback);
  // The conversion ReadI4 makes, for a value in hand.
  static int32_t ToI4(const Variant& value, int32_t fallback);
  // A number of up to 64 bits (VT_I4, VT_I8 or decimal text) as it stands.
  static int64_t ReadI8(IBaseData* record, const std::wstring& field, int64_t fallback);
  static int64_t ToI8(const Variant& value, int64_t fallback);
  // The record behind a VT_I4 cookie, with a new reference; null otherwise.
  static IBaseData* FromCookie(const Variant* data);
  uint32_t Publish(IBaseData* record);

  // The host's record of a topic, made on first use (the host keeps it).
  IBaseData* Topic(std::wstring_view topic);
  bool HasTopic(const std::wstring& topic) const;
  // Serves `record` (a reference is taken) as the host's record of `topic`
  // from now on, in place of one `Topic` would make; an earlier record of the
  // topic is let go as by RemoveTopic.
  void SetTopicRecord(const std::wstring& topic, IBaseData* record);
  void RemoveTopic(const std::wstring& topic);

  // Answers of "MARZIPAN.REQUEST": the "|"-separated security text written
  // under the symbol for "STKINFO", and the JSON that fills the caller's
  // document for the vault request (1, 64) with the text answer returned.
  void SetSecurityText(const std::wstring& symbol, const std::wstring& text);
  void SetVaultAnswer(const std::string& json_utf8, const std::wstring& answer);

  // Calls of the manager, recorded too.
  void RecordCall(HostEvent event);
  // Records a SetTopic or SendTopic call (`ev`) with its data described;
  // builds nothing when no events are kept.
  void RecordTopicCall(const char* ev, const std::wstring& topic, int32_t p1, int32_t p2, const std::wstring& text,
                       const Variant* data);

  // When off, no event is kept (Events() and the queries below stay empty)
  // and callers may skip building them; the answers and `on_send` work as
  // before. On by default; a benchmark that reads no events turns it off.
  void SetKeepEvents(bool keep);
  bool KeepsEvents() const { return keep_events_.load(std::memory_order_relaxed); }

  std::vector<HostEvent> Events() const;
  // The events from index `first` on (empty when there are no more).
  std::vector<HostEvent> EventsFrom(size_t first) const;
  std::vector<HostEvent> Sent(const std::wstring& topic) const;
  std::vector<std::wstring> Logs() const;
  void ClearEvents();
  int64_t ElapsedMs() const;

  // How a data argument is written: null, {"record":"NAME"}, {"i4":N},
  // {"i8":N}, {"text":"..."}, or {"address":true} for the vault document.
  std::string DescribeData(const std::wstring& topic, int32_t p1, int32_t p2, const Variant* data);

  // Called for every SendTopic after it is recorded and the built-in
  // answers are made, on the raising thread.
  std::function<void(const std::wstring& topic, int32_t p1, int32_t p2, const std::wstring& text, Variant* data,
                     Variant* result)>
      on_send;

 private:
  static void NoteCaller();
  void Record(HostEvent event);

  IClock& clock_;
  const int64_t start_ms_;
  std::atomic<bool> keep_events_{true};
  std::atomic<uint32_t> refs_{0};
  mutable std::mutex lock_;  // guards everything below
  std::vector<HostEvent> events_;
  std::map<std::wstring, IBaseData*, std::less<>> topics_;  // owned references
  std::unordered_map<IBaseData*, uint32_t> published_;  // object -> cookie (the table holds the reference)
  std::map<std::wstring, std::wstring> security_texts_;
  std::string vault_json_;
  std::wstring vault_answer_ = L"TRUE";
};

// JSON text of a string (quotes included), UTF-8.
std::string JsonString(const std::wstring& text);

}  // namespace tsm::sim
