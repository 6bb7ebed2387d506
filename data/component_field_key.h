// The component's own keys of field reads, where it offers them (see
// ComponentFieldKey). Implemented beside the driver of each platform.
#pragma once

#include <string_view>

#include "tradeslice/variant.h"

namespace tsm {

// The key of reads of the field `name` that the linked component made and
// keeps for the life of the process: its objects find the field by the key's
// address instead of hashing and comparing the name. Null where the
// component's objects are reached through a copy of the key (COM), or it
// offers none.
const Variant* ComponentFieldKey(std::wstring_view name);

}  // namespace tsm
