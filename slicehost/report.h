// The HTML report of a run: one self-contained file (inline SVG and CSS, no
// script, nothing fetched from a network) with the summary table and, per
// parent, a chart of the quantity not yet filled over time with each child
// drawn as a bar from its send to its end, coloured by how it ended.
//
// Threading: pure functions; no shared state.
#pragma once

#include <string>

#include "slicehost/run_result.h"

namespace tsm::sim {

// The whole HTML document.
std::string ReportHtml(const RunResult& result);

// Writes ReportHtml to `path`; false with `error` set when it cannot.
bool WriteReport(const std::string& path, const RunResult& result, std::string* error);

}  // namespace tsm::sim
