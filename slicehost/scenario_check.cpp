#include "slicehost/scenario_check.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "data/text.h"
#include "slicehost/sim_host.h"

namespace tsm::sim {

namespace {

// Fields the manager reads as 32-bit quantities.
constexpr const wchar_t* kQuantityFields[] = {L"OrderQty", L"LeavesQty", L"SendQty",
                                              L"DiscloseQty", L"CumQty", L"OriginalQty"};

// Host topic records every run has.
constexpr const wchar_t* kHostTopics[] = {L"NordaSystemTime", L"Security.Info", L"PERMISSIONS.General",
                                          L"TRADE.ORDERSET", L"MARZIPAN.REQUEST"};

std::string Quoted(const std::wstring& text) {
  // Appended piece by piece: "\"" + a temporary string trips a false
  // -Wrestrict of g++ 12 at -O2.
  std::string quoted = "\"";
  quoted += Utf8FromWide(text);
  quoted += '"';
  return quoted;
}

const Variant* FindField(const ScenarioFields& fields, const wchar_t* name) {
  for (const auto& [field, value] : fields) {
    if (field == name) return &value;
  }
  return nullptr;
}

std::wstring FieldText(const ScenarioFields& fields, const wchar_t* name) {
  const Variant* value = FindField(fields, name);
  if (value == nullptr) return {};
  Variant text = *value;
  text.ChangeTypeToText();
  return text.text();
}

bool IsDigits(const std::wstring& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](wchar_t c) { return c >= L'0' && c <= L'9'; });
}

// The items of a security text as the manager splits it: at "|", runs of
// separators counting as one.
std::vector<std::wstring> InfoItems(const std::wstring& info) {
  std::vector<std::wstring> items;
  int pos = 0;
  for (std::wstring_view item = TokenizeView(info, L"|", pos); pos >= 0; item = TokenizeView(info, L"|", pos)) {
    items.emplace_back(item);
  }
  return items;
}

// "HH:MM" (one or two digits of hour) to minutes of the day; -1 when not.
int ClockMinutes(const std::wstring& text) {
  const size_t colon = text.find(L':');
  if (colon == std::wstring::npos || colon == 0 || colon > 2 || text.size() != colon + 3) return -1;
  const std::wstring hours = text.substr(0, colon);
  const std::wstring minutes = text.substr(colon + 1);
  if (!IsDigits(hours) || !IsDigits(minutes)) return -1;
  const int h = std::stoi(hours);
  const int m = std::stoi(minutes);
  if (h > 24 || m > 59 || h * 60 + m > 24 * 60) return -1;
  return h * 60 + m;
}

std::string ClockText(int64_t seconds_of_day) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d", static_cast<int>(seconds_of_day / 3600),
                static_cast<int>(seconds_of_day / 60 % 60), static_cast<int>(seconds_of_day % 60));
  return buffer;
}

class Checker {
 public:
  explicit Checker(const Scenario& scenario) : scenario_(scenario) {}

  std::vector<ScenarioWarning> Run() {
    for (size_t i = 0; i < scenario_.securities.size(); ++i) CheckSecurity(i);
    for (const auto& [name, fields] : scenario_.records) {
      CheckQuantities(fields, "/records/" + Utf8FromWide(name));
    }
    // Steps are played by time, ties in file order: an order is known to
    // the steps played after the Submit that enters it.
    std::vector<const Step*> played;
    for (const Step& step : scenario_.steps) played.push_back(&step);
    std::stable_sort(played.begin(), played.end(), [](const Step* a, const Step* b) { return a->at_ms < b->at_ms; });
    for (const Step* step : played) CheckStep(*step);
    std::stable_sort(warnings_.begin(), warnings_.end(), [](const Found& a, const Found& b) {
      return a.file_order < b.file_order;
    });
    std::vector<ScenarioWarning> out;
    for (Found& found : warnings_) out.push_back(std::move(found.warning));
    return out;
  }

 private:
  struct Found {
    size_t file_order;  // securities and records first, then steps in file order
    ScenarioWarning warning;
  };

  void Warn(const std::string& where, std::string text) {
    warnings_.push_back({order_, {where, std::move(text)}});
  }

