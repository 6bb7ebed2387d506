// The manager core's host events turned into IDispatch::Invoke on the sinks
// of the object's _INordaManagerEvents point: each raise passes its
// arguments in DISPPARAMS order (last first), `SendTopic`'s data by
// reference, and hands back the last sink's result as the core expects it.
// A text argument that cannot be allocated makes the raise fail with
// E_OUTOFMEMORY before any sink is called.
//
// Threading: raised from any of the core's threads; see SinkPoint.
#pragma once

#include <string>

#include "module/win/sink_point.h"
#include "tradeslice/host_api.h"

namespace tsm::module {

// Lives inside whatever holds its point (the COM object's counted host
// events), whose count is the one that matters: AddRef and Release here do
// nothing.
class EventBridge final : public tsm::INordaManagerEvents {
 public:
  explicit EventBridge(SinkPoint* point) : point_(point) {}

  uint32_t AddRef() override { return 1; }
  uint32_t Release() override { return 1; }
  HResult RegisterTopic(const std::wstring& topic, Variant* result) override;
  HResult GetTopicData(const std::wstring& topic, Variant* result) override;
  HResult SendTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                    Variant* data, Variant* result) override;
  HResult WriteLog(const std::wstring& line) override;

 private:
  HResult RaiseOneText(DISPID dispid, const std::wstring& topic, Variant* result);

  SinkPoint* point_;
};

}  // namespace tsm::module
