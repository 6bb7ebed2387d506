// The readable timeline of a run: one line per host call, request and
// simulator event, in simulated time.
//
// Threading: pure functions; no shared state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "slicehost/sim_host.h"

namespace tsm::sim {

// "mm:ss.mmm" (or "h:mm:ss.mmm") of simulated milliseconds.
std::string FormatSimTime(int64_t ms);
// One readable timeline line for an event; empty for the events only
// `verbose` shows (log lines, topic fetches, security-information requests).
std::string TimelineLine(const HostEvent& event, bool verbose);
// `text` padded with spaces to `width` bytes.
std::string Pad(std::string text, size_t width);

}  // namespace tsm::sim
