#include "slicehost/scenario.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include "data/text.h"
#include "platform/civil_date.h"

namespace tsm::sim {

namespace {

using Value = rapidjson::Value;

// Thrown inside the parser only; ParseScenario turns it into a ScenarioError.
struct Failure {
  std::string pointer;
  std::string what;
};

std::string Escape(const std::string& token) {
  std::string out;
  for (char c : token) {
    if (c == '~') {
      out += "~0";
    } else if (c == '/') {
      out += "~1";
    } else {
      out += c;
    }
  }
  return out;
}

std::string Member(const std::string& pointer, const std::string& name) { return pointer + "/" + Escape(name); }
std::string Index(const std::string& pointer, size_t i) { return pointer + "/" + std::to_string(i); }

std::wstring Wide(const Value& v) { return WideFromUtf8(std::string_view(v.GetString(), v.GetStringLength())); }

const char* KindName(const Value& v) {
  switch (v.GetType()) {
    case rapidjson::kNullType: return "null";
    case rapidjson::kFalseType:
    case rapidjson::kTrueType: return "a boolean";
    case rapidjson::kObjectType: return "an object";
    case rapidjson::kArrayType: return "an array";
    case rapidjson::kStringType: return "a string";
    case rapidjson::kNumberType:
      if (v.IsInt64() || v.IsUint64()) return "an integer";
      // Integers beyond 64 bits reach here as doubles too.
      return std::fabs(v.GetDouble()) >= 9223372036854775808.0 ? "a number too large for 64 bits"
                                                                : "a fractional number";
  }
  return "something else";
}

[[noreturn]] void Fail(const std::string& pointer, const std::string& expected, const Value* found = nullptr) {
  std::string what = "expected " + expected;
  if (found != nullptr) what += ", found " + std::string(KindName(*found));
  throw Failure{pointer.empty() ? "/" : pointer, what};
}

// Rejects members not in `known`, so that a misspelt name is reported.
void OnlyMembers(const Value& object, const std::string& pointer, const std::vector<const char*>& known) {
  for (auto it = object.MemberBegin(); it != object.MemberEnd(); ++it) {
    const std::string name(it->name.GetString(), it->name.GetStringLength());
    bool ok = false;
    for (const char* k : known) ok = ok || name == k;
    if (!ok) {
      std::string list;
      for (const char* k : known) list += std::string(list.empty() ? "" : ", ") + "\"" + k + "\"";
      throw Failure{Member(pointer, name), "unknown member; expected one of " + list};
    }
  }
}

const Value& RequireObject(const Value& v, const std::string& pointer) {
  if (!v.IsObject()) Fail(pointer, "an object", &v);
  return v;
}

const Value* Find(const Value& object, const char* name) {
  auto it = object.FindMember(name);
  return it == object.MemberEnd() ? nullptr : &it->value;
}

const Value& Require(const Value& object, const std::string& pointer, const char* name, const std::string& expected) {
  const Value* v = Find(object, name);
  if (v == nullptr) throw Failure{Member(pointer, name), "missing member; expected " + expected};
  return *v;
}

int64_t Integer(const Value& v, const std::string& pointer, int64_t low, int64_t high) {
  if (!v.IsInt64()) {
    Fail(pointer, "an integer from " + std::to_string(low) + " to " + std::to_string(high), &v);
  }
  const int64_t n = v.GetInt64();
  if (n < low || n > high) {
    throw Failure{pointer, "expected an integer from " + std::to_string(low) + " to " + std::to_string(high) +
                               ", found " + std::to_string(n)};
  }
  return n;
}

constexpr int64_t kI4Min = std::numeric_limits<int32_t>::min();
constexpr int64_t kI4Max = std::numeric_limits<int32_t>::max();
constexpr int64_t kI8Min = std::numeric_limits<int64_t>::min();
constexpr int64_t kI8Max = std::numeric_limits<int64_t>::max();

int64_t OptInteger(const Value& object, const std::string& pointer, const char* name, int64_t fallback, int64_t low,
                   int64_t high) {
  const Value* v = Find(object, name);
  return v == nullptr ? fallback : Integer(*v, Member(pointer, name), low, high);
}

std::string String(const Value& v, const std::string& pointer) {
  if (!v.IsString()) Fail(pointer, "a string", &v);
  return std::string(v.GetString(), v.GetStringLength());
}

std::string OptString(const Value& object, const std::string& pointer, const char* name, const std::string& fallback) {
  const Value* v = Find(object, name);
  return v == nullptr ? fallback : String(*v, Member(pointer, name));
}

bool OptBool(const Value& object, const std::string& pointer, const char* name, bool fallback) {
  const Value* v = Find(object, name);
  if (v == nullptr) return fallback;
  if (!v->IsBool()) Fail(Member(pointer, name), "true or false", v);
  return v->GetBool();
}

// A field value: an integer (VT_I4 when it fits 32 bits, else VT_I8), a
// string (VT_BSTR), or one of {"i4":N}, {"i8":N}, {"text":"..."}.
Variant FieldValue(const Value& v, const std::string& pointer) {
  const char* expected = "an integer, a string, or one of {\"i4\":N}, {\"i8\":N}, {\"text\":\"...\"}";
  if (v.IsString()) return Variant::Text(Wide(v));
  if (v.IsNumber()) {
    const int64_t n = Integer(v, pointer, kI8Min, kI8Max);
    return n >= kI4Min && n <= kI4Max ? Variant::I4(static_cast<int32_t>(n)) : Variant::I8(n);
  }
  if (v.IsObject() && v.MemberCount() == 1) {
    const std::string name(v.MemberBegin()->name.GetString(), v.MemberBegin()->name.GetStringLength());
    const Value& inner = v.MemberBegin()->value;
    if (name == "i4") return Variant::I4(static_cast<int32_t>(Integer(inner, Member(pointer, name), kI4Min, kI4Max)));
    if (name == "i8") return Variant::I8(Integer(inner, Member(pointer, name), kI8Min, kI8Max));
    if (name == "text") return Variant::Text(WideFromUtf8(String(inner, Member(pointer, name))));
  }
  Fail(pointer, expected, &v);
}

ScenarioFields Fields(const Value& v, const std::string& pointer) {
  RequireObject(v, pointer);
  ScenarioFields fields;
  for (auto it = v.MemberBegin(); it != v.MemberEnd(); ++it) {
    const std::string name(it->name.GetString(), it->name.GetStringLength());
    if (name.empty()) throw Failure{Member(pointer, name), "expected a non-empty field name"};
    fields.emplace_back(WideFromUtf8(name), FieldValue(it->value, Member(pointer, name)));
  }
  return fields;
}

std::vector<std::pair<std::wstring, ScenarioFields>> NamedFields(const Value& v, const std::string& pointer) {
  RequireObject(v, pointer);
  std::vector<std::pair<std::wstring, ScenarioFields>> out;
  for (auto it = v.MemberBegin(); it != v.MemberEnd(); ++it) {
    const std::string name(it->name.GetString(), it->name.GetStringLength());
    if (name.empty()) throw Failure{Member(pointer, name), "expected a non-empty record name"};
    out.emplace_back(WideFromUtf8(name), Fields(it->value, Member(pointer, name)));
  }
  return out;
}

SymbolBehaviour Behaviour(const Value& v, const std::string& pointer, SymbolBehaviour b,
                          std::initializer_list<const char*> extra_members = {}) {
  RequireObject(v, pointer);
  std::vector<const char*> known = {"delivery_ms", "ack_ms",        "fill_ms",           "fill_percent",
                                    "fill_steps",  "reject",        "cancel_ms",         "replace_ms",
                                    "replace_exec_type", "work_final_portion"};
  known.insert(known.end(), extra_members.begin(), extra_members.end());
  OnlyMembers(v, pointer, known);
  const int64_t day = 24LL * 3600 * 1000;
  b.delivery_delay_ms = OptInteger(v, pointer, "delivery_ms", b.delivery_delay_ms, 0, day);
  b.ack_delay_ms = OptInteger(v, pointer, "ack_ms", b.ack_delay_ms, 0, day);
  b.fill_delay_ms = OptInteger(v, pointer, "fill_ms", b.fill_delay_ms, 0, day);
  b.fill_percent = static_cast<int32_t>(OptInteger(v, pointer, "fill_percent", b.fill_percent, 0, 100));
  b.fill_steps = static_cast<int32_t>(OptInteger(v, pointer, "fill_steps", b.fill_steps, 1, 1000));
  b.reject = OptBool(v, pointer, "reject", b.reject);
  b.cancel_delay_ms = OptInteger(v, pointer, "cancel_ms", b.cancel_delay_ms, 0, day);
  b.replace_delay_ms = OptInteger(v, pointer, "replace_ms", b.replace_delay_ms, 0, day);
  b.replace_exec_type =
      static_cast<int32_t>(OptInteger(v, pointer, "replace_exec_type", b.replace_exec_type, kI4Min, kI4Max));
  b.work_final_portion = OptBool(v, pointer, "work_final_portion", b.work_final_portion);
  return b;
}

ExecTypeCodes ExecTypes(const Value& v, const std::string& pointer) {
  RequireObject(v, pointer);
  OnlyMembers(v, pointer, {"acknowledged", "partially_filled", "filled", "replaced", "cancelled", "rejected"});
  ExecTypeCodes c;
  auto code = [&](const char* name, int32_t fallback) {
    return static_cast<int32_t>(OptInteger(v, pointer, name, fallback, kI4Min, kI4Max));
  };
  c.acknowledged = code("acknowledged", c.acknowledged);
  c.partially_filled = code("partially_filled", c.partially_filled);
  c.filled = code("filled", c.filled);
  c.replaced = code("replaced", c.replaced);
  c.cancelled = code("cancelled", c.cancelled);
  c.rejected = code("rejected", c.rejected);
  return c;
}

// A symbol id of at least four non-empty dot-separated parts.
bool IsSymbolId(const std::wstring& symbol) {
  int parts = 0;
  size_t start = 0;
  for (;;) {
    const size_t dot = symbol.find(L'.', start);
    const size_t end = dot == std::wstring::npos ? symbol.size() : dot;
    if (end == start) return false;
    ++parts;
    if (dot == std::wstring::npos) break;
    start = dot + 1;
  }
  return parts >= 4;
}

Security ParseSecurity(const Value& v, const std::string& pointer, const SymbolBehaviour& defaults) {
  RequireObject(v, pointer);
  OnlyMembers(v, pointer, {"symbol", "info", "sessions", "source", "volume", "behaviour"});
  Security s;
  const std::string symbol_pointer = Member(pointer, "symbol");
  s.symbol = WideFromUtf8(String(Require(v, pointer, "symbol", "a symbol id such as \"QX.S.TW.2330\""), symbol_pointer));
  if (!IsSymbolId(s.symbol)) {
    throw Failure{symbol_pointer, "expected a symbol id of at least four dot-separated parts, such as \"QX.S.TW.2330\""};
  }
  s.info = WideFromUtf8(OptString(v, pointer, "info", ""));
  s.sessions = WideFromUtf8(OptString(v, pointer, "sessions", ""));
  s.source = OptString(v, pointer, "source", s.sessions.empty() ? "none" : "record");
  if (s.source != "record" && s.source != "vault" && s.source != "none") {
    throw Failure{Member(pointer, "source"), "expected \"record\", \"vault\" or \"none\""};
  }
  s.volume = OptInteger(v, pointer, "volume", 0, kI8Min, kI8Max);
  if (const Value* b = Find(v, "behaviour")) s.behaviour = Behaviour(*b, Member(pointer, "behaviour"), defaults);
  return s;
}

StepData ParseData(const Value& v, const std::string& pointer) {
  StepData d;
  if (v.IsNull()) return d;
  if (v.IsObject() && v.MemberCount() == 1 && std::string(v.MemberBegin()->name.GetString()) == "record") {
    d.kind = StepData::Kind::kRecord;
    d.record = WideFromUtf8(String(v.MemberBegin()->value, Member(pointer, "record")));
    return d;
  }
  if (v.IsObject() || v.IsString() || v.IsNumber()) {
    d.kind = StepData::Kind::kValue;
    d.value = FieldValue(v, pointer);
    return d;
  }
  Fail(pointer, "null, {\"record\":\"NAME\"}, {\"i4\":N}, {\"i8\":N}, {\"text\":\"...\"}, an integer or a string", &v);
}

struct StepKindName {
  const char* name;
  Step::Kind kind;
};
constexpr StepKindName kStepKinds[] = {
    {"SetStage", Step::Kind::kSetStage}, {"SetTopic", Step::Kind::kSetTopic},
    {"Submit", Step::Kind::kSubmit},     {"Release", Step::Kind::kRelease},
    {"Cancel", Step::Kind::kCancel},     {"Update", Step::Kind::kUpdate},
    {"Fill", Step::Kind::kFill},         {"Volume", Step::Kind::kVolume},
    {"SystemTime", Step::Kind::kSystemTime}, {"Renumber", Step::Kind::kRenumber},
};

std::wstring RequireWide(const Value& object, const std::string& pointer, const char* name, const std::string& expected) {
  const std::string text = String(Require(object, pointer, name, expected), Member(pointer, name));
  if (text.empty()) throw Failure{Member(pointer, name), "expected " + expected + ", found an empty string"};
  return WideFromUtf8(text);
}

Step ParseStep(const Value& v, const std::string& pointer, const Scenario& scenario) {
  RequireObject(v, pointer);
  Step s;
  s.where = pointer;
  s.at_ms = Integer(Require(v, pointer, "at", "the step's time in milliseconds since the start"), Member(pointer, "at"),
                    0, scenario.duration_ms);
  const std::string kind_pointer = Member(pointer, "do");
  const std::string kind = String(Require(v, pointer, "do", "the step's kind"), kind_pointer);
  bool known = false;
  for (const StepKindName& k : kStepKinds) {
    if (kind == k.name) {
      s.kind = k.kind;
      known = true;
    }
  }
  if (!known) {
    std::string list;
    for (const StepKindName& k : kStepKinds) list += std::string(list.empty() ? "" : ", ") + k.name;
    throw Failure{kind_pointer, "expected one of " + list + ", found \"" + kind + "\""};
  }
  switch (s.kind) {
    case Step::Kind::kSetStage:
      OnlyMembers(v, pointer, {"at", "do", "kind", "stage", "comment"});
      s.stage_kind = static_cast<int32_t>(OptInteger(v, pointer, "kind", 1, kI4Min, kI4Max));
      s.stage = static_cast<int32_t>(Integer(Require(v, pointer, "stage", "an integer stage (1, 2 or 4)"),
                                             Member(pointer, "stage"), kI4Min, kI4Max));
      break;
    case Step::Kind::kSetTopic:
      OnlyMembers(v, pointer, {"at", "do", "topic", "p1", "p2", "text", "data", "comment"});
      s.topic = RequireWide(v, pointer, "topic", "a topic name");
      // The order-set lock is held by the host's thread until the unlock;
      // held across two steps it would stall the manager's timers and
      // events, which the host waits for between steps.
      if (s.topic == L"ORDERSET.LOCK" || s.topic == L"ORDERSET.UNLOCK") {
        throw Failure{Member(pointer, "topic"),
                      "expected another topic: the order-set lock and unlock come together from the \"Renumber\" step"};
      }
      s.p1 = static_cast<int32_t>(OptInteger(v, pointer, "p1", 0, kI4Min, kI4Max));
      s.p2 = static_cast<int32_t>(OptInteger(v, pointer, "p2", 0, kI4Min, kI4Max));
      s.text = WideFromUtf8(OptString(v, pointer, "text", ""));
      if (const Value* d = Find(v, "data")) s.data = ParseData(*d, Member(pointer, "data"));
      break;
    case Step::Kind::kSubmit: {
      OnlyMembers(v, pointer, {"at", "do", "fields", "in_order_set", "comment"});
      const std::string fields_pointer = Member(pointer, "fields");
      s.fields = Fields(Require(v, pointer, "fields", "the parent order's fields"), fields_pointer);
      bool has_key = false;
      for (const auto& [name, value] : s.fields) {
        if (name == L"LevelKey" && value.type() == VarType::BStr && !value.text().empty()) has_key = true;
      }
      if (!has_key) throw Failure{Member(fields_pointer, "LevelKey"), "missing member; expected the parent's level key text"};
      s.in_order_set = OptBool(v, pointer, "in_order_set", true);
      break;
    }
    case Step::Kind::kRelease:
      OnlyMembers(v, pointer, {"at", "do", "order", "comment"});
      s.order = RequireWide(v, pointer, "order", "a parent's level key");
      break;
    case Step::Kind::kCancel:
      OnlyMembers(v, pointer, {"at", "do", "order", "all", "comment"});
      s.order = RequireWide(v, pointer, "order", "an order's level key");
      s.all = OptBool(v, pointer, "all", false);
      break;
    case Step::Kind::kUpdate:
      OnlyMembers(v, pointer, {"at", "do", "record", "fields", "comment"});
      s.record = RequireWide(v, pointer, "record", "an order's level key, a named record or a topic");
      s.fields = Fields(Require(v, pointer, "fields", "the fields to write"), Member(pointer, "fields"));
      break;
    case Step::Kind::kFill:
      OnlyMembers(v, pointer, {"at", "do", "order", "qty", "comment"});
      s.order = RequireWide(v, pointer, "order", "a child's level key");
      s.qty = static_cast<int32_t>(
          Integer(Require(v, pointer, "qty", "the filled quantity"), Member(pointer, "qty"), 1, kI4Max));
      break;
    case Step::Kind::kVolume: {
      OnlyMembers(v, pointer, {"at", "do", "symbol", "volume", "comment"});
      s.symbol = RequireWide(v, pointer, "symbol", "a symbol of the scenario's securities");
      bool declared = false;
      for (const Security& security : scenario.securities) declared = declared || security.symbol == s.symbol;
      if (!declared) throw Failure{Member(pointer, "symbol"), "expected a symbol of the scenario's securities"};
      s.volume = Integer(Require(v, pointer, "volume", "the traded volume"), Member(pointer, "volume"), kI8Min, kI8Max);
      break;
    }
    case Step::Kind::kSystemTime:
      OnlyMembers(v, pointer, {"at", "do", "date", "time", "time_diff", "comment"});
      if (const Value* d = Find(v, "date")) {
        s.date = static_cast<int32_t>(Integer(*d, Member(pointer, "date"), 19700101, 99991231));
      }
      if (const Value* t = Find(v, "time")) s.time = static_cast<int32_t>(Integer(*t, Member(pointer, "time"), 0, 235959));
      if (const Value* t = Find(v, "time_diff")) {
        s.time_diff = static_cast<int32_t>(Integer(*t, Member(pointer, "time_diff"), -86400, 86400));
      }
      if (!s.date && !s.time && !s.time_diff) {
        throw Failure{pointer, "expected at least one of \"date\", \"time\", \"time_diff\""};
      }
      break;
    case Step::Kind::kRenumber:
      OnlyMembers(v, pointer, {"at", "do", "order", "comment"});
      if (const Value* order = Find(v, "order")) {
        const std::string order_pointer = Member(pointer, "order");
        if (!order->IsArray()) Fail(order_pointer, "an array of level keys", order);
        for (rapidjson::SizeType i = 0; i < order->Size(); ++i) {
          s.new_order.push_back(WideFromUtf8(String((*order)[i], Index(order_pointer, i))));
        }
      }
      break;
  }
  if (const Value* c = Find(v, "comment")) String(*c, Member(pointer, "comment"));
  return s;
}

std::pair<size_t, size_t> LineColumn(const std::string& text, size_t offset) {
  size_t line = 1, column = 1;
  for (size_t i = 0; i < offset && i < text.size(); ++i) {
    if (text[i] == '\n') {
      ++line;
      column = 1;
    } else if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
      ++column;
    }
  }
  return {line, column};
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.find_last_of("/\\");
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t dot = name.rfind('.');
  return dot == std::string::npos ? name : name.substr(0, dot);
}

Scenario ParseDocument(const Value& root, const std::string& source) {
  RequireObject(root, "");
  OnlyMembers(root, "", {"name", "description", "start", "time_offset", "duration_ms", "tick_ms", "vault", "vault_answer",
                         "login_type", "securities", "topics", "records", "exchange", "steps"});
  Scenario s;
  s.source = source;
  s.name = OptString(root, "", "name", BaseName(source));
  s.description = OptString(root, "", "description", "");
  const std::string start = OptString(root, "", "start", "2026-11-23T09:30:00Z");
  const std::optional<int64_t> start_ms = ParseUtcTime(start);
  if (!start_ms) throw Failure{"/start", "expected a UTC time such as \"2026-11-23T09:30:00Z\", found \"" + start + "\""};
  s.start_utc_ms = *start_ms;
  s.time_offset_s = static_cast<int32_t>(OptInteger(root, "", "time_offset", 0, -86400, 86400));
  s.duration_ms = OptInteger(root, "", "duration_ms", s.duration_ms, 1, 7LL * 24 * 3600 * 1000);
  s.tick_ms = OptInteger(root, "", "tick_ms", s.tick_ms, 1, 3600 * 1000);
  s.vault = static_cast<int32_t>(OptInteger(root, "", "vault", 0, kI4Min, kI4Max));
  s.vault_answer = WideFromUtf8(OptString(root, "", "vault_answer", "TRUE"));
  s.login_type = static_cast<int32_t>(OptInteger(root, "", "login_type", 0, kI4Min, kI4Max));

  if (const Value* e = Find(root, "exchange")) {
    RequireObject(*e, "/exchange");
    s.exchange = Behaviour(*e, "/exchange", s.exchange, {"exec_types", "level_key_prefix", "lock_order_set_on_add"});
    if (const Value* codes = Find(*e, "exec_types")) s.exec_types = ExecTypes(*codes, "/exchange/exec_types");
    s.level_key_prefix = WideFromUtf8(OptString(*e, "/exchange", "level_key_prefix", "C"));
    if (s.level_key_prefix.empty()) throw Failure{"/exchange/level_key_prefix", "expected a non-empty prefix"};
    s.lock_order_set_on_add = OptBool(*e, "/exchange", "lock_order_set_on_add", false);
  }
  if (const Value* list = Find(root, "securities")) {
    if (!list->IsArray()) Fail("/securities", "an array of securities", list);
    std::set<std::wstring> seen;
    for (rapidjson::SizeType i = 0; i < list->Size(); ++i) {
      Security security = ParseSecurity((*list)[i], Index("/securities", i), s.exchange);
      if (!seen.insert(security.symbol).second) {
        throw Failure{Index("/securities", i) + "/symbol", "expected each symbol once"};
      }
      s.securities.push_back(std::move(security));
    }
  }
  if (const Value* t = Find(root, "topics")) s.topics = NamedFields(*t, "/topics");
  if (const Value* r = Find(root, "records")) s.records = NamedFields(*r, "/records");
  const Value& steps = Require(root, "", "steps", "an array of timed steps");
  if (!steps.IsArray()) Fail("/steps", "an array of timed steps", &steps);
  for (rapidjson::SizeType i = 0; i < steps.Size(); ++i) s.steps.push_back(ParseStep(steps[i], Index("/steps", i), s));
  return s;
}

}  // namespace

