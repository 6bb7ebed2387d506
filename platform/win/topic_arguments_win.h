// The five arguments of a topic call through IDispatch (the host's SetTopic,
// the sink's SendTopic): topic, param1, param2, text and the data by
// reference, laid out in DISPPARAMS order (last argument first). The object
// owns the texts and the data the arguments point at; it stays in place.
#pragma once

#include <oleauto.h>

#include <cstdint>
#include <string>

#include "platform/win/com_win.h"

namespace tsm::platform {

class TopicArguments {
 public:
  TopicArguments(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                 const Variant* data)
      : topic_(topic), text_(text) {
    ok_ = topic_.get() != nullptr && text_.get() != nullptr &&
          (data == nullptr || SUCCEEDED(ToVariant(*data, data_.get())));
    args_[4].vt = VT_BSTR;
    args_[4].bstrVal = topic_.get();
    args_[3].vt = VT_I4;
    args_[3].lVal = param1;
    args_[2].vt = VT_I4;
    args_[2].lVal = param2;
    args_[1].vt = VT_BSTR;
    args_[1].bstrVal = text_.get();
    args_[0].vt = VT_VARIANT | VT_BYREF;
    args_[0].pvarVal = data_.get();
  }
  TopicArguments(const TopicArguments&) = delete;
  TopicArguments& operator=(const TopicArguments&) = delete;

  // False when a text or the data could not be allocated (E_OUTOFMEMORY).
  bool ok() const { return ok_; }
  DISPPARAMS* params() { return &params_; }
  // The data as the callee left it.
  const VARIANT& data() const { return data_.value(); }

 private:
  UniqueBstr topic_;
  UniqueBstr text_;
  UniqueVariant data_;
  bool ok_ = false;
  VARIANT args_[5];
  DISPPARAMS params_{args_, nullptr, 5, 0};
};

}  // namespace tsm::platform
