// Hands a test's object of the base-data component to
// `CBaseData::Initialize`: the interface that records bind to on this
// platform, held for the full expression (the record takes its own
// reference).
#pragma once

#include "data/dispatch_driver.h"
#include "basedata/base_data_binding.h"

namespace tsm {

class BindingOf {
 public:
  explicit BindingOf(IBaseData* object) { holder_.AttachDispatch(TsmComponentObject(object), false); }
  operator ComponentObject*() const { return holder_.dispatch(); }

 private:
  COleDispatchDriver holder_;
};

}  // namespace tsm