bool Scenario::HasStageSteps() const {
  for (const Step& step : steps) {
    if (step.kind == Step::Kind::kSetStage) return true;
  }
  return false;
}

std::optional<int64_t> ParseUtcTime(const std::string& text) {
  int y, mo, d, h, mi, sec, ms = 0;
  char tail[4] = {0};
  int consumed = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &sec, &consumed) != 6 ||
      consumed != 19) {
    return std::nullopt;
  }
  std::string rest = text.substr(19);
  if (rest.size() == 5 && rest[0] == '.') {
    if (std::sscanf(rest.c_str(), ".%3d%1s", &ms, tail) != 2) return std::nullopt;
    rest = rest.substr(4);
  }
  if (rest != "Z") return std::nullopt;
  if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || sec > 59 || ms < 0) return std::nullopt;
  const int64_t days = platform::DaysFromCivil(y, mo, d);
  return ((days * 86400 + h * 3600 + mi * 60 + sec) * 1000) + ms;
}

std::variant<Scenario, ScenarioError> ParseScenario(const std::string& json_utf8, const std::string& source) {
  // Iterative: a file nested without end must not overflow the stack. Only
  // integers are read, so the parser's full-precision fractions (which
  // misread a zero significand with a long exponent) are not asked for.
  rapidjson::Document document;
  document.Parse<rapidjson::kParseValidateEncodingFlag | rapidjson::kParseCommentsFlag |
                 rapidjson::kParseIterativeFlag>(json_utf8.c_str(), json_utf8.size());
  if (document.HasParseError()) {
    const auto [line, column] = LineColumn(json_utf8, document.GetErrorOffset());
    return ScenarioError{source + ":" + std::to_string(line) + ":" + std::to_string(column) +
                         ": not valid JSON: " + rapidjson::GetParseError_En(document.GetParseError())};
  }
  try {
    return ParseDocument(document, source);
  } catch (const Failure& failure) {
    return ScenarioError{source + ": at " + failure.pointer + ": " + failure.what};
  } catch (const std::exception& e) {
    return ScenarioError{source + ": " + e.what()};
  }
}

std::variant<Scenario, ScenarioError> LoadScenarioFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return ScenarioError{path + ": cannot be opened for reading"};
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) return ScenarioError{path + ": cannot be read"};
  return ParseScenario(text.str(), path);
}

}  // namespace tsm::sim
