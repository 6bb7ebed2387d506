// What a record binds to: the automation interface (IDispatch) of an object
// of the base-data component. Declared without <windows.h>.
#pragma once

struct IDispatch;

namespace tsm {
using ComponentObject = ::IDispatch;
}  // namespace tsm
