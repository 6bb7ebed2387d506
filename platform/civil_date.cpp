#include "platform/civil_date.h"

namespace tsm::platform {

int64_t DaysFromCivil(int64_t year, int64_t month, int64_t day) {
  // Years start in March, so that the leap day ends one.
  const int64_t y = year - (month <= 2 ? 1 : 0);
  const int64_t m = (month + 9) % 12;  // March = 0
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * m + 2) / 5 + day - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

}  // namespace tsm::platform
