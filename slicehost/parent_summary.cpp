#include "slicehost/parent_summary.h"

#include <algorithm>
#include <map>

#include "data/text.h"
#include "slicehost/timeline.h"

namespace tsm::sim {

namespace {

int64_t TextNumber(const std::wstring& text, const std::wstring& key) {
  const std::wstring value = CommandValue(text, key);
  return value.empty() ? 0 : WToI64(value);
}

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

}  // namespace tsm::sim
