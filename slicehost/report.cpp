#include "slicehost/report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "data/text.h"
#include "slicehost/parent_summary.h"
#include "slicehost/timeline.h"
#include "slicehost/transcript.h"

namespace tsm::sim {

namespace {

constexpr int kWidth = 1000;       // chart width in pixels
constexpr int kLeft = 90;          // room for the quantity axis and the row labels
constexpr int kRight = 64;       // room for the quantity after a bar
constexpr int kLineHeight = 160;   // the remaining-quantity plot
constexpr int kRowHeight = 20;     // one child bar (or one parent in the overview)
constexpr int kAxisHeight = 48;    // tick labels and the axis title
constexpr int64_t kDayMs = 24LL * 3600 * 1000;

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

// Colours that stay apart for the common kinds of colour blindness (the
// Okabe-Ito set); rejected bars carry a hatch and a cross as well.
const char* OutcomeColour(const std::string& outcome) {
  if (outcome == "filled") return "#0072B2";     // blue
  if (outcome == "cancelled") return "#E69F00";  // orange
  if (outcome == "replaced") return "#CC79A7";   // reddish purple
  if (outcome == "rejected") return "#D55E00";   // vermilion, hatched
  return "#999999";                              // grey: still working at the end of the run
}

// The fill of a bar: rejected ones get the hatch over their colour.
std::string BarFill(const std::string& outcome) {
  return outcome == "rejected" ? "url(#hatch-rejected)" : OutcomeColour(outcome);
}

// How a parent ended, as one of the overview's colour classes.
std::string ParentClass(const ParentReport& p) {
  const std::string outcome = ParentOutcome(p);
  if (outcome.rfind("finished", 0) == 0) return "filled";
  if (outcome.rfind("children replaced", 0) == 0) return "replaced";
  if (outcome.rfind("cancelled", 0) == 0) return "cancelled";
  if (outcome.rfind("final portion transferred", 0) == 0) return "filled";
  if (outcome.rfind("final portion rejected", 0) == 0) return "rejected";
  return "working";
}

// Exchange clock time of day of simulated time `t_ms`, "HH:MM:SS" (with
// milliseconds when `with_ms`).
std::string ClockText(int64_t clock_origin_ms, int64_t t_ms, bool with_ms) {
  const int64_t of_day = ((clock_origin_ms + t_ms) % kDayMs + kDayMs) % kDayMs;
  char buffer[32];
  if (with_ms) {
    std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d.%03d", static_cast<int>(of_day / 3600000),
                  static_cast<int>(of_day / 60000 % 60), static_cast<int>(of_day / 1000 % 60),
                  static_cast<int>(of_day % 1000));
  } else {
    std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d", static_cast<int>(of_day / 3600000),
                  static_cast<int>(of_day / 60000 % 60), static_cast<int>(of_day / 1000 % 60));
  }
  return buffer;
}

// The time axis of one chart: simulated milliseconds [t0, t1] across the
// plot, labelled in exchange clock time at round steps.
class TimeAxis {
 public:
  TimeAxis(int64_t t0, int64_t t1, const RunResult& run)
      : t0_(t0), t1_(std::max(t1, t0 + 1000)), origin_(run.clock_origin_ms), offset_s_(run.time_offset_s) {}

  double X(int64_t t) const {
    const double plot = kWidth - kLeft - kRight;
    return kLeft + plot * static_cast<double>(std::clamp(t, t0_, t1_) - t0_) / static_cast<double>(t1_ - t0_);
  }
  int64_t t0() const { return t0_; }
  int64_t t1() const { return t1_; }

