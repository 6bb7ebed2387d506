// The runner behind benchmark/benchmark.h of the Windows cross build, where it
// stands in for Google Benchmark (Debian ships that library only for the
// native build). It measures and prints as Google Benchmark does, so that the
// Wine figures sit beside the Linux ones:
// - each run calls the function once with a fixed iteration count; without
//   Iterations(n) the count grows until the run's measured time reaches
//   0.5 s (or, unless timed manually, its wall time 2.5 s): tenfold while a
//   run is under a tenth of that, otherwise aiming at 1.4 times it. The
//   measured time is the manual time with UseManualTime(), the wall time
//   with UseRealTime(), otherwise the benchmark thread's CPU time;
// - repetitions reuse the count found by the first one;
// - "Time" is the wall (or manual) time per iteration, "CPU" the benchmark
//   thread's CPU time per iteration, both excluding paused spans;
// - aggregates are the mean, median, sample standard deviation and
//   coefficient of variation over the repetitions.
// Flags: --benchmark_filter=REGEX, --benchmark_repetitions=N,
// --benchmark_report_aggregates_only[=true|false].
#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#else
#include <time.h>
#endif

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

namespace benchmark {
namespace {

constexpr double kMinSeconds = 0.5;
constexpr IterationCount kMaxIterations = 1000000000;

double RealSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// CPU time of the calling thread, user and kernel.
double ThreadCpuSeconds() {
#ifdef _WIN32
  FILETIME creation, exit, kernel, user;
  if (!GetThreadTimes(GetCurrentThread(), &creation, &exit, &kernel, &user)) return 0;
  auto ticks = [](const FILETIME& t) {
    return (static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
  };
  return static_cast<double>(ticks(kernel) + ticks(user)) * 1e-7;  // 100 ns ticks
#else
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
#endif
}

std::vector<std::unique_ptr<internal::Benchmark>>& Registry() {
  static std::vector<std::unique_ptr<internal::Benchmark>> registry;
  return registry;
}

}  // namespace

State::State(IterationCount iterations, std::vector<int64_t> args)
    : max_iterations_(iterations), remaining_(iterations), args_(std::move(args)) {}

// The CPU clock is read outside the wall clock's span: under Wine a reading
// costs tens of microseconds.
void State::StartTimer() {
  if (running_) return;
  running_ = true;
  cpu_start_ = ThreadCpuSeconds();
  real_start_ = RealSeconds();
}

void State::StopTimer() {
  if (!running_) return;
  running_ = false;
  real_seconds_ += RealSeconds() - real_start_;
  cpu_seconds_ += ThreadCpuSeconds() - cpu_start_;
}

void State::SkipWithError(const char* message) {
  error_ = true;
  error_message_ = message;
  remaining_ = 0;
}

namespace internal {

Benchmark* RegisterBenchmarkInternal(Benchmark* benchmark) {
  Registry().emplace_back(benchmark);
  return benchmark;
}

// One line of the table: a single run, or an aggregate of the repetitions.
struct Result {
  std::string name;
  IterationCount iterations = 0;
  double real_per_iteration = 0;  // seconds; the manual time with UseManualTime()
  double cpu_per_iteration = 0;
  UserCounters counters;
  bool percent = false;  // the coefficient of variation
  bool error = false;
  std::string error_message;
};

// One benchmark with one argument (or none), as named in the table.
struct Instance {
  const Benchmark* benchmark;
  std::vector<int64_t> args;
  std::string name;
};

struct Run {
  static std::vector<Instance> Instances(const std::regex& filter) {
    std::vector<Instance> out;
    for (const auto& b : Registry()) {
      std::vector<std::vector<int64_t>> arg_sets;
      for (int64_t a : b->args_) arg_sets.push_back({a});
      if (arg_sets.empty()) arg_sets.emplace_back();
      for (auto& args : arg_sets) {
        std::string name = b->name_;
        for (int64_t a : args) name.append("/").append(std::to_string(a));
        if (b->iterations_ > 0) name.append("/iterations:").append(std::to_string(b->iterations_));
        if (b->manual_time_) {
          name += "/manual_time";
        } else if (b->real_time_) {
          name += "/real_time";
        }
        if (std::regex_search(name, filter)) out.push_back({b.get(), std::move(args), std::move(name)});
      }
    }
    return out;
  }

