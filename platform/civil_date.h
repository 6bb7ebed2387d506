// Calendar arithmetic that needs no C library and no time zone: the days of
// a date in the proleptic Gregorian calendar (H. Hinnant's days_from_civil).
// Pure functions; thread-safe.
#pragma once

#include <cstdint>

namespace tsm::platform {

// Days from 1970-01-01 to year-month-day (month 1..12).
int64_t DaysFromCivil(int64_t year, int64_t month, int64_t day);

}  // namespace tsm::platform
