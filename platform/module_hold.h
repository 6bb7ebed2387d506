// What keeps this module's code in use besides its objects: every thread the
// module starts, from before it exists until it has left the module's code,
// and every callback that can outlive the object it was made for. The module
// may be unloaded only while nothing holds it (on Windows, DllCanUnloadNow
// asks).
//
// Threading: the count is atomic; any thread.
#pragma once

namespace tsm {

void HoldModule();
void ReleaseModule();
// Holds taken and not yet released.
long ModuleHolds();

// One hold for the life of its owner.
class ModuleHold {
 public:
  ModuleHold() { HoldModule(); }
  ~ModuleHold() { ReleaseModule(); }
  ModuleHold(const ModuleHold&) = delete;
  ModuleHold& operator=(const ModuleHold&) = delete;
};

}  // namespace tsm
