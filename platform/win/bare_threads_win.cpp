#include <windows.h>

#include <vector>

#include "platform/bare_threads.h"
#include "platform/thread.h"
#include "platform/win/handle_win.h"

namespace tsm {

struct BareThreads::State {
  platform::UniqueHandle go{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  bool release_stack = false;
  std::vector<platform::UniqueHandle> threads;

  static DWORD WINAPI Body(void* arg) {
    auto* state = static_cast<State*>(arg);
    if (state->release_stack) ReleaseStackBelowCaller(8 * 1024);
    WaitForSingleObject(state->go.get(), INFINITE);
    return 0;
  }
};

BareThreads::BareThreads() : state_(std::make_unique<State>()) {}

BareThreads::~BareThreads() { Join(); }

int BareThreads::Start(int count, std::size_t stack_bytes, bool release_stack) {
  state_->release_stack = release_stack;
  const DWORD flags = stack_bytes != 0 ? STACK_SIZE_PARAM_IS_A_RESERVATION : 0;
  int started = 0;
  for (; started < count; ++started) {
    platform::UniqueHandle thread(CreateThread(nullptr, stack_bytes, &State::Body, state_.get(), flags, nullptr));
    if (!thread) break;
    state_->threads.push_back(std::move(thread));
  }
  return started;
}

void BareThreads::Join() {
  SetEvent(state_->go.get());
  for (auto& thread : state_->threads) WaitForSingleObject(thread.get(), INFINITE);
  state_->threads.clear();
  ResetEvent(state_->go.get());
}

}  // namespace tsm