  // The axis line at `y`, ticks at round clock times with their labels,
  // and the title under them.
  std::string Svg(double y) const {
    const int64_t step = Step();
    std::string svg = "<g class=\"axis\">\n<line x1=\"" + std::to_string(kLeft) + "\" y1=\"" + Num(y) + "\" x2=\"" +
                      std::to_string(kWidth - kRight) + "\" y2=\"" + Num(y) + "\" stroke=\"#444\"/>\n";
    // The first tick: the first multiple of the step in clock time.
    const int64_t clock0 = origin_ + t0_;
    int64_t tick = ((clock0 + step - 1) / step) * step - origin_;
    for (; tick <= t1_; tick += step) {
      const double x = X(tick);
      svg += "<line class=\"tick\" x1=\"" + Num(x) + "\" y1=\"" + Num(y) + "\" x2=\"" + Num(x) + "\" y2=\"" +
             Num(y + 5) + "\" stroke=\"#444\"/>\n";
      svg += "<text class=\"tick-label\" x=\"" + Num(x) + "\" y=\"" + Num(y + 19) + "\" text-anchor=\"middle\">" +
             ClockText(origin_, tick, step < 1000) + "</text>\n";
    }
    char zone[32];
    std::snprintf(zone, sizeof zone, "UTC%+03d:%02d", offset_s_ / 3600, std::abs(offset_s_) / 60 % 60);
    svg += "<text class=\"axis-title\" x=\"" + Num(kLeft + (kWidth - kLeft - kRight) / 2.0) + "\" y=\"" +
           Num(y + 38) + "\" text-anchor=\"middle\">exchange time (" + zone + ")</text>\n</g>\n";
    return svg;
  }

 private:
  // The smallest round step that gives at most eight ticks.
  int64_t Step() const {
    static const int64_t kSteps[] = {100,     200,     500,     1000,    2000,     5000,     10000,    15000,
                                     30000,   60000,   120000,  300000,  600000,   900000,   1800000,  3600000,
                                     7200000, 10800000, 21600000, 43200000, 86400000};
    for (int64_t step : kSteps) {
      if ((t1_ - t0_) / step <= 8) return step;
    }
    return kDayMs * ((t1_ - t0_) / kDayMs / 8 + 1);
  }

  int64_t t0_;
  int64_t t1_;
  int64_t origin_;
  int32_t offset_s_;
};

// Shaded stretches in which the parent was held back outside its sessions,
// from `top` over `height`, with their reason on hover and in a label.
std::string ParkedSvg(const ParentReport& p, const TimeAxis& axis, double top, double height, bool label) {
  std::string svg;
  for (const ParkedSpan& park : p.parked) {
    const double left = axis.X(park.start_ms);
    const double right = std::max(left + 2, axis.X(park.end_ms >= 0 ? park.end_ms : axis.t1()));
    const std::string reason = "parked outside its sessions: waiting for the session that opens at " + park.opens_at +
                               " (" + FormatSimTime(park.start_ms) + " to " +
                               (park.end_ms >= 0 ? FormatSimTime(park.end_ms) : std::string("the end")) + ")";
    svg += "<rect class=\"parked\" x=\"" + Num(left) + "\" y=\"" + Num(top) + "\" width=\"" + Num(right - left) +
           "\" height=\"" + Num(height) + "\" fill=\"url(#hatch-parked)\"><title>" + Html(reason) + "</title></rect>\n";
    if (label && right - left > 120) {
      svg += "<text class=\"parked-label\" x=\"" + Num(left + 6) + "\" y=\"" + Num(top + height / 2) + "\">parked until " +
             park.opens_at + "</text>\n";
    }
  }
  return svg;
}

// The hover text of a child's bar: what it was, how it ended, its fills
// and the command that made it.
std::string ChildTitle(const ChildSpan& c) {
  std::string title = Utf8FromWide(c.level_key) + (c.final_portion ? " (final portion)" : "") + ": qty " +
                      std::to_string(c.qty) + ", filled " + std::to_string(c.filled) + ", " + c.outcome + "; " +
                      FormatSimTime(c.start_ms) + " to " +
                      (c.end_ms >= 0 ? FormatSimTime(c.end_ms) : std::string("the end of the run"));
  if (!c.fills.empty()) {
    title += "\nfills:";
    for (const auto& [t, qty] : c.fills) title += " " + std::to_string(qty) + " at " + FormatSimTime(t) + ";";
    title.pop_back();
  }
  if (!c.command.empty()) title += "\n" + Utf8FromWide(c.command);
  return Html(title);
}

std::string SummaryTable(const RunResult& result) {
  std::string out = "<table class=\"summary\">\n<thead><tr>";
  for (const std::string& column : SummaryColumns()) out += "<th>" + Html(column) + "</th>";
  out += "</tr></thead>\n<tbody>\n";
  for (const ParentReport& p : result.parents) {
    const std::vector<std::string> cells = SummaryCells(p);
    // The parent's cell links to its chart.
    out += "<tr><td><a href=\"#parent-" + Html(cells[0]) + "\">" + Html(cells[0]) + "</a></td>";
    for (size_t i = 1; i < cells.size(); ++i) {
      out += (i + 1 == cells.size() ? "<td class=\"outcome\">" : "<td>") + Html(cells[i]) + "</td>";
    }
    out += "</tr>\n";
  }
  return out + "</tbody>\n</table>\n";
}

