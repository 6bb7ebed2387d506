// Calendar conversions of the C runtime, behind the platform seam
// (gmtime_r/localtime_r/mktime on POSIX, _gmtime64_s/_localtime64_s/_mktime64
// on Windows). Thread-safe.
#pragma once

#include <cstdint>
#include <ctime>

namespace tsm::platform {

bool GmTime(int64_t seconds, std::tm* out);
bool LocalTime(int64_t seconds, std::tm* out);
int64_t MkTimeLocal(std::tm* in);

}  // namespace tsm::platform
