// `CProxy_INordaManagerEvents`: the connection point through which the
// manager raises the host's four events. Every raise calls each advised sink
// in turn (a sink is copied out of the list under the object-level critical
// section and called outside it) and returns the result of the last sink
// called, or 0 when none is advised.
//
// Threading: Advise/Unadvise and every raise may come from any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/sync.h"
#include "tradeslice/host_api.h"

namespace tsm {

class CProxy_INordaManagerEvents {
 public:
  CProxy_INordaManagerEvents() = default;
  virtual ~CProxy_INordaManagerEvents();
  CProxy_INordaManagerEvents(const CProxy_INordaManagerEvents&) = delete;
  CProxy_INordaManagerEvents& operator=(const CProxy_INordaManagerEvents&) = delete;

  HResult AdviseSink(INordaManagerEvents* sink, uint32_t* cookie);
  HResult UnadviseSink(uint32_t cookie);

  // DISPID 2: the VT_I4 result of the last sink, or empty.
  HResult Fire_RegisterTopic(const std::wstring& topic, Variant* result);
  // DISPID 4: the host's record cookie; 0 when the result is not VT_I4.
  uint32_t Fire_GetTopicData(const std::wstring& topic);
  // DISPID 5: the last sink's whole result variant.
  HResult Fire_SendTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                         Variant* data, Variant* result);
  // DISPID 7.
  HResult Fire_WriteLog(const std::wstring& line);

 private:
  struct Connection {
    uint32_t cookie;
    INordaManagerEvents* sink;  // owned reference
  };
  // Hands out the sink at `index` with a reference the caller releases, or
  // null past the end; `last` tells whether it is the last one advised.
  INordaManagerEvents* SinkAt(std::size_t index, bool* last);

  CCriticalSection m_csObject;  // guards connections_ and next_cookie_
  std::vector<Connection> connections_;
  uint32_t next_cookie_ = 1;
};

}  // namespace tsm