  void CheckSecurity(size_t index) {
    const Security& security = scenario_.securities[index];
    const std::string where = "/securities/" + std::to_string(index);
    if (!security.sessions.empty() && !ParseSessions(security.sessions, nullptr)) {
      Warn(where + "/sessions", "sessions " + Quoted(security.sessions) +
                                    " are not HH:MM~HH:MM joined by \";\", each opening before it closes: the manager "
                                    "takes the digits of each part as HHMM and holds orders back by what it reads");
    }
    if (!security.info.empty()) {
      const std::vector<std::wstring> items = InfoItems(security.info);
      const char* names[] = {"buy lot (item 2)", "sell lot (item 4)"};
      const size_t positions[] = {1, 3};
      for (int k = 0; k < 2; ++k) {
        const size_t at = positions[k];
        if (at >= items.size()) {
          Warn(where + "/info", "info " + Quoted(security.info) + " has no " + names[k] +
                                    ": the manager reads a lot of 0 there and does not round those orders");
        } else if (!IsDigits(items[at])) {
          Warn(where + "/info", "info " + Quoted(security.info) + ": the " + names[k] + " " + Quoted(items[at]) +
                                    " is not a whole number; the manager reads it as " +
                                    std::to_string(WToI64(items[at])));
        }
      }
    }
  }

  void CheckQuantities(const ScenarioFields& fields, const std::string& where) {
    for (const auto& [name, value] : fields) {
      const auto& field_name = name;  // clang 14 cannot capture a structured binding
      const bool quantity = std::any_of(std::begin(kQuantityFields), std::end(kQuantityFields),
                                        [&field_name](const wchar_t* q) { return field_name == q; });
      const bool variance = name == L"Variance";
      if (!quantity && !variance) continue;
      const std::string field = where + "/" + Utf8FromWide(name);
      if (value.type() == VarType::I8) {
        Warn(field, Utf8FromWide(name) + " " + std::to_string(value.i8()) +
                        " does not fit 32 bits: the manager reads its quantities as 32-bit numbers");
      } else if (value.type() == VarType::I4 && value.i4() < 0) {
        Warn(field, Utf8FromWide(name) + " " + std::to_string(value.i4()) + " is negative" +
                        (variance ? ": the manager's slice size does not allow for it (it can divide by zero)"
                                  : ": the manager slices and counts it as it stands"));
      }
    }
  }

  void CheckStep(const Step& step) {
    order_ = 1 + static_cast<size_t>(&step - scenario_.steps.data());
    switch (step.kind) {
      case Step::Kind::kSubmit: CheckSubmit(step); break;
      case Step::Kind::kUpdate:
        CheckQuantities(step.fields, step.where + "/fields");
        CheckRecord(step, step.record, "/record");
        break;
      case Step::Kind::kSetTopic:
        if (step.data.kind == StepData::Kind::kRecord) CheckRecord(step, step.data.record, "/data/record");
        break;
      case Step::Kind::kRelease:
      case Step::Kind::kCancel:
      case Step::Kind::kFill: CheckOrder(step); break;
      default: break;
    }
  }

  void CheckSubmit(const Step& step) {
    const std::string where = step.where + "/fields";
    const std::wstring key = FieldText(step.fields, L"LevelKey");
    const std::string parent = "parent " + Quoted(key);
    CheckQuantities(step.fields, where);

    const Variant* sliced = FindField(step.fields, L"SlicedType");
    const int32_t sliced_type = sliced != nullptr && sliced->type() == VarType::I4 ? sliced->i4() : 0;
    if (sliced_type < 1) {
      Warn(where, parent + (sliced == nullptr ? " has no SlicedType" : " has a SlicedType below 1") +
                      ": the manager logs it and does nothing with it");
    } else if (FindField(step.fields, L"LeavesQty") == nullptr) {
      Warn(where, parent + " has no LeavesQty: the manager reads 0 left to slice and sends the parent as one final "
                           "portion, without children" +
                      (sliced_type == 4 || sliced_type == 5 ? " (its OrderQty, LeavesQty and SendQty rewritten to 0)"
                                                            : ""));
    }
    if (sliced_type == 3) CheckVolumeWatch(step, parent);
    if (sliced_type >= 1 && FindField(step.fields, L"OrderQty") == nullptr) {
      Warn(where, parent + " has no OrderQty: the manager slices by LeavesQty and writes OrderQty only when it "
                           "cuts a child; a parent sent whole as its final portion goes without one");
    }

    const std::wstring symbol = FieldText(step.fields, L"Symbol");
    const Security* security = nullptr;
    for (const Security& s : scenario_.securities) {
      if (s.symbol == symbol) security = &s;
    }
    if (security == nullptr) {
      Warn(where + "/Symbol", parent + (symbol.empty() ? " has no Symbol" : " is on " + Quoted(symbol) +
                                                                                 ", which `securities` does not declare") +
                                  ": no lot, no sessions and no quote record for it");
    } else if (sliced_type >= 1) {
      CheckSessionsReached(step, *security, parent);
    }
    if (!key.empty()) known_orders_.insert(key);
  }

