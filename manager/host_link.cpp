#include "manager/host_link.h"

namespace tsm {

CProxy_INordaManagerEvents::~CProxy_INordaManagerEvents() {
  for (const Connection& c : connections_) c.sink->Release();
}

HResult CProxy_INordaManagerEvents::AdviseSink(INordaManagerEvents* sink, uint32_t* cookie) {
  if (sink == nullptr || cookie == nullptr) return kE_INVALIDARG;
  sink->AddRef();
  ScopedLock<CCriticalSection> guard(m_csObject);
  *cookie = next_cookie_++;
  connections_.push_back({*cookie, sink});
  return kS_OK;
}

HResult CProxy_INordaManagerEvents::UnadviseSink(uint32_t cookie) {
  INordaManagerEvents* released = nullptr;
  {
    ScopedLock<CCriticalSection> guard(m_csObject);
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
      if (it->cookie == cookie) {
        released = it->sink;
        connections_.erase(it);
        break;
      }
    }
  }
  if (released == nullptr) return kE_INVALIDARG;
  released->Release();
  return kS_OK;
}

INordaManagerEvents* CProxy_INordaManagerEvents::SinkAt(std::size_t index, bool* last) {
  ScopedLock<CCriticalSection> guard(m_csObject);
  if (index >= connections_.size()) return nullptr;
  INordaManagerEvents* sink = connections_[index].sink;
  sink->AddRef();
  *last = index + 1 == connections_.size();
  return sink;
}

namespace {
// Calls `raise` on every advised sink, outside the lock; the result of the
// last one called wins. The list is looked at once per sink, so a raise with
// one sink takes the lock once.
template <typename Raise>
HResult RaiseToAll(CProxy_INordaManagerEvents* proxy,
                   INordaManagerEvents* (CProxy_INordaManagerEvents::*sink_at)(std::size_t, bool*), Raise raise) {
  HResult result = kS_OK;
  bool last = false;
  for (std::size_t i = 0; !last; ++i) {
    INordaManagerEvents* sink = (proxy->*sink_at)(i, &last);
    if (sink == nullptr) break;
    result = raise(sink);
    sink->Release();
  }
  return result;
}
}  // namespace

HResult CProxy_INordaManagerEvents::Fire_RegisterTopic(const std::wstring& topic, Variant* result) {
  Variant last;
  const HResult hr = RaiseToAll(this, &CProxy_INordaManagerEvents::SinkAt, [&](INordaManagerEvents* sink) {
    last.Clear();
    return sink->RegisterTopic(topic, &last);
  });
  if (result != nullptr) *result = last;
  return hr;
}

uint32_t CProxy_INordaManagerEvents::Fire_GetTopicData(const std::wstring& topic) {
  Variant last;
  const HResult hr = RaiseToAll(this, &CProxy_INordaManagerEvents::SinkAt, [&](INordaManagerEvents* sink) {
    last.Clear();
    return sink->GetTopicData(topic, &last);
  });
  if (hr < 0 || last.type() != VarType::I4) return 0;
  return static_cast<uint32_t>(last.i4());
}

HResult CProxy_INordaManagerEvents::Fire_SendTopic(const std::wstring& topic, int32_t param1, int32_t param2,
                                                   const std::wstring& text, Variant* data, Variant* result) {
  Variant last;
  const HResult hr = RaiseToAll(this, &CProxy_INordaManagerEvents::SinkAt, [&](INordaManagerEvents* sink) {
    last.Clear();
    return sink->SendTopic(topic, param1, param2, text, data, &last);
  });
  if (result != nullptr) *result = last;
  return hr;
}

HResult CProxy_INordaManagerEvents::Fire_WriteLog(const std::wstring& line) {
  return RaiseToAll(this, &CProxy_INordaManagerEvents::SinkAt,
                    [&](INordaManagerEvents* sink) { return sink->WriteLog(line); });
}

}  // namespace tsm