  static TimeUnit UnitOf(const Instance& instance) { return instance.benchmark->unit_; }

  // Calls the function once with `iterations`; *measured is the time that
  // decides whether the run was long enough.
  static Result Once(const Instance& instance, IterationCount iterations, double* measured, double* real) {
    const Benchmark& b = *instance.benchmark;
    State state(iterations, instance.args);
    b.fn_(state);
    state.StopTimer();  // a loop left by break

    Result r;
    r.name = instance.name;
    r.iterations = state.iterations();
    r.error = state.error_;
    r.error_message = state.error_message_;
    const double wall = b.manual_time_ ? state.manual_seconds_ : state.real_seconds_;
    *measured = b.manual_time_ ? state.manual_seconds_ : b.real_time_ ? state.real_seconds_ : state.cpu_seconds_;
    *real = state.real_seconds_;
    if (r.error || r.iterations <= 0) return r;
    r.real_per_iteration = wall / static_cast<double>(r.iterations);
    r.cpu_per_iteration = state.cpu_seconds_ / static_cast<double>(r.iterations);
    r.counters = state.counters;
    if (state.items_processed_ >= 0) {
      r.counters["items_per_second"] = Counter(static_cast<double>(state.items_processed_), Counter::kIsRate);
    }
    for (auto& [name, c] : r.counters) {
      if ((c.flags & Counter::kIsRate) != 0) c.value = *measured > 0 ? c.value / *measured : 0;
      if ((c.flags & Counter::kAvgIterations) != 0) c.value /= static_cast<double>(r.iterations);
    }
    return r;
  }