  // The manager watches a volume parent's children only with an Interval of
  // 1 or more and a LeftoverAction other than 0 (absent counts as the least
  // 32-bit number there).
  void CheckVolumeWatch(const Step& step, const std::string& parent) {
    const Variant* interval = FindField(step.fields, L"Interval");
    const Variant* leftover = FindField(step.fields, L"LeftoverAction");
    const bool watched = interval != nullptr && SimHost::ToI4(*interval, 0) >= 1 &&
                         (leftover == nullptr || SimHost::ToI4(*leftover, 0) != 0);
    if (watched) return;
    Warn(step.where + "/fields", parent + " is sliced by volume (SlicedType 3) without an Interval of 1 or more "
                                          "and a LeftoverAction other than 0: the manager never watches its "
                                          "children, so none is cancelled by volume");
  }

  // A parent held back outside its sessions waits the whole run when no
  // session opens between its submission and the end.
  void CheckSessionsReached(const Step& step, const Security& security, const std::string& parent) {
    if (security.source == "none" || (security.source == "vault" && scenario_.vault != 1)) return;
    const Variant* tif = FindField(step.fields, L"TimeInForce");
    if ((tif != nullptr && tif->type() == VarType::I4 && tif->i4() == 6) || !step.in_order_set) return;
    std::vector<std::pair<int, int>> sessions;
    if (!ParseSessions(security.sessions, &sessions) || sessions.empty()) return;
    const int64_t day = 24 * 3600;
    const int64_t length = (scenario_.duration_ms - step.at_ms) / 1000;
    if (length >= day) return;
    const int64_t utc = scenario_.start_utc_ms / 1000 + step.at_ms / 1000 + scenario_.time_offset_s;
    const int64_t from = ((utc % day) + day) % day;
    for (const auto& [open, close] : sessions) {
      // The session on this day and on the next, for a run over midnight.
      for (int64_t shift : {int64_t{0}, day}) {
        const int64_t open_s = open * 60 + shift;
        const int64_t close_s = close * 60 + shift;
        if (open_s < from + length && close_s > from) return;
      }
    }
    Warn(step.where, parent + " on " + Quoted(security.symbol) + ": the run covers " + ClockText(from) + " to " +
                         ClockText((from + length) % day) + " exchange time (start plus time_offset " +
                         std::to_string(scenario_.time_offset_s) + " s), outside every session " +
                         Quoted(security.sessions) + "; the manager holds it back all the run");
  }

  // Children get their level keys from the exchange as they are sent
  // (prefix and number); such a name is taken as known.
  bool IsKnownOrder(const std::wstring& name) const {
    if (known_orders_.count(name) != 0) return true;
    const std::wstring& prefix = scenario_.level_key_prefix;
    return name.size() > prefix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
           IsDigits(name.substr(prefix.size()));
  }

  void CheckOrder(const Step& step) {
    if (IsKnownOrder(step.order)) return;
    Warn(step.where + "/order", "names the order " + Quoted(step.order) +
                                    ", which no Submit step before it enters and no child is called: the step "
                                    "will be skipped");
  }

  void CheckRecord(const Step& step, const std::wstring& name, const char* member) {
    if (IsKnownOrder(name)) return;
    for (const auto& [record, fields] : scenario_.records) {
      if (record == name) return;
    }
    for (const auto& [topic, fields] : scenario_.topics) {
      if (topic == name) return;
    }
    for (const Security& security : scenario_.securities) {
      if (security.symbol == name) return;
    }
    for (const wchar_t* topic : kHostTopics) {
      if (name == topic) return;
    }
    Warn(step.where + member, "names the record " + Quoted(name) +
                                  ", which is no order entered before it, no name of `records` and no host topic: "
                                  "the step will be skipped");
  }

  const Scenario& scenario_;
  std::vector<Found> warnings_;
  std::set<std::wstring> known_orders_;
  size_t order_ = 0;
};

}  // namespace

bool ParseSessions(const std::wstring& sessions, std::vector<std::pair<int, int>>* out) {
  size_t start = 0;
  for (;;) {
    const size_t semicolon = sessions.find(L';', start);
    const std::wstring part =
        sessions.substr(start, semicolon == std::wstring::npos ? std::wstring::npos : semicolon - start);
    const size_t tilde = part.find(L'~');
    if (tilde == std::wstring::npos) return false;
    const int open = ClockMinutes(part.substr(0, tilde));
    const int close = ClockMinutes(part.substr(tilde + 1));
    if (open < 0 || close < 0 || open >= close) return false;
    if (out != nullptr) out->emplace_back(open, close);
    if (semicolon == std::wstring::npos) return true;
    start = semicolon + 1;
  }
}

std::vector<ScenarioWarning> CheckScenario(const Scenario& scenario) { return Checker(scenario).Run(); }

std::string WarningLine(const Scenario& scenario, const ScenarioWarning& warning) {
  return scenario.source + ": at " + warning.where + ": warning: " + warning.text;
}

}  // namespace tsm::sim
