// The keys of field reads that the component makes itself, for the records
// of this process where there is no COM (a record there calls the objects
// directly, so a key reaches the object as the very variant handed out).
#pragma once

#include <cstddef>

#include "tradeslice/export.h"
#include "tradeslice/variant.h"

namespace tsm {

extern "C" {

// The key of the field `name` (`length` characters): a text variant that
// lives as long as the process and that objects of this library recognise
// by its address, so a read or write keyed by it finds the field without
// hashing or comparing the name. Null for a null name.
TSM_BASEDATA_API const Variant* TsmFieldKey(const wchar_t* name, std::size_t length);

}  // extern "C"

}  // namespace tsm
