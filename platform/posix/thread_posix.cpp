#include <limits.h>
#include <pthread.h>

#include <functional>
#include <memory>

#include "platform/module_hold.h"
#include "platform/thread.h"

namespace tsm {

namespace platform {

namespace {
void* ThreadEntry(void* arg) {
  {
    std::unique_ptr<std::function<void()>> body(static_cast<std::function<void()>*>(arg));
    (*body)();
  }
  ReleaseModule();
  return nullptr;
}
}  // namespace

uint32_t StartNativeThread(std::function<void()>* body, std::size_t stack_bytes) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  if (stack_bytes > 0) {
    pthread_attr_setstacksize(&attr, stack_bytes < static_cast<std::size_t>(PTHREAD_STACK_MIN) ? static_cast<std::size_t>(PTHREAD_STACK_MIN) : stack_bytes);
  }
  pthread_t thread;
  const int error = pthread_create(&thread, &attr, &ThreadEntry, body);
  pthread_attr_destroy(&attr);
  return static_cast<uint32_t>(error);
}

}  // namespace platform

// glibc starts a thread near the top of a fresh stack and touches nothing
// deeper (8.8 KiB resident per waiting timer thread): nothing to give back.
void ReleaseStackBelowCaller(std::size_t /*keep_bytes*/) {}

ComApartment::ComApartment() = default;
ComApartment::~ComApartment() = default;

}  // namespace tsm
