// The scenario model of `slicehost`: what the simulated platform holds before
// the manager starts (start time, time offset, securities with their lots and
// sessions, topic records, named records, the exchange's behaviour) and the
// timed steps it plays (stages, any topic, record updates, fills, quote
// volume, system time, order set renumbering).
//
// `ParseScenario` reads the JSON text of a scenario file. A file that is not
// valid JSON, or holds a member of the wrong kind, yields a `ScenarioError`
// naming the file, the place (line and column for syntax, a JSON pointer for
// content) and what was expected; it never throws and never crashes.
//
// Threading: plain values and pure functions; no shared state.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "slicehost/exchange.h"
#include "tradeslice/variant.h"

namespace tsm::sim {

// One field of a record: name and value. Numbers that fit 32 bits are VT_I4,
// others VT_I8, unless the file forces a type ({"i4":N}, {"i8":N}, {"text":"..."}).
using ScenarioFields = std::vector<std::pair<std::wstring, Variant>>;

// The data argument of a SetTopic step.
struct StepData {
  enum class Kind { kNone, kRecord, kValue };
  Kind kind = Kind::kNone;
  std::wstring record;  // kRecord: an order's level key, a named record, or a topic record
  Variant value;        // kValue: VT_I4, VT_I8 or VT_BSTR
};

struct Security {
  std::wstring symbol;          // at least four dot-separated parts, e.g. "QX.S.TW.2330"
  std::wstring info;            // "|"-separated security text answered for "STKINFO"
  std::wstring sessions;        // "09:00~11:30;13:00~15:00"; empty: no session table
  // Where the manager finds the sessions: "record" (a child of "Security.Info"
  // under the product key), "vault" (the document the host fills for the
  // vault request), or "none".
  std::string source = "record";
  int64_t volume = 0;           // initial traded volume of the quote record (field id 6)
  std::optional<SymbolBehaviour> behaviour;  // the exchange's treatment of this symbol
};

struct Step {
  // What the step does.
  enum class Kind {
    kSetStage,    // kind, stage
    kSetTopic,    // topic, p1, p2, text, data
    kSubmit,      // a parent order entered by the host: fields, in_order_set
    kRelease,     // "TRADE.SLICE.ORDER" for order
    kCancel,      // "TRADE.SLICE.MANAGER.CANCEL" for order, all
    kUpdate,      // one batch write into record (order, named record or topic record)
    kFill,        // a fill of qty on order
    kVolume,      // traded volume of symbol
    kSystemTime,  // the system time record; time_diff also moves the ticks
    kRenumber,    // "ORDERSET.LOCK", reorder the order set, "ORDERSET.UNLOCK"
  };
  Kind kind = Kind::kSetTopic;
  int64_t at_ms = 0;      // simulated milliseconds since the scenario start
  std::string where;      // JSON pointer of the step in its file, for messages
  int32_t stage_kind = 1;
  int32_t stage = 0;
  std::wstring topic;
  int32_t p1 = 0;
  int32_t p2 = 0;
  std::wstring text;
  StepData data;
  ScenarioFields fields;  // kSubmit, kUpdate
  bool in_order_set = true;
  std::wstring order;     // kRelease, kCancel, kFill: a level key
  std::wstring record;    // kUpdate
  bool all = false;       // kCancel: cancel the parent with all its children
  int32_t qty = 0;        // kFill
  std::wstring symbol;    // kVolume
  int64_t volume = 0;     // kVolume
  std::optional<int32_t> date;       // kSystemTime: YYYYMMDD
  std::optional<int32_t> time;       // kSystemTime: HHMMSS
  std::optional<int32_t> time_diff;  // kSystemTime: seconds
  std::vector<std::wstring> new_order;  // kRenumber: level keys first in the new order
};

struct Scenario {
  std::string source;            // the file name (or "demo") for messages
  std::string name;
  std::string description;
  int64_t start_utc_ms = 0;      // the virtual clock's start
  int32_t time_offset_s = 0;     // "TimeDiff": exchange clock = UTC + this
  int64_t duration_ms = 60000;   // the run ends (stage 4) at this simulated time
  int64_t tick_ms = 1000;        // "NordaSystemTime" period
  int32_t vault = 0;             // "VAULT" of "Security.Info"
  std::wstring vault_answer = L"TRUE";  // the host's text answer to the vault request
  int32_t login_type = 0;        // "LoginType" of "PERMISSIONS.General"
  std::vector<Security> securities;
  std::vector<std::pair<std::wstring, ScenarioFields>> topics;   // more host topic records
  std::vector<std::pair<std::wstring, ScenarioFields>> records;  // named records for SetTopic data
  SymbolBehaviour exchange;      // the default behaviour
  ExecTypeCodes exec_types;
  std::wstring level_key_prefix = L"C";
  bool lock_order_set_on_add = false;
  std::vector<Step> steps;       // in file order; the player plays them by time, ties in file order
  bool HasStageSteps() const;
};

struct ScenarioError {
  std::string message;  // "FILE:LINE:COLUMN: ..." or "FILE: at /pointer: ..."
};

// Parses a scenario; `source` names it in messages.
std::variant<Scenario, ScenarioError> ParseScenario(const std::string& json_utf8, const std::string& source);
// Reads and parses a file; an unreadable file is a ScenarioError too.
std::variant<Scenario, ScenarioError> LoadScenarioFile(const std::string& path);

// "2026-11-23T09:30:00Z" (or with ".mmm" before the Z) to milliseconds since
// 1970 UTC; nullopt when the text is not of that form.
std::optional<int64_t> ParseUtcTime(const std::string& text);

}  // namespace tsm::sim
