#include <malloc.h>
#include <unistd.h>

#include <cstdio>

#include "platform/process_memory.h"

namespace tsm {

int64_t ResidentBytes() {
  // statm: total and resident sizes, in pages.
  std::FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr) return 0;
  long long total_pages = 0;
  long long resident_pages = 0;
  const int read = std::fscanf(statm, "%lld %lld", &total_pages, &resident_pages);
  std::fclose(statm);
  if (read != 2) return 0;
  return static_cast<int64_t>(resident_pages) * sysconf(_SC_PAGESIZE);
}

void GrowHeapInLargeSteps() {
  // Address space only: pages are still committed when first touched.
  constexpr int kTopPadBytes = 64 << 20;
  mallopt(M_TOP_PAD, kTopPadBytes);
}

}  // namespace tsm