std::string SvgOpen(const char* css_class, int height, const std::string& title) {
  return "<svg class=\"" + std::string(css_class) + "\" width=\"" + std::to_string(kWidth) + "\" height=\"" +
         std::to_string(height) + "\" viewBox=\"0 0 " + std::to_string(kWidth) + " " + std::to_string(height) +
         "\" role=\"img\">\n<title>" + title + "</title>\n";
}

// All parents on one time axis: a bar each from its start to its end,
// coloured by how it ended, parked stretches shaded.
std::string Overview(const RunResult& result) {
  int64_t t1 = result.duration_ms;
  int64_t t0 = t1;
  for (const ParentReport& p : result.parents) {
    if (!p.remaining.empty()) t0 = std::min(t0, p.remaining.front().first);
  }
  t0 = std::max<int64_t>(0, std::min(t0, t1 - 1000));
  const TimeAxis axis(t0, t1, result);
  const int rows = static_cast<int>(result.parents.size());
  const int height = 10 + rows * kRowHeight + kAxisHeight;
  std::string svg = SvgOpen("overview", height, "All parents on one time axis");
  for (int i = 0; i < rows; ++i) {
    const ParentReport& p = result.parents[static_cast<size_t>(i)];
    const double top = 8 + i * kRowHeight;
    const int64_t start = p.remaining.empty() ? t0 : p.remaining.front().first;
    const double left = axis.X(start);
    const double right = std::max(left + 3, axis.X(p.end_ms >= 0 ? p.end_ms : t1));
    const std::string kind = ParentClass(p);
    const std::string key = Html(p.info.level_key);
    svg += "<a href=\"#parent-" + key + "\"><g class=\"parent-row\">\n";
    svg += "<text class=\"row-label\" x=\"" + std::to_string(kLeft - 8) + "\" y=\"" + Num(top + kRowHeight - 7) +
           "\" text-anchor=\"end\">" + key + "</text>\n";
    svg += "<rect class=\"parent " + kind + "\" x=\"" + Num(left) + "\" y=\"" + Num(top + 2) + "\" width=\"" +
           Num(right - left) + "\" height=\"" + std::to_string(kRowHeight - 6) + "\" fill=\"" + BarFill(kind) +
           "\"><title>" + key + " (" + Html(p.info.sliced_type != 0 ? SliceKindName(p.info.sliced_type) : "-") +
           ", qty " + std::to_string(p.info.qty) + "): " + Html(ParentOutcome(p)) + "</title></rect>\n";
    svg += ParkedSvg(p, axis, top + 2, kRowHeight - 6, false);
    svg += "</g></a>\n";
  }
  svg += axis.Svg(10 + rows * kRowHeight);
  return svg + "</svg>\n";
}

