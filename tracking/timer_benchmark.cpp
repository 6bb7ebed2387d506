// Timer service on the wall clock: how late callbacks come, and what 2,000
// armed timers cost to arm and to keep, beside what 2,000 bare threads cost.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "platform/bare_threads.h"
#include "platform/process_memory.h"
#include "tracking/timer.h"

namespace tsm {
namespace {

int64_t NowUs() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

double Percentile(std::vector<int64_t> values, double fraction) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const auto index = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
  return static_cast<double>(values[index]);
}

// What both lateness runs share: eight timers, each taking its samples, and
// the lateness of each sample.
struct LatenessSamples {
  static constexpr unsigned kTimers = 8;

  CTimer* timer = nullptr;
  int interval_ms = 0;
  int samples_per_timer = 0;
  std::mutex lock;  // guards everything below
  std::condition_variable all_done;
  int64_t armed_at_us[kTimers] = {};
  int taken[kTimers] = {};
  unsigned finished = 0;
  std::vector<int64_t> lateness_us;
};

// Several timers used as the slice manager uses them: every expiry stops its
// timer and arms the same id again, so each sample is one arming's lateness
// (thread start included) behind "armed + interval".
struct LatenessRun : LatenessSamples {
  static void OnTick(unsigned id, void* context) {
    auto* self = static_cast<LatenessRun*>(context);
    const int64_t now = NowUs();
    self->timer->StopTimer(id);
    const unsigned slot = id - 1;
    bool again = false;
    {
      std::lock_guard<std::mutex> guard(self->lock);
      self->lateness_us.push_back(now - self->armed_at_us[slot] - self->interval_ms * int64_t{1000});
      again = ++self->taken[slot] < self->samples_per_timer;
      if (again) {
        self->armed_at_us[slot] = NowUs();
      } else if (++self->finished == kTimers) {
        self->all_done.notify_all();
      }
    }
    if (again) self->timer->StartTimer(id, self->interval_ms, &LatenessRun::OnTick, self);
  }
};

// The same timers left running: every expiry's distance past the latest slot
// of the "armed + k * interval" grid (the grid starts when StartTimer is
// called, so the one thread start is in every sample). Without a thread start
// per expiry, this is the wake-up latency; lateness of a whole interval or
// more would fold back, and shows as a drop in `samples` per second instead.
struct PeriodicRun : LatenessSamples {
  static void OnTick(unsigned id, void* context) {
    auto* self = static_cast<PeriodicRun*>(context);
    const int64_t now = NowUs();
    const unsigned slot = id - 1;
    std::lock_guard<std::mutex> guard(self->lock);
    if (self->taken[slot] >= self->samples_per_timer) return;
    const int64_t interval_us = self->interval_ms * int64_t{1000};
    const int64_t since_armed = now - self->armed_at_us[slot];
    self->lateness_us.push_back(since_armed % interval_us);
    if (++self->taken[slot] == self->samples_per_timer && ++self->finished == kTimers) self->all_done.notify_all();
  }
};

template <typename Run>
void MeasureLateness(benchmark::State& state) {
  const int interval_ms = static_cast<int>(state.range(0));
  std::vector<int64_t> all;
  for (auto _ : state) {
    CTimer timer;
    Run run;
    run.timer = &timer;
    run.interval_ms = interval_ms;
    // About three seconds of expiries whatever the interval.
    run.samples_per_timer = std::max(20, 3000 / interval_ms);
    for (unsigned slot = 0; slot < Run::kTimers; ++slot) {
      {
        std::lock_guard<std::mutex> guard(run.lock);
        run.armed_at_us[slot] = NowUs();
      }
      timer.StartTimer(slot + 1, interval_ms, &Run::OnTick, &run);
      // Spread the timers over the interval, as independent orders are.
      std::this_thread::sleep_for(std::chrono::microseconds(interval_ms * 1000 / Run::kTimers));
    }
    std::unique_lock<std::mutex> guard(run.lock);
    run.all_done.wait(guard, [&run] { return run.finished == Run::kTimers; });
    all.insert(all.end(), run.lateness_us.begin(), run.lateness_us.end());
    guard.unlock();
    timer.Shutdown();
  }
  state.counters["samples"] = static_cast<double>(all.size());
  state.counters["p50_ms"] = Percentile(all, 0.50) / 1000.0;
  state.counters["p99_ms"] = Percentile(all, 0.99) / 1000.0;
  state.counters["max_ms"] = Percentile(all, 1.0) / 1000.0;
  state.counters["min_ms"] = Percentile(all, 0.0) / 1000.0;
}

void BM_TimerLateness(benchmark::State& state) { MeasureLateness<LatenessRun>(state); }
BENCHMARK(BM_TimerLateness)->Arg(100)->Arg(10)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_PeriodicTimerLateness(benchmark::State& state) { MeasureLateness<PeriodicRun>(state); }
BENCHMARK(BM_PeriodicTimerLateness)->Arg(100)->Arg(10)->Iterations(1)->Unit(benchmark::kMillisecond);

void NoOp(unsigned /*id*/, void* /*context*/) {}

// The resident size once the threads just started have all reached their
// wait: on a loaded machine some start long after they were created, and one
// caught while starting counts its whole start. Read every 100 ms until two
// readings differ by less than 256 KiB (10 s at most).
int64_t SettledResidentBytes() {
  constexpr int64_t kSteadyBytes = 256 * 1024;
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  int64_t resident = ResidentBytes();
  for (int reading = 0; reading < 100; ++reading) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const int64_t now = ResidentBytes();
    const bool steady = now - resident < kSteadyBytes && resident - now < kSteadyBytes;
    resident = now;
    if (steady) break;
  }
  return resident;
}

