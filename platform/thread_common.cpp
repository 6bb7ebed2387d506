#include <atomic>

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
  const uint32_t error = platform::StartNativeThread(heap_body, stack_bytes);
  if (error != 0) delete heap_body;
  return error;
}

}  // namespace tsm
