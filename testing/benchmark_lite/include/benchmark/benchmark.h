// A small benchmark runner that stands in for Google Benchmark in the Windows
// cross build: Debian ships that library only for the native build, and the
// Wine figures must come from the same benchmark sources. It offers only what
// the benchmarks of this tree use, with the same meaning: the timed range-for
// loop, pausing, manual iteration times, counters, and the console table with
// repetitions and their aggregates (see benchmark_lite.cpp).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace benchmark {

using IterationCount = int64_t;

enum TimeUnit { kNanosecond, kMicrosecond, kMillisecond };

// A value reported beside the times. kIsRate divides it by the measured time
// of the run (manual, real or CPU, as the run is timed), kAvgIterations by the
// number of iterations.
class Counter {
 public:
  enum Flags { kDefaults = 0, kIsRate = 1 << 0, kAvgIterations = 1 << 1 };

  Counter(double v = 0.0, Flags f = kDefaults) : value(v), flags(f) {}

  double value;
  Flags flags;
};

using UserCounters = std::map<std::string, Counter>;

// Keeps the compiler from dropping a computation whose result is unused.
template <class T>
inline void DoNotOptimize(const T& value) {
  asm volatile("" : : "r,m"(value) : "memory");
}

template <class T>
inline void DoNotOptimize(T& value) {
  asm volatile("" : "+m"(value) : : "memory");
}

namespace internal {
struct Run;
}

class State {
 public:
  struct [[maybe_unused]] Value {};

  class Iterator {
   public:
    explicit Iterator(State* state) : state_(state) {}
    Value operator*() const { return {}; }
    Iterator& operator++() {
      --state_->remaining_;
      return *this;
    }
    bool operator!=(const Iterator&) const {
      if (state_->remaining_ > 0) return true;
      state_->StopTimer();
      return false;
    }

   private:
    State* state_;
  };

  // The timers run from the loop's start to its end, less the paused spans.
  Iterator begin() {
    StartTimer();
    return Iterator(this);
  }
  Iterator end() { return Iterator(nullptr); }

  // Iterations done so far; after the loop, all of them.
  IterationCount iterations() const { return max_iterations_ - remaining_; }
  int64_t range(std::size_t pos = 0) const { return args_.at(pos); }

  void PauseTiming() { StopTimer(); }
  void ResumeTiming() { StartTimer(); }
  void SetIterationTime(double seconds) { manual_seconds_ += seconds; }
  void SetItemsProcessed(int64_t items) { items_processed_ = items; }
  // Ends the loop at its next check; the run reports the message only.
  void SkipWithError(const char* message);

  UserCounters counters;

 private:
  friend struct internal::Run;
  State(IterationCount iterations, std::vector<int64_t> args);

  void StartTimer();
  void StopTimer();

  IterationCount max_iterations_;
  IterationCount remaining_;
  std::vector<int64_t> args_;
  bool running_ = false;
  double real_start_ = 0;
  double cpu_start_ = 0;
  double real_seconds_ = 0;
  double cpu_seconds_ = 0;
  double manual_seconds_ = 0;
  int64_t items_processed_ = -1;
  bool error_ = false;
  std::string error_message_;
};

namespace internal {

using Function = void (*)(State&);

// One BENCHMARK(fn) with its settings; one run per Arg (one without any).
class Benchmark {
 public:
  Benchmark(const char* name, Function fn) : name_(name), fn_(fn) {}

  Benchmark* Arg(int64_t x) {
    args_.push_back(x);
    return this;
  }
  Benchmark* Iterations(IterationCount n) {
    iterations_ = n;
    return this;
  }
  Benchmark* Unit(TimeUnit unit) {
    unit_ = unit;
    return this;
  }
  Benchmark* UseManualTime() {
    manual_time_ = true;
    return this;
  }
  Benchmark* UseRealTime() {
    real_time_ = true;
    return this;
  }

 private:
  friend struct Run;
  std::string name_;
  Function fn_;
  std::vector<int64_t> args_;
  IterationCount iterations_ = 0;  // 0: grown until the run is long enough
  TimeUnit unit_ = kNanosecond;
  bool manual_time_ = false;
  bool real_time_ = false;
};

Benchmark* RegisterBenchmarkInternal(Benchmark* benchmark);

}  // namespace internal
}  // namespace benchmark

#define BENCHMARK_LITE_CONCAT2(a, b) a##b
#define BENCHMARK_LITE_CONCAT(a, b) BENCHMARK_LITE_CONCAT2(a, b)
#define BENCHMARK(fn)                                                                    \
  [[maybe_unused]] static ::benchmark::internal::Benchmark* BENCHMARK_LITE_CONCAT(       \
      benchmark_lite_registered_, __COUNTER__) =                                         \
      ::benchmark::internal::RegisterBenchmarkInternal(new ::benchmark::internal::Benchmark(#fn, fn))
