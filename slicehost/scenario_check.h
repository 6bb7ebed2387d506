// Warnings for a scenario that is well-formed but probably not what its
// writer meant: texts the manager will misread, parents it will ignore or
// send whole, quantities that do not fit its 32-bit fields, steps naming
// nothing, sessions the run never reaches. A run goes on after them;
// `slicehost check` prints them without running.
//
// Threading: pure functions; no shared state.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "slicehost/scenario.h"

namespace tsm::sim {

struct ScenarioWarning {
  std::string where;  // JSON pointer of the member concerned
  std::string text;   // what is doubtful and what the manager will do
};

// The warnings of `scenario`, in file order (members, then steps).
std::vector<ScenarioWarning> CheckScenario(const Scenario& scenario);

// "FILE: at POINTER: warning: TEXT", the line printed on standard error.
std::string WarningLine(const Scenario& scenario, const ScenarioWarning& warning);

// True when `sessions` is "HH:MM~HH:MM" joined by ";", each opening before
// it closes; the minutes of the day of each session in `out` (may be null).
bool ParseSessions(const std::wstring& sessions, std::vector<std::pair<int, int>>* out);

}  // namespace tsm::sim
