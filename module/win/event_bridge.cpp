#include "module/win/event_bridge.h"

#include <oleauto.h>

#include "platform/win/com_win.h"

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
  UniqueBstr topic_text(topic);
  UniqueBstr text_text(text);
  if (topic_text.get() == nullptr || text_text.get() == nullptr) return E_OUTOFMEMORY;
  UniqueVariant data_value;
  if (data != nullptr && FAILED(platform::ToVariant(*data, data_value.get()))) return E_OUTOFMEMORY;
  VARIANT args[5];
  args[4].vt = VT_BSTR;
  args[4].bstrVal = topic_text.get();
  args[3].vt = VT_I4;
  args[3].lVal = param1;
  args[2].vt = VT_I4;
  args[2].lVal = param2;
  args[1].vt = VT_BSTR;
  args[1].bstrVal = text_text.get();
  args[0].vt = VT_VARIANT | VT_BYREF;
  args[0].pvarVal = data_value.get();
  DISPPARAMS params{args, nullptr, 5, 0};
  UniqueVariant answer;
  const HRESULT code = point_->Raise(tsm::INordaManagerEvents::kDispidSendTopic, &params, answer.get());
  if (data != nullptr) *data = platform::FromVariant(data_value.value());
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
