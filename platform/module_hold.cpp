#include "platform/module_hold.h"

#include <atomic>

namespace tsm {

namespace {
std::atomic<long> g_holds{0};
}

void HoldModule() { ++g_holds; }
void ReleaseModule() { --g_holds; }
long ModuleHolds() { return g_holds.load(); }

}  // namespace tsm
