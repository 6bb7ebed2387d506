#include <time.h>

#include "platform/time_of_day.h"

namespace tsm::platform {

bool GmTime(int64_t seconds, std::tm* out) {
  const time_t t = static_cast<time_t>(seconds);
  return seconds >= 0 && gmtime_r(&t, out) != nullptr;
}

bool LocalTime(int64_t seconds, std::tm* out) {
  const time_t t = static_cast<time_t>(seconds);
  return seconds >= 0 && localtime_r(&t, out) != nullptr;
}

int64_t MkTimeLocal(std::tm* in) { return static_cast<int64_t>(mktime(in)); }

}  // namespace tsm::platform
