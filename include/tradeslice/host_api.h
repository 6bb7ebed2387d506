// What a host compiles against to load the slice manager: the manager's
// inbound interface `INordaManager`, the host's outgoing event interface
// `INordaManagerEvents` that the manager raises, and the factory export.
//
// The methods mirror the platform's automation interfaces: same methods, same
// argument order, VARIANT-like data by reference, COM result codes.
//
// Threading: `SetStage` and `SetTopic` are called on the host's thread;
// "ORDERSET.LOCK" and "ORDERSET.UNLOCK" must arrive on one thread. The
// manager raises events on any of its threads (host, timer, data-event and
// worker threads); a sink must accept calls from all of them.
#pragma once

#include <cstdint>
#include <string>

#include "tradeslice/base_data_api.h"
#include "tradeslice/clock.h"
#include "tradeslice/export.h"
#include "tradeslice/variant.h"

namespace tsm {

// The host's event interface, raised by the manager (DISPIDs as the host's
// type library numbers them).
class INordaManagerEvents : public IRefCounted {
 public:
  static constexpr int32_t kDispidRegisterTopic = 2;
  static constexpr int32_t kDispidGetTopicData = 4;
  static constexpr int32_t kDispidSendTopic = 5;
  static constexpr int32_t kDispidWriteLog = 7;

  virtual HResult RegisterTopic(const std::wstring& topic, Variant* result) = 0;
  // The host's record for `topic`: an interface-table cookie as VT_I4.
  virtual HResult GetTopicData(const std::wstring& topic, Variant* result) = 0;
  virtual HResult SendTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                            Variant* data, Variant* result) = 0;
  virtual HResult WriteLog(const std::wstring& line) = 0;

 protected:
  ~INordaManagerEvents() = default;
};

// The manager as the host sees it.
class INordaManager : public IRefCounted {
 public:
  // kind 1: stage 1 registers topics, 2 starts, 4 stops. Always S_OK.
  virtual HResult SetStage(int32_t kind, int32_t stage) = 0;
  // Delivers a topic; a record travels as an interface-table cookie in a
  // VT_I4 `data`. Always S_OK.
  virtual HResult SetTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                           Variant* data) = 0;
  // The connection point of INordaManagerEvents. Advise takes a reference.
  virtual HResult Advise(INordaManagerEvents* sink, uint32_t* cookie) = 0;
  virtual HResult Unadvise(uint32_t cookie) = 0;

 protected:
  ~INordaManager() = default;
};

extern "C" {

// Creates the manager with one reference for the caller. `clock` (may be
// null: the wall clock) must outlive the manager.
TSM_COMPONENT_API HResult TsmCreateTradeSliceManager(IClock* clock, INordaManager** manager);

}  // extern "C"

}  // namespace tsm