std::string Chart(const ParentReport& p, const RunResult& result) {
  // Time runs from the parent's start to its end (or the end of the run).
  int64_t t0 = p.remaining.empty() ? 0 : p.remaining.front().first;
  int64_t t1 = p.end_ms >= 0 ? p.end_ms : result.duration_ms;
  for (const ChildSpan& c : p.children) {
    if (c.start_ms >= 0) t0 = std::min(t0, c.start_ms);
    t1 = std::max(t1, c.end_ms >= 0 ? c.end_ms : c.start_ms);
  }
  for (const ParkedSpan& park : p.parked) t1 = std::max(t1, park.end_ms);
  const TimeAxis axis(t0, t1, result);

  int64_t top_qty = 1;
  for (const auto& point : p.remaining) top_qty = std::max(top_qty, point.second);
  // The plot's top 24 pixels hold its title.
  auto y = [&](int64_t qty) { return 28 + (kLineHeight - 40) * (1.0 - static_cast<double>(qty) / top_qty); };

  const int rows = static_cast<int>(p.children.size());
  const int height = kLineHeight + rows * kRowHeight + kAxisHeight + 8;
  std::string svg = SvgOpen("chart", height, "Quantity not yet filled and child orders of " + Html(p.info.level_key));
  svg += ParkedSvg(p, axis, 4, kLineHeight + rows * kRowHeight - 2, true);

  // Remaining quantity: a step line.
  svg += "<g class=\"remaining\">\n";
  svg += "<line x1=\"" + std::to_string(kLeft) + "\" y1=\"" + Num(y(0)) + "\" x2=\"" + std::to_string(kWidth - kRight) +
         "\" y2=\"" + Num(y(0)) + "\" stroke=\"#bbb\"/>\n";
  svg += "<text x=\"" + std::to_string(kLeft - 8) + "\" y=\"" + Num(y(top_qty) + 5) + "\" text-anchor=\"end\">" +
         std::to_string(top_qty) + "</text>\n";
  svg += "<text x=\"" + std::to_string(kLeft - 8) + "\" y=\"" + Num(y(0) + 5) + "\" text-anchor=\"end\">0</text>\n";
  svg += "<text class=\"axis-title\" x=\"" + std::to_string(kLeft) + "\" y=\"16\">quantity not yet filled</text>\n";
  std::string points;
  for (size_t i = 0; i < p.remaining.size(); ++i) {
    const auto& [t, qty] = p.remaining[i];
    if (i > 0) points += Num(axis.X(t)) + "," + Num(y(p.remaining[i - 1].second)) + " ";
    points += Num(axis.X(t)) + "," + Num(y(qty)) + " ";
  }
  svg += "<polyline fill=\"none\" stroke=\"#222\" stroke-width=\"2\" points=\"" + points + "\"/>\n</g>\n";

  // Children: one bar each, from send to end, with a tick at every fill.
  svg += "<g class=\"children\">\n";
  for (int i = 0; i < rows; ++i) {
    const ChildSpan& c = p.children[static_cast<size_t>(i)];
    const double top = kLineHeight + i * kRowHeight + 3;
    const double bar = kRowHeight - 6;
    const double left = axis.X(c.start_ms >= 0 ? c.start_ms : axis.t0());
    const double right = std::max(left + 3, axis.X(c.end_ms >= 0 ? c.end_ms : axis.t1()));
    svg += "<g class=\"child-row\"><title>" + ChildTitle(c) + "</title>\n";
    svg += "<rect class=\"child " + c.outcome + (c.final_portion ? " final" : "") + "\" x=\"" + Num(left) +
           "\" y=\"" + Num(top) + "\" width=\"" + Num(right - left) + "\" height=\"" + Num(bar) + "\" fill=\"" +
           BarFill(c.outcome) + "\"" + (c.final_portion ? " stroke=\"#000\" stroke-dasharray=\"4 2\"" : "") +
           "></rect>\n";
    if (c.outcome == "rejected") {
      // A cross at the bar's start: rejected reads without colour.
      const double cx = left + 6;
      const double cy = top + bar / 2;
      svg += "<path class=\"reject-mark\" d=\"M" + Num(cx - 4) + " " + Num(cy - 4) + " L" + Num(cx + 4) + " " +
             Num(cy + 4) + " M" + Num(cx - 4) + " " + Num(cy + 4) + " L" + Num(cx + 4) + " " + Num(cy - 4) +
             "\" stroke=\"#000\" stroke-width=\"2\"/>\n";
    }
    for (const auto& fill : c.fills) {
      const double fx = axis.X(fill.first);
      svg += "<line class=\"fill-mark\" x1=\"" + Num(fx) + "\" y1=\"" + Num(top) + "\" x2=\"" + Num(fx) + "\" y2=\"" +
             Num(top + bar) + "\" stroke=\"#fff\" stroke-width=\"2\"/>\n";
    }
    svg += "<text class=\"row-label\" x=\"" + std::to_string(kLeft - 8) + "\" y=\"" + Num(top + bar - 3) +
           "\" text-anchor=\"end\">" + Html(c.level_key) + "</text>\n";
    svg += "<text class=\"bar-label\" x=\"" + Num(right + 4) + "\" y=\"" + Num(top + bar - 3) + "\">" +
           std::to_string(c.qty) + "</text>\n</g>\n";
  }
  svg += "</g>\n";
  svg += axis.Svg(kLineHeight + rows * kRowHeight + 4);
  return svg + "</svg>\n";
}

