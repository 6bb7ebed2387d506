#include "slicehost/report.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "data/text.h"
#include "slicehost/parent_summary.h"
#include "slicehost/timeline.h"
#include "slicehost/transcript.h"

namespace tsm::sim {

namespace {

constexpr int kWidth = 960;        // chart width in pixels
constexpr int kLeft = 70;          // room for the quantity axis
constexpr int kRight = 20;
constexpr int kLineHeight = 150;   // the remaining-quantity plot
constexpr int kRowHeight = 14;     // one child bar
constexpr int kAxisHeight = 28;

std::string Html(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string Html(const std::wstring& text) { return Html(Utf8FromWide(text)); }

std::string Num(double value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.1f", value);
  return buffer;
}

const char* OutcomeColour(const std::string& outcome) {
  if (outcome == "filled") return "#2e7d32";
  if (outcome == "cancelled") return "#ef6c00";
  if (outcome == "replaced") return "#6a1b9a";
  if (outcome == "rejected") return "#c62828";
  return "#1565c0";  // still working at the end of the run
}

std::string SummaryTable(const RunResult& result) {
  std::string out =
      "<table class=\"summary\">\n<thead><tr><th>Parent</th><th>Slice</th><th>Kind</th><th>Qty</th><th>Sent</th>"
      "<th>Filled</th><th>Cancelled</th><th>Failed</th><th>Final portion</th><th>Done qty</th><th>Start</th>"
      "<th>End</th></tr></thead>\n<tbody>\n";
  for (const ParentReport& p : result.parents) {
    const std::vector<std::string> cells = SummaryCells(p);
    // The parent's cell links to its chart.
    out += "<tr><td><a href=\"#parent-" + Html(cells[0]) + "\">" + Html(cells[0]) + "</a></td>";
    for (size_t i = 1; i < cells.size(); ++i) out += "<td>" + Html(cells[i]) + "</td>";
    out += "</tr>\n";
  }
  return out + "</tbody>\n</table>\n";
}

std::string Chart(const ParentReport& p, int64_t duration_ms) {
  // Time runs from the parent's start to its end (or the end of the run).
  int64_t t0 = p.remaining.empty() ? 0 : p.remaining.front().first;
  int64_t t1 = p.end_ms >= 0 ? p.end_ms : duration_ms;
  for (const ChildSpan& c : p.children) {
    if (c.start_ms >= 0) t0 = std::min(t0, c.start_ms);
    t1 = std::max(t1, c.end_ms >= 0 ? c.end_ms : c.start_ms);
  }
  if (t1 <= t0) t1 = t0 + 1000;
  const double span = static_cast<double>(t1 - t0);
  const int plot = kWidth - kLeft - kRight;
  auto x = [&](int64_t t) { return kLeft + plot * (static_cast<double>(std::clamp(t, t0, t1) - t0) / span); };

  int64_t top_qty = 1;
  for (const auto& point : p.remaining) top_qty = std::max(top_qty, point.second);
  auto y = [&](int64_t qty) { return 10 + (kLineHeight - 20) * (1.0 - static_cast<double>(qty) / top_qty); };

  const int rows = static_cast<int>(p.children.size());
  const int height = kLineHeight + rows * kRowHeight + kAxisHeight + 10;
  std::string svg = "<svg class=\"chart\" width=\"" + std::to_string(kWidth) + "\" height=\"" +
                    std::to_string(height) + "\" viewBox=\"0 0 " + std::to_string(kWidth) + " " +
                    std::to_string(height) + "\" role=\"img\">\n";
  svg += "<title>Quantity not yet filled and child orders of " + Html(p.info.level_key) + "</title>\n";

  // Remaining quantity: a step line.
  svg += "<g class=\"remaining\">\n";
  svg += "<line x1=\"" + std::to_string(kLeft) + "\" y1=\"" + Num(y(0)) + "\" x2=\"" + std::to_string(kWidth - kRight) +
         "\" y2=\"" + Num(y(0)) + "\" stroke=\"#bbb\"/>\n";
  svg += "<text x=\"" + std::to_string(kLeft - 6) + "\" y=\"" + Num(y(top_qty) + 4) + "\" text-anchor=\"end\">" +
         std::to_string(top_qty) + "</text>\n";
  svg += "<text x=\"" + std::to_string(kLeft - 6) + "\" y=\"" + Num(y(0) + 4) + "\" text-anchor=\"end\">0</text>\n";
  std::string points;
  for (size_t i = 0; i < p.remaining.size(); ++i) {
    const auto& [t, qty] = p.remaining[i];
    if (i > 0) points += Num(x(t)) + "," + Num(y(p.remaining[i - 1].second)) + " ";
    points += Num(x(t)) + "," + Num(y(qty)) + " ";
  }
  svg += "<polyline fill=\"none\" stroke=\"#263238\" stroke-width=\"2\" points=\"" + points + "\"/>\n</g>\n";

  // Children: one bar each, from send to end.
  svg += "<g class=\"children\">\n";
  for (int i = 0; i < rows; ++i) {
    const ChildSpan& c = p.children[static_cast<size_t>(i)];
    const double top = kLineHeight + i * kRowHeight + 2;
    const double left = x(c.start_ms >= 0 ? c.start_ms : t0);
    const double right = std::max(left + 2, x(c.end_ms >= 0 ? c.end_ms : t1));
    svg += "<rect class=\"child " + c.outcome + (c.final_portion ? " final" : "") + "\" x=\"" + Num(left) + "\" y=\"" +
           Num(top) + "\" width=\"" + Num(right - left) + "\" height=\"" + std::to_string(kRowHeight - 4) +
           "\" fill=\"" + OutcomeColour(c.outcome) + "\"" +
           (c.final_portion ? " stroke=\"#000\" stroke-dasharray=\"3 2\"" : "") + "><title>" + Html(c.level_key) +
           (c.final_portion ? " (final portion)" : "") + " qty " + std::to_string(c.qty) + ", " + c.outcome + ", " +
           FormatSimTime(c.start_ms) + " to " + (c.end_ms >= 0 ? FormatSimTime(c.end_ms) : std::string("the end")) +
           "</title></rect>\n";
    svg += "<text x=\"" + std::to_string(kLeft - 6) + "\" y=\"" + Num(top + kRowHeight - 5) +
           "\" text-anchor=\"end\" class=\"small\">" + Html(c.level_key) + "</text>\n";
  }
  svg += "</g>\n";

  // Time axis.
  const double axis_y = kLineHeight + rows * kRowHeight + 6;
  svg += "<g class=\"axis\">\n<line x1=\"" + std::to_string(kLeft) + "\" y1=\"" + Num(axis_y) + "\" x2=\"" +
         std::to_string(kWidth - kRight) + "\" y2=\"" + Num(axis_y) + "\" stroke=\"#555\"/>\n";
  for (int i = 0; i <= 4; ++i) {
    const int64_t t = t0 + static_cast<int64_t>(span * i / 4);
    const char* anchor = i == 0 ? "start" : i == 4 ? "end" : "middle";
    svg += "<text x=\"" + Num(x(t)) + "\" y=\"" + Num(axis_y + 16) + "\" text-anchor=\"" + anchor +
           "\" class=\"small\">" + FormatSimTime(t) + "</text>\n";
  }
  svg += "</g>\n</svg>\n";
  return svg;
}

}  // namespace

std::string ReportHtml(const RunResult& result) {
  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>slicehost: " + Html(result.name) +
      "</title>\n<style>\n"
      "body{font-family:sans-serif;margin:24px;color:#222}\n"
      "table.summary{border-collapse:collapse;margin:12px 0}\n"
      "table.summary th,table.summary td{border:1px solid #ccc;padding:3px 8px;text-align:right}\n"
      "table.summary th{background:#f0f0f0}\n"
      "svg.chart{display:block;margin:8px 0 24px 0;font-size:11px}\n"
      "svg .small{font-size:9px}\n"
      ".legend span{display:inline-block;width:12px;height:10px;margin:0 4px 0 12px}\n"
      "</style>\n</head>\n<body>\n";
  html += "<h1>" + Html(result.name) + "</h1>\n";
  if (!result.description.empty()) html += "<p class=\"description\">" + Html(result.description) + "</p>\n";
  html += "<p>" + FormatSimTime(result.duration_ms) + " simulated; times are since the start of the scenario.</p>\n";
  html += SummaryTable(result);
  html +=
      "<p class=\"legend\">Children:<span style=\"background:#2e7d32\"></span>filled"
      "<span style=\"background:#ef6c00\"></span>cancelled<span style=\"background:#6a1b9a\"></span>replaced"
      "<span style=\"background:#c62828\"></span>rejected<span style=\"background:#1565c0\"></span>working at the end"
      "; the dashed bar is the parent's final portion. The line is the parent's quantity not yet filled.</p>\n";
  for (const ParentReport& p : result.parents) {
    html += "<section class=\"parent\" id=\"parent-" + Html(p.info.level_key) + "\">\n<h2>" + Html(p.info.level_key) +
            " &middot; " + Html(p.info.slice_id) + " &middot; " +
            Html(p.info.sliced_type != 0 ? SliceKindName(p.info.sliced_type) : std::string("-")) + " &middot; qty " +
            std::to_string(p.info.qty) + "</h2>\n";
    html += Chart(p, result.duration_ms);
    html += "</section>\n";
  }
  return html + "</body>\n</html>\n";
}

bool WriteReport(const std::string& path, const RunResult& result, std::string* error) {
  return WriteFileBytes(path, ReportHtml(result), error);
}

}  // namespace tsm::sim