  // The repetitions of one instance; the first one finds the iteration count.
  static std::vector<Result> Repeat(const Instance& instance, int repetitions) {
    IterationCount iterations = instance.benchmark->iterations_ > 0 ? instance.benchmark->iterations_ : 1;
    const bool fixed = instance.benchmark->iterations_ > 0;
    std::vector<Result> runs;
    for (int rep = 0; rep < repetitions; ++rep) {
      for (;;) {
        double measured = 0;
        double real = 0;
        Result r = Once(instance, iterations, &measured, &real);
        const bool long_enough = fixed || rep > 0 || r.error || iterations >= kMaxIterations ||
                                 measured >= kMinSeconds ||
                                 (!instance.benchmark->manual_time_ && real >= 5 * kMinSeconds);
        if (long_enough) {
          runs.push_back(std::move(r));
          break;
        }
        double multiplier = kMinSeconds * 1.4 / std::max(measured, 1e-9);
        if (measured / kMinSeconds <= 0.1) multiplier = 10.0;
        const auto next = static_cast<IterationCount>(
            std::lround(std::max(multiplier * static_cast<double>(iterations), static_cast<double>(iterations) + 1)));
        iterations = std::min(next, kMaxIterations);
      }
      if (runs.back().error) break;
    }
    return runs;
  }
};

}  // namespace internal

namespace {

using internal::Result;

double Mean(const std::vector<double>& v) {
  double sum = 0;
  for (double x : v) sum += x;
  return sum / static_cast<double>(v.size());
}

double Median(const std::vector<double>& values) {
  std::vector<double> v = values;
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double StdDev(const std::vector<double>& v) {
  // Equal values give 0, not the rounding left over from their mean.
  if (v.size() < 2 || std::equal(v.begin() + 1, v.end(), v.begin())) return 0;
  const double mean = Mean(v);
  double squares = 0;
  for (double x : v) squares += (x - mean) * (x - mean);
  return std::sqrt(squares / static_cast<double>(v.size() - 1));
}

double Cv(const std::vector<double>& v) {
  const double mean = Mean(v);
  return mean == 0 ? 0 : StdDev(v) / mean;
}

// mean, median, stddev and cv over the runs without an error (none when
// fewer than two).
std::vector<Result> Aggregates(const std::vector<Result>& runs) {
  std::vector<const Result*> ok;
  for (const Result& r : runs) {
    if (!r.error) ok.push_back(&r);
  }
  if (ok.size() < 2) return {};
  using Stat = double (*)(const std::vector<double>&);
  const std::pair<const char*, Stat> stats[] = {
      {"_mean", &Mean},
      {"_median", &Median},
      {"_stddev", &StdDev},
      {"_cv", &Cv}};
  std::vector<Result> out;
  for (const auto& [suffix, stat] : stats) {
    auto over = [&ok, stat = stat](auto field) {
      std::vector<double> values;
      for (const Result* r : ok) values.push_back(field(*r));
      return stat(values);
    };
    Result a;
    a.name = ok.front()->name + suffix;
    a.iterations = static_cast<IterationCount>(ok.size());
    a.percent = std::strcmp(suffix, "_cv") == 0;
    a.real_per_iteration = over([](const Result& r) { return r.real_per_iteration; });
    a.cpu_per_iteration = over([](const Result& r) { return r.cpu_per_iteration; });
    for (const auto& [name, c] : ok.front()->counters) {
      const std::string& key = name;
      const double value = over([&key](const Result& r) {
        auto it = r.counters.find(key);
        return it == r.counters.end() ? 0.0 : it->second.value;
      });
      a.counters[name] = Counter(value, c.flags);
    }
    out.push_back(std::move(a));
  }
  return out;
}

// Google Benchmark's column format: three to no decimals as the value grows.
std::string FormatTime(double t) {
  char buf[32];
  if (t < 1.0) {
    std::snprintf(buf, sizeof buf, "%10.3f", t);
  } else if (t < 10.0) {
    std::snprintf(buf, sizeof buf, "%10.2f", t);
  } else if (t < 100.0) {
    std::snprintf(buf, sizeof buf, "%10.1f", t);
  } else if (t > 9999999999.0) {
    std::snprintf(buf, sizeof buf, "%1.4e", t);
  } else {
    std::snprintf(buf, sizeof buf, "%10.0f", t);
  }
  return buf;
}

// Six significant digits with an SI prefix above 1100 (k, M, G, ...) and
// below 0.01 (m, u, n, ...), as Google Benchmark prints counters.
std::string HumanReadable(double v) {
  std::string sign;
  if (v < 0) {
    sign = "-";
    v = -v;
  }
  const char* prefix = "";
  static const char* const kBig[] = {"k", "M", "G", "T", "P", "E"};
  static const char* const kSmall[] = {"m", "u", "n", "p", "f", "a"};
  if (v > 1100) {
    double scaled = v;
    for (const char* p : kBig) {
      scaled /= 1000;
      if (scaled <= 1100) {
        v = scaled;
        prefix = p;
        break;
      }
    }
  } else if (v > 0 && v < 0.01) {
    double scaled = v;
    for (const char* p : kSmall) {
      scaled *= 1000;
      if (scaled >= 1.1) {
        v = scaled;
        prefix = p;
        break;
      }
    }
  }
  char buf[48];
  std::snprintf(buf, sizeof buf, "%s%g%s", sign.c_str(), v, prefix);
  return buf;
}

void PrintHeader(int width, bool counters) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "%-*s %13s %15s %12s%s", width, "Benchmark", "Time", "CPU", "Iterations",
                counters ? " UserCounters..." : "");
  const std::string line(std::strlen(buf), '-');
  std::printf("%s\n%s\n%s\n", line.c_str(), buf, line.c_str());
}

void PrintResult(const Result& r, int width, TimeUnit unit) {
  std::printf("%-*s ", width, r.name.c_str());
  if (r.error) {
    std::printf("ERROR OCCURRED: '%s'\n", r.error_message.c_str());
    return;
  }
  if (r.percent) {
    std::printf("%10.2f %-4s %10.2f %-4s ", 100 * r.real_per_iteration, "%", 100 * r.cpu_per_iteration, "%");
  } else {
    const double scale = unit == kMillisecond ? 1e3 : unit == kMicrosecond ? 1e6 : 1e9;
    const char* label = unit == kMillisecond ? "ms" : unit == kMicrosecond ? "us" : "ns";
    std::printf("%s %-4s %s %-4s ", FormatTime(r.real_per_iteration * scale).c_str(), label,
                FormatTime(r.cpu_per_iteration * scale).c_str(), label);
  }
  std::printf("%10lld", static_cast<long long>(r.iterations));
  for (const auto& [name, c] : r.counters) {
    if (r.percent) {
      std::printf(" %s=%.2f%%", name.c_str(), 100 * c.value);
    } else {
      std::printf(" %s=%s%s", name.c_str(), HumanReadable(c.value).c_str(),
                  (c.flags & Counter::kIsRate) != 0 ? "/s" : "");
    }
  }
  std::printf("\n");
  std::fflush(stdout);
}

// The thread CPU clock's step and what one reading costs, printed with the
// context: under Wine the clock moves in 10 ms steps and a reading takes tens
// of microseconds, much of it the thread's own CPU time. The CPU column of
// short, often paused iterations, and any CPU figure a benchmark takes around
// each call, carry that cost.
void PrintCpuClock() {
  const double start = RealSeconds();
  const double cpu_start = ThreadCpuSeconds();
  double last = cpu_start;
  double step = 0;
  long readings = 1;
  while (RealSeconds() - start < 0.2) {
    const double now = ThreadCpuSeconds();
    ++readings;
    if (now != last) {
      step = step == 0 ? now - last : std::min(step, now - last);
      last = now;
    }
  }
  const double per_reading = 1e6 / static_cast<double>(readings);
  std::fprintf(stderr, "Thread CPU clock: step %s, a reading takes %.3g us (%.3g us of CPU)\n",
               step > 0 ? (HumanReadable(step) + "s").c_str() : "above 0.2 s", (RealSeconds() - start) * per_reading,
               (last - cpu_start) * per_reading);
}

bool ParseFlag(const char* arg, const char* flag, std::string* value) {
  const std::size_t n = std::strlen(flag);
  if (std::strncmp(arg, flag, n) != 0) return false;
  if (arg[n] == '\0') {
    *value = "true";
    return true;
  }
  if (arg[n] != '=') return false;
  *value = arg + n + 1;
  return true;
}

bool IsTrue(const std::string& v) { return v == "true" || v == "1" || v == "yes"; }

}  // namespace
}  // namespace benchmark

