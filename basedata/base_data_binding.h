// How an object of the base-data component is handed to a record
// (`CBaseData::Initialize`): as its automation interface where the platform
// has COM, as the object itself elsewhere (see os/component_object.h).
#pragma once

#include "os/component_object.h"
#include "tradeslice/base_data_api.h"
#include "tradeslice/export.h"

namespace tsm {

extern "C" {

// The interface of `object` that records bind to, with a reference for the
// caller; null for a null object.
TSM_BASEDATA_API ComponentObject* TsmComponentObject(IBaseData* object);

}  // extern "C"

}  // namespace tsm
