#include <atomic>

#include "platform/module_hold.h"
#include "platform/thread.h"

namespace tsm {

namespace platform {
uint32_t StartNativeThread(std::function<void()>* body, std::size_t stack_bytes);
}

namespace {
std::atomic<uint32_t> g_forced_failure{0};
}

void SetThreadStartFailureForTesting(uint32_t error_code) { g_forced_failure = error_code; }

uint32_t StartThread(std::function<void()> body, std::size_t stack_bytes) {
  if (const uint32_t forced = g_forced_failure.load()) return forced;
  auto* heap_body = new std::function<void()>(std::move(body));
  // Held from before the thread exists; the thread itself lets go as the
  // last thing it does (platform/<os>/thread_<os>.cpp).
  HoldModule();
  const uint32_t error = platform::StartNativeThread(heap_body, stack_bytes);
  if (error != 0) {
    ReleaseModule();
    delete heap_body;
  }
  return error;
}

}  // namespace tsm
