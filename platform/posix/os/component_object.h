// What a record binds to: an object of the in-process component itself.
#pragma once

#include "tradeslice/base_data_api.h"

namespace tsm {
using ComponentObject = IBaseData;
}  // namespace tsm
