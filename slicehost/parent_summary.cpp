#include "slicehost/parent_summary.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "data/text.h"
#include "slicehost/timeline.h"

namespace tsm::sim {

namespace {

int64_t TextNumber(const std::wstring& text, const std::wstring& key) {
  const std::wstring value = CommandValue(text, key);
  return value.empty() ? 0 : WToI64(value);
}

// Reads the manager's log for parents held back outside their sessions:
// "KeepSliceOrder(1):KEY,..." names the parent, and the first open/close
// check after it, "CheckOpenCloseTime:0, NOW, NEXT_OPEN, ...", parks it
// until NEXT_OPEN (HHMMSS, exchange time).
class ParkWatch {
 public:
  void See(const HostEvent& e) {
    if (e.ev != "WriteLog") return;
    const std::wstring prefix = L"<CTradeSliceManager>";
    const std::wstring line = e.text.rfind(prefix, 0) == 0 ? e.text.substr(prefix.size()) : e.text;
    const std::wstring keep = L"KeepSliceOrder(1):";
    if (line.rfind(keep, 0) == 0) {
      checking_ = line.substr(keep.size(), line.find(L',') - keep.size());
      return;
    }
    const std::wstring check = L"CheckOpenCloseTime:";
    if (line.rfind(check, 0) != 0 || checking_.empty()) return;
    const std::wstring key = checking_;
    checking_.clear();
    if (line.rfind(check + L"0,", 0) != 0) return;
    std::vector<ParkedSpan>& spans = parked_[key];
    if (!spans.empty() && spans.back().end_ms < 0) return;
    // The numbers after the flag: now, next open, ...
    const size_t first = line.find(L", ");
    const size_t second = first == std::wstring::npos ? first : line.find(L", ", first + 2);
    const int64_t open = second == std::wstring::npos ? 0 : WToI64(line.substr(second + 2));
    char opens_at[8];
    std::snprintf(opens_at, sizeof opens_at, "%02d:%02d", static_cast<int>(open / 10000 % 100),
                  static_cast<int>(open / 100 % 100));
    spans.push_back({e.t_ms, -1, opens_at});
  }

  // The parent's order reached the exchange: a parked stretch ends.
  void Released(const std::wstring& parent_key, int64_t t_ms) {
    auto it = parked_.find(parent_key);
    if (it != parked_.end() && !it->second.empty() && it->second.back().end_ms < 0) it->second.back().end_ms = t_ms;
  }

  std::vector<ParkedSpan> Of(const std::wstring& parent_key) const {
    auto it = parked_.find(parent_key);
    return it == parked_.end() ? std::vector<ParkedSpan>() : it->second;
  }

 private:
  std::wstring checking_;  // the parent whose open/close check comes next
  std::map<std::wstring, std::vector<ParkedSpan>> parked_;
};

}  // namespace

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
  std::map<std::wstring, std::vector<std::pair<int64_t, int64_t>>> fills;   // order -> (t, fill)
  std::map<std::wstring, std::wstring> parent_of_slice;
  for (const ParentInfo& parent : parents) parent_of_slice.emplace(parent.slice_id, parent.level_key);
  ParkWatch parking;
  for (const HostEvent& e : events) {
    parking.See(e);
    if (e.ev == "ExchangeNew" || e.ev == "ExchangeFinal") {
      auto slice = slice_of.find(e.topic);
      auto parent = slice == slice_of.end() ? parent_of_slice.end() : parent_of_slice.find(slice->second);
      parking.Released(parent == parent_of_slice.end() ? e.topic : parent->second, e.t_ms);
    }
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
        fills[e.topic].emplace_back(e.t_ms, TextNumber(e.text, L"Fill"));
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
      report.info.qty = account.qty_sent + account.final_portion_qty;
      report.info.submit_ms = account.start_ms;
      by_slice[account.slice_id] = reports.size();
      reports.push_back(report);
      it = by_slice.find(account.slice_id);
    }
    reports[it->second].account = account;
  }

  std::map<std::wstring, const ExchangeOrder*> worked;  // children and final portions by level key
  const std::vector<ExchangeOrder> orders = exchange.Orders();
  for (const ExchangeOrder& order : orders) worked[order.level_key] = &order;
  auto fill_of = [&worked](const std::wstring& key) {
    auto it = worked.find(key);
    return it == worked.end() ? int64_t{0} : it->second->cum_qty;
  };

  for (ParentReport& report : reports) {
    const ParentAccount& account = report.account;
    for (size_t i = 0; i < account.children.size(); ++i) {
      ChildSpan child;
      child.level_key = account.children[i];
      child.qty = i < account.child_qtys.size() ? account.child_qtys[i] : 0;
      child.filled = fill_of(child.level_key);
      child.fills = fills[child.level_key];
      auto order = worked.find(child.level_key);
      if (order != worked.end()) child.command = order->second->command;
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
      child.filled = fill_of(parent_key);
      child.fills = fills[parent_key];
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
    auto cancel = cancelled_at.find(parent_key);
    if (cancel != cancelled_at.end()) report.cancelled_at_ms = cancel->second;
    if (report.end_ms < 0) report.end_ms = report.cancelled_at_ms;
    for (const ChildSpan& child : report.children) {
      if (child.outcome == "cancelled" || child.outcome == "replaced") report.qty_cancelled += child.qty - child.filled;
    }
    report.parked = parking.Of(parent_key);
    const int64_t last = report.end_ms >= 0 ? report.end_ms : end_ms;
    report.remaining.emplace_back(std::max(last, report.remaining.back().first), report.remaining.back().second);
  }
  return reports;
}

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

