#include "module/win/event_bridge.h"

#include <oleauto.h>

#include "platform/win/com_win.h"
#include "platform/win/topic_arguments_win.h"

namespace tsm::module {

using platform::UniqueBstr;
using platform::UniqueVariant;

HResult EventBridge::RegisterTopic(const std::wstring& topic, Variant* result) {
  return RaiseOneText(tsm::INordaManagerEvents::kDispidRegisterTopic, topic, result);
}

HResult EventBridge::GetTopicData(const std::wstring& topic, Variant* result) {
  return RaiseOneText(tsm::INordaManagerEvents::kDispidGetTopicData, topic, result);
}

HResult EventBridge::SendTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                               Variant* data, Variant* result) {
  platform::TopicArguments arguments(topic, param1, param2, text, data);
  if (!arguments.ok()) return E_OUTOFMEMORY;
  UniqueVariant answer;
  const HRESULT code = point_->Raise(tsm::INordaManagerEvents::kDispidSendTopic, arguments.params(), answer.get());
  if (data != nullptr) *data = platform::FromVariant(arguments.data());
  if (result != nullptr) *result = platform::FromVariant(answer.value());
  return code;
}

HResult EventBridge::WriteLog(const std::wstring& line) {
  return RaiseOneText(tsm::INordaManagerEvents::kDispidWriteLog, line, nullptr);
}

HResult EventBridge::RaiseOneText(DISPID dispid, const std::wstring& topic, Variant* result) {
  UniqueBstr text(topic);
  if (text.get() == nullptr) return E_OUTOFMEMORY;
  VARIANT arg;
  arg.vt = VT_BSTR;
  arg.bstrVal = text.get();
  DISPPARAMS params{&arg, nullptr, 1, 0};
  UniqueVariant answer;
  const HRESULT code = point_->Raise(dispid, &params, answer.get());
  if (result != nullptr) *result = platform::FromVariant(answer.value());
  return code;
}

}  // namespace tsm::module
