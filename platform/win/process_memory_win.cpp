#include <windows.h>
#include <psapi.h>

#include "platform/process_memory.h"

namespace tsm {

int64_t ResidentBytes() {
  PROCESS_MEMORY_COUNTERS counters{};
  counters.cb = sizeof counters;
  if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return 0;
  return static_cast<int64_t>(counters.WorkingSetSize);
}

// The process heap of Windows commits in its own large segments.
void GrowHeapInLargeSteps() {}

}  // namespace tsm
