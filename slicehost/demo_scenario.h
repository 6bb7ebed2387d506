// The scenario `slicehost demo` plays, embedded in the program.
#pragma once

#include <string>

namespace tsm::sim {

// The embedded demo scenario (JSON).
const std::string& DemoScenarioJson();

}  // namespace tsm::sim