int main(int argc, char** argv) {
  using namespace benchmark;
  std::string filter = ".";
  int repetitions = 1;
  bool aggregates_only = false;
  for (int i = 1; i < argc; ++i) {
    std::string value;
    if (ParseFlag(argv[i], "--benchmark_filter", &value)) {
      filter = value == "all" || value.empty() ? "." : value;
    } else if (ParseFlag(argv[i], "--benchmark_repetitions", &value)) {
      repetitions = std::atoi(value.c_str());
      if (repetitions < 1) {
        std::fprintf(stderr, "%s: --benchmark_repetitions must be at least 1\n", argv[0]);
        return 1;
      }
    } else if (ParseFlag(argv[i], "--benchmark_report_aggregates_only", &value)) {
      aggregates_only = IsTrue(value);
    } else {
      std::fprintf(stderr, "%s: error: unrecognized command-line flag: %s\n", argv[0], argv[i]);
      return 1;
    }
  }

  std::regex pattern;
  try {
    pattern = std::regex(filter);
  } catch (const std::regex_error& e) {
    std::fprintf(stderr, "Could not compile benchmark re: %s\n", e.what());
    return 1;
  }
  const std::vector<internal::Instance> instances = internal::Run::Instances(pattern);
  if (instances.empty()) {
    std::fprintf(stderr, "Failed to match any benchmarks against regex: %s\n", filter.c_str());
    return 0;
  }

  std::fprintf(stderr, "Running %s (benchmark_lite)\nRun on (%u X CPU)\n", argv[0],
               std::thread::hardware_concurrency());
  PrintCpuClock();
  int width = 10;
  for (const auto& instance : instances) width = std::max(width, static_cast<int>(instance.name.size()));
  if (repetitions > 1) width += static_cast<int>(std::strlen("_stddev"));

  bool header = false;
  for (const auto& instance : instances) {
    const std::vector<Result> runs = internal::Run::Repeat(instance, repetitions);
    const std::vector<Result> aggregates = repetitions > 1 ? Aggregates(runs) : std::vector<Result>{};
    std::vector<const Result*> shown;
    for (const Result& r : runs) {
      if (!aggregates_only || aggregates.empty() || r.error) shown.push_back(&r);
    }
    for (const Result& a : aggregates) shown.push_back(&a);
    for (const Result* r : shown) {
      if (!header) {
        PrintHeader(width, !r->counters.empty());
        header = true;
      }
      PrintResult(*r, width, internal::Run::UnitOf(instance));
    }
  }
  return 0;
}
