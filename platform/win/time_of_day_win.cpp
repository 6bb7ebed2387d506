#include <time.h>

#include "platform/time_of_day.h"

namespace tsm::platform {

bool GmTime(int64_t seconds, std::tm* out) {
  const __time64_t t = seconds;
  return _gmtime64_s(out, &t) == 0;
}

bool LocalTime(int64_t seconds, std::tm* out) {
  const __time64_t t = seconds;
  return _localtime64_s(out, &t) == 0;
}

int64_t MkTimeLocal(std::tm* in) { return static_cast<int64_t>(_mktime64(in)); }

}  // namespace tsm::platform