std::string ParentOutcome(const ParentReport& p) {
  const ParentAccount& a = p.account;
  if (p.cancelled_at_ms >= 0) return "cancelled by the host at " + FormatSimTime(p.cancelled_at_ms);
  if (a.transferred) return "final portion transferred at " + FormatSimTime(a.end_ms);
  const ChildSpan* final_portion = !p.children.empty() && p.children.back().final_portion ? &p.children.back() : nullptr;
  int64_t replaced_unfilled = 0;
  for (const ChildSpan& child : p.children) {
    if (child.outcome == "replaced") replaced_unfilled += child.qty - child.filled;
  }
  if (final_portion != nullptr && final_portion->end_ms >= 0) {
    const std::string when = " at " + FormatSimTime(final_portion->end_ms);
    if (final_portion->outcome != "filled") return "final portion " + final_portion->outcome + when;
    if (replaced_unfilled > 0) {
      return "children replaced and not filled (" + std::to_string(replaced_unfilled) + "), the rest finished" + when;
    }
    return "finished" + when;
  }
  if (!p.parked.empty() && p.parked.back().end_ms < 0) {
    return "still parked until its session opens at " + p.parked.back().opens_at;
  }
  if (a.children_sent == 0 && !a.final_portion && p.info.sliced_type < 1) {
    return "not taken in (SlicedType below 1)";
  }
  return "still working at the end of the run";
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
          std::to_string(p.qty_cancelled),
          FormatSimTime(a.start_ms >= 0 ? a.start_ms : p.info.submit_ms),
          FormatSimTime(p.end_ms),
          ParentOutcome(p)};
}

const std::vector<std::string>& SummaryColumns() {
  static const std::vector<std::string> kColumns = {
      "Parent", "Slice",      "Kind",          "Qty",   "Sent", "Filled", "Cancelled",
      "Failed", "Final",      "Filled qty",    "Cancelled qty", "Start", "End",    "Outcome"};
  return kColumns;
}

std::string SummaryText(const RunResult& result) {
  std::string out = "Summary of \"" + result.name + "\" (" + FormatSimTime(result.duration_ms) + " simulated, " +
                    std::to_string(static_cast<int64_t>(result.wall_seconds * 1000)) + " ms real)\n";
  // Widths of all columns but the last, which is as long as it is.
  const size_t widths[] = {8, 8, 11, 11, 5, 7, 10, 7, 11, 11, 14, 10, 10};
  const std::vector<std::string>& columns = SummaryColumns();
  auto row = [&widths](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) line += i + 1 < cells.size() ? Pad(cells[i], widths[i]) + " " : cells[i];
    return line + "\n";
  };
  out += row(columns);
  for (const ParentReport& p : result.parents) out += row(SummaryCells(p));
  out += "(Sent, Filled, Cancelled, Failed: children; Final: the final portion's quantity; Filled qty: all fills; "
         "Cancelled qty: what cancelled or replaced children left unfilled, part of it rolled over into later "
         "children by leftover action 1 and by volume slicing)\n";
  return out;
}

}  // namespace tsm::sim
