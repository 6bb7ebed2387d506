#include <mutex>

#include "platform/system_text.h"

namespace tsm {

namespace platform {
void ShowNativeFailureMessage(const std::wstring& text);
}

namespace {
std::mutex g_sink_lock;  // guards g_sink
std::function<void(const std::wstring&)>* g_sink = nullptr;
}  // namespace

void SetFailureMessageSinkForTesting(std::function<void(const std::wstring&)> sink) {
  std::lock_guard<std::mutex> guard(g_sink_lock);
  delete g_sink;
  g_sink = sink ? new std::function<void(const std::wstring&)>(std::move(sink)) : nullptr;
}

void ShowFailureMessage(const std::wstring& text) {
  {
    std::lock_guard<std::mutex> guard(g_sink_lock);
    if (g_sink != nullptr) {
      (*g_sink)(text);
      return;
    }
  }
  platform::ShowNativeFailureMessage(text);
}

}  // namespace tsm