// The patterns the charts refer to, defined once for the document.
const char kPatterns[] =
    "<svg width=\"0\" height=\"0\" style=\"position:absolute\" aria-hidden=\"true\"><defs>\n"
    "<pattern id=\"hatch-rejected\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\" "
    "patternTransform=\"rotate(45)\"><rect width=\"6\" height=\"6\" fill=\"#D55E00\"/>"
    "<rect width=\"2\" height=\"6\" fill=\"#000\" fill-opacity=\"0.55\"/></pattern>\n"
    "<pattern id=\"hatch-parked\" width=\"8\" height=\"8\" patternUnits=\"userSpaceOnUse\" "
    "patternTransform=\"rotate(-45)\"><rect width=\"8\" height=\"8\" fill=\"#e8e8e8\"/>"
    "<rect width=\"3\" height=\"8\" fill=\"#c8c8c8\"/></pattern>\n"
    "</defs></svg>\n";

std::string Legend() {
  std::string out = "<p class=\"legend\">Children: ";
  const char* outcomes[] = {"filled", "cancelled", "replaced", "rejected", "working"};
  const char* names[] = {"filled", "cancelled", "replaced", "rejected (hatched, marked &#x2715;)",
                         "still working at the end"};
  for (int i = 0; i < 5; ++i) {
    out += "<svg width=\"18\" height=\"12\"><rect width=\"18\" height=\"12\" fill=\"" + BarFill(outcomes[i]) +
           "\"/></svg> " + names[i] + " &nbsp; ";
  }
  out += "<svg width=\"18\" height=\"12\"><rect width=\"18\" height=\"12\" fill=\"url(#hatch-parked)\"/></svg> "
         "parked outside its sessions. The dashed bar is the parent's final portion, white ticks are fills, the "
         "number after a bar its quantity; hover over a bar for its fills and command. The line is the parent's "
         "quantity not yet filled.</p>\n";
  return out;
}

}  // namespace

std::string ReportHtml(const RunResult& result) {
  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>slicehost: " + Html(result.name) +
      "</title>\n<style>\n"
      "body{font-family:sans-serif;font-size:15px;margin:24px;color:#222}\n"
      "table.summary{border-collapse:collapse;margin:12px 0;font-size:14px}\n"
      "table.summary th,table.summary td{border:1px solid #ccc;padding:3px 8px;text-align:right}\n"
      "table.summary td.outcome{text-align:left}\n"
      "table.summary th{background:#f0f0f0}\n"
      "svg.chart,svg.overview{display:block;margin:8px 0 24px 0;font-size:13px}\n"
      "svg .tick-label,svg .row-label,svg .bar-label{font-size:12px}\n"
      "svg .axis-title{font-size:13px;fill:#444}\n"
      "svg .parked-label{font-size:12px;fill:#555;font-style:italic}\n"
      "svg a:hover rect{stroke:#000}\n"
      "p.outcome{font-weight:bold}\n"
      ".legend svg{vertical-align:middle}\n"
      "</style>\n</head>\n<body>\n";
  html += kPatterns;
  html += "<h1>" + Html(result.name) + "</h1>\n";
  if (!result.description.empty()) html += "<p class=\"description\">" + Html(result.description) + "</p>\n";
  html += "<p>" + FormatSimTime(result.duration_ms) + " simulated from " +
          ClockText(result.clock_origin_ms, 0, false) +
          " exchange time; the table's times are since the start of the scenario, the charts' in exchange time.</p>\n";
  html += SummaryTable(result);
  html += Legend();
  html += "<section class=\"overview\">\n<h2>All parents</h2>\n" + Overview(result) + "</section>\n";
  for (const ParentReport& p : result.parents) {
    html += "<section class=\"parent\" id=\"parent-" + Html(p.info.level_key) + "\">\n<h2>" + Html(p.info.level_key) +
            " &middot; " + Html(p.info.slice_id) + " &middot; " +
            Html(p.info.sliced_type != 0 ? SliceKindName(p.info.sliced_type) : std::string("-")) + " &middot; qty " +
            std::to_string(p.info.qty) + "</h2>\n";
    html += "<p class=\"outcome\">" + Html(ParentOutcome(p)) + "; filled " + std::to_string(p.account.qty_filled) +
            ", cancelled " + std::to_string(p.qty_cancelled) + "</p>\n";
    html += Chart(p, result);
    html += "</section>\n";
  }
  return html + "</body>\n</html>\n";
}

bool WriteReport(const std::string& path, const RunResult& result, std::string* error) {
  return WriteFileBytes(path, ReportHtml(result), error);
}

}  // namespace tsm::sim
