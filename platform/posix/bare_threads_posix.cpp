#include <limits.h>
#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "platform/bare_threads.h"
#include "platform/thread.h"

namespace tsm {

struct BareThreads::State {
  std::mutex lock;  // guards go
  std::condition_variable changed;
  bool go = false;
  bool release_stack = false;
  std::vector<pthread_t> threads;

  static void* Body(void* arg) {
    auto* state = static_cast<State*>(arg);
    if (state->release_stack) ReleaseStackBelowCaller(8 * 1024);
    std::unique_lock<std::mutex> guard(state->lock);
    state->changed.wait(guard, [state] { return state->go; });
    return nullptr;
  }
};

BareThreads::BareThreads() : state_(std::make_unique<State>()) {}

BareThreads::~BareThreads() { Join(); }

int BareThreads::Start(int count, std::size_t stack_bytes, bool release_stack) {
  state_->release_stack = release_stack;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  if (stack_bytes != 0) {
    pthread_attr_setstacksize(&attr, stack_bytes < static_cast<std::size_t>(PTHREAD_STACK_MIN)
                                         ? static_cast<std::size_t>(PTHREAD_STACK_MIN)
                                         : stack_bytes);
  }
  int started = 0;
  for (; started < count; ++started) {
    pthread_t thread;
    if (pthread_create(&thread, &attr, &State::Body, state_.get()) != 0) break;
    state_->threads.push_back(thread);
  }
  pthread_attr_destroy(&attr);
  return started;
}

void BareThreads::Join() {
  {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->go = true;
  }
  state_->changed.notify_all();
  for (pthread_t thread : state_->threads) pthread_join(thread, nullptr);
  state_->threads.clear();
  std::lock_guard<std::mutex> guard(state_->lock);
  state_->go = false;
}

}  // namespace tsm