// One batch of 2,000 waiting threads: the iteration's time is what `start`
// takes; the resident growth is read once they all wait, then `end` is timed.
struct Footprint {
  double growth_mib = 0;
  double end_ms = 0;
};

template <typename Start, typename End>
Footprint MeasureFootprint(benchmark::State& state, Start start, End end) {
  Footprint figures;
  for (auto _ : state) {
    const int64_t resident_before = ResidentBytes();
    const auto starting = std::chrono::steady_clock::now();
    start();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - starting).count());
    figures.growth_mib = static_cast<double>(SettledResidentBytes() - resident_before) / (1024.0 * 1024.0);
    const auto ending = std::chrono::steady_clock::now();
    end();
    figures.end_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - ending).count();
  }
  return figures;
}

// 2,000 timers armed at once (long intervals, nothing fires): the time to
// arm them all, the resident memory they hold while armed, and the time to
// shut them down.
void BM_ArmTwoThousandTimers(benchmark::State& state) {
  constexpr unsigned kTimers = 2000;
  std::unique_ptr<CTimer> timer;
  const Footprint figures = MeasureFootprint(
      state,
      [&timer] {
        timer = std::make_unique<CTimer>();
        for (unsigned id = 0; id < kTimers; ++id) timer->StartTimer(3001 + id, 600'000, &NoOp, nullptr);
      },
      [&timer] {
        timer->Shutdown();
        timer.reset();
      });
  state.counters["rss_growth_MiB"] = figures.growth_mib;
  state.counters["KiB_per_timer"] = figures.growth_mib * 1024.0 / kTimers;
  state.counters["shutdown_ms"] = figures.end_ms;
}
BENCHMARK(BM_ArmTwoThousandTimers)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The floor under one thread per armed timer: 2,000 threads made with the
// system's own call that only wait on one event. The argument is the stack
// reservation in KiB (0: the executable's default).
void MeasureBareThreads(benchmark::State& state, bool release_stack) {
  constexpr int kThreads = 2000;
  const std::size_t stack_bytes = static_cast<std::size_t>(state.range(0)) * 1024;
  BareThreads threads;
  int started = 0;
  const Footprint figures = MeasureFootprint(
      state, [&] { started = threads.Start(kThreads, stack_bytes, release_stack); }, [&threads] { threads.Join(); });
  state.counters["threads"] = started;
  state.counters["rss_growth_MiB"] = figures.growth_mib;
  state.counters["KiB_per_thread"] = started > 0 ? figures.growth_mib * 1024.0 / started : 0;
  state.counters["join_ms"] = figures.end_ms;
}

void BM_TwoThousandBareThreads(benchmark::State& state) { MeasureBareThreads(state, false); }
BENCHMARK(BM_TwoThousandBareThreads)->Arg(0)->Arg(64)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The same threads, each first giving back what its start left resident on
// its stack, as the timer threads do.
void BM_TwoThousandBareThreadsGivingBackTheirStack(benchmark::State& state) { MeasureBareThreads(state, true); }
BENCHMARK(BM_TwoThousandBareThreadsGivingBackTheirStack)
    ->Arg(0)
    ->Arg(64)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tsm
