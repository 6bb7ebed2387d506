// slicehost: the platform host simulator around the slice manager.
//
//   slicehost demo   [--transcript FILE] [--report FILE.html] [--real-time] [--quiet | --summary-only] [--verbose]
//   slicehost run SCENARIO.json [the same options] [--expect GOLDEN] [--write-golden NEW]
//   slicehost check SCENARIO.json
//   slicehost bench  [--parents N] [--children N] [--kind iceberg|slice-all] [--profile]
//   slicehost --version; slicehost VERB --help
//   (demo, run and bench also take --factory)
//
// Exit codes (command_line.h): 0 done (and the transcript matched its golden
// file; check found nothing), 1 the transcript differs from the golden file,
// the run failed, or check found warnings, 2 bad command line, bad scenario
// file, or a file that cannot be read or written.
//
// Threading: the main thread parses, plays the scenario (driving the clock)
// and prints; the run's own threads are started and ended inside RunScenario.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "data/text.h"
#include "platform/process_memory.h"
#include "slicehost/bench.h"
#include "slicehost/command_line.h"
#include "slicehost/demo_scenario.h"
#include "slicehost/parent_summary.h"
#include "slicehost/player.h"
#include "slicehost/report.h"
#include "slicehost/scenario.h"
#include "slicehost/scenario_check.h"
#include "slicehost/timeline.h"
#include "slicehost/transcript.h"
#include "tradeslice/version.h"

namespace {

using namespace tsm;
using namespace tsm::sim;

int Usage(const std::string& problem) {
  std::fprintf(stderr, "slicehost: %s\n\n%s", problem.c_str(), HelpText("").c_str());
  return kExitBadInput;
}

std::string VersionText() {
  return std::string("slicehost ") + TSM_VERSION_TEXT + "\n";
}

// The CPU split by thread class, with the share of each and how many of the
// two cores' time the run kept busy.
void PrintBenchProfile(const BenchResult& r) {
  int64_t all_ns = 0;
  for (int64_t ns : r.cpu_ns) all_ns += ns;
  const double children = r.children > 0 ? static_cast<double>(r.children) : 1.0;
  std::printf("\n%-16s %8s %10s %13s %7s\n", "thread class", "threads", "CPU ms", "us per child", "share");
  for (std::size_t i = 0; i < r.cpu_ns.size(); ++i) {
    const double ns = static_cast<double>(r.cpu_ns[i]);
    std::printf("%-16s %8d %10.1f %13.2f %6.1f%%\n", ThreadClassName(static_cast<ThreadClass>(i)), r.threads[i],
                ns / 1e6, ns / 1000.0 / children, all_ns > 0 ? 100.0 * ns / static_cast<double>(all_ns) : 0.0);
  }
  std::printf("%-16s %8s %10.1f %13.2f\n", "all", "", static_cast<double>(all_ns) / 1e6,
              static_cast<double>(all_ns) / 1000.0 / children);
  std::printf("CPUs busy on average: %.2f (CPU time over real time)\n",
              r.wall_seconds > 0 ? static_cast<double>(all_ns) / 1e9 / r.wall_seconds : 0.0);
}

int Bench(const Options& o) {
  BenchOptions options;
  options.parents = o.parents;
  options.children_per_parent = o.children;
  options.sliced_type = o.bench_kind;
  if (o.factory) options.path = ManagerPath::Factory;
  options.progress = [](int64_t sent, int64_t expected, double seconds) {
    std::fprintf(stderr, "bench: %lld of %lld children sent after %.1f s\n", static_cast<long long>(sent),
                 static_cast<long long>(expected), seconds);
  };
  const BenchResult r = RunBench(options);
  std::printf("kind:                         %s\n", SliceKindName(options.sliced_type).c_str());
  std::printf("path:                         %s\n", options.path == ManagerPath::Com ? "COM" : "factory export");
  std::printf("parents:                      %d\n", r.parents);
  std::printf("children sent:                %lld\n", static_cast<long long>(r.children));
  std::printf("simulated time:               %s\n", FormatSimTime(r.simulated_ms).c_str());
  std::printf("real time:                    %.3f s\n", r.wall_seconds);
  std::printf("children per second:          %.0f\n", r.children_per_second);
  std::printf("host-thread us per parent:    %.1f\n", r.host_us_per_parent);
  const double children = r.children > 0 ? static_cast<double>(r.children) : 1.0;
  auto per_child_us = [&](ThreadClass kind) {
    return static_cast<double>(r.cpu_ns[static_cast<std::size_t>(kind)]) / 1000.0 / children;
  };
  std::printf("event thread CPU us per child: %.2f\n", per_child_us(ThreadClass::kEvent));
  std::printf("host loop CPU us per child:    %.2f\n", per_child_us(ThreadClass::kHostLoop));
  std::printf("timer threads CPU us per child: %.2f\n", per_child_us(ThreadClass::kTimer));
  if (o.profile) PrintBenchProfile(r);
  return kExitOk;
}

// Prints the timeline as the events come and counts the lines it leaves
// out on the way, so that each event is formatted once.
class Timeline {
 public:
  explicit Timeline(bool verbose) : verbose_(verbose) {}

  void Print(const HostEvent& e) {
    ++seen_;
    const std::string line = TimelineLine(e, verbose_);
    if (line.empty()) {
      ++hidden_;
    } else {
      std::printf("%s\n", line.c_str());
    }
  }

  // The lines left out of the run's `events`. On the wall clock a few may
  // have been recorded after the last one printed; those are formatted here.
  size_t Hidden(const std::vector<HostEvent>& events) const {
    size_t hidden = hidden_;
    for (size_t i = seen_; i < events.size(); ++i) hidden += TimelineLine(events[i], verbose_).empty() ? 1 : 0;
    return hidden;
  }

 private:
  const bool verbose_;
  size_t seen_ = 0;
  size_t hidden_ = 0;
};

// Parses the scenario of `o` (the demo or a file); false after printing
// why it cannot be played.
bool LoadScenario(const Options& o, Scenario* scenario) {
  auto parsed = o.command == "demo" ? ParseScenario(DemoScenarioJson(), "demo") : LoadScenarioFile(o.scenario_path);
  if (auto* error = std::get_if<ScenarioError>(&parsed)) {
    std::fprintf(stderr, "slicehost: %s\n", error->message.c_str());
    return false;
  }
  *scenario = std::get<Scenario>(std::move(parsed));
  return true;
}

// Prints `warnings` of `scenario` on standard error; returns the steps they
// concern (JSON pointers).
std::set<std::string> PrintWarnings(const Scenario& scenario, const std::vector<ScenarioWarning>& warnings) {
  std::set<std::string> steps;
  for (const ScenarioWarning& warning : warnings) {
    std::fprintf(stderr, "slicehost: %s\n", WarningLine(scenario, warning).c_str());
    const size_t slash = warning.where.find('/', std::string("/steps/").size());
    if (warning.where.rfind("/steps/", 0) == 0) steps.insert(warning.where.substr(0, slash));
  }
  std::fflush(stderr);
  return steps;
}

// Steps the run skipped that no warning before the run foresaw (a child
// that was never made, say).
void PrintSkippedSteps(const Scenario& scenario, const RunResult& result, const std::set<std::string>& warned) {
  for (const HostEvent& e : result.events) {
    if (e.ev != "HostStepIgnored") continue;
    const std::string text = Utf8FromWide(e.text);
    const size_t at = text.find("Step=");
    const std::string step = at == std::string::npos ? std::string() : text.substr(at + 5);
    if (warned.count(step) != 0) continue;
    ScenarioWarning warning{step, "skipped at " + FormatSimTime(e.t_ms) + ": " + Utf8FromWide(e.topic) + ", " +
                                      text.substr(0, at == std::string::npos ? text.size() : at - 1)};
    std::fprintf(stderr, "slicehost: %s\n", WarningLine(scenario, warning).c_str());
  }
}

int Check(const Options& o) {
  Scenario scenario;
  if (!LoadScenario(o, &scenario)) return kExitBadInput;
  const std::vector<ScenarioWarning> warnings = CheckScenario(scenario);
  PrintWarnings(scenario, warnings);
  if (warnings.empty()) {
    std::printf("%s: no warnings\n", scenario.source.c_str());
    return kExitOk;
  }
  std::printf("%s: %zu warning%s\n", scenario.source.c_str(), warnings.size(), warnings.size() == 1 ? "" : "s");
  return kExitFailed;
}

int Play(const Options& o) {
  Scenario scenario;
  if (!LoadScenario(o, &scenario)) return kExitBadInput;
  std::string golden;
  if (!o.expect.empty() && !ReadFileBytes(o.expect, &golden)) {
    std::fprintf(stderr, "slicehost: %s: cannot be read\n", o.expect.c_str());
    return kExitBadInput;
  }
  if (!o.write_golden.empty()) {
    std::string existing;
    if (ReadFileBytes(o.write_golden, &existing)) {
      std::fprintf(stderr,
                   "slicehost: %s exists: golden transcripts are reviewed, not regenerated; compare with --transcript "
                   "and --expect, and replace it by hand when the change is intended\n",
                   o.write_golden.c_str());
      return kExitBadInput;
    }
  }
  const std::set<std::string> warned = PrintWarnings(scenario, CheckScenario(scenario));

  RunOptions options;
  options.real_time = o.real_time;
  if (o.factory) options.path = ManagerPath::Factory;
  Timeline timeline(o.verbose);
  const bool timeline_shown = !o.quiet && !o.summary_only;
  if (!o.quiet) {
    std::printf("%s\n\n", scenario.description.empty() ? scenario.name.c_str() : scenario.description.c_str());
  }
  if (timeline_shown) {
    std::printf("time        dir event                         detail  (-> host to manager, <- manager to host)\n");
    options.on_event = [&timeline](const HostEvent& e) { timeline.Print(e); };
  }
  const RunResult result = RunScenario(scenario, options);
  std::fflush(stdout);
  PrintSkippedSteps(scenario, result, warned);

  int status = kExitOk;
  std::string error;
  if (!o.transcript.empty() && !WriteTranscript(o.transcript, result.events, &error)) {
    std::fprintf(stderr, "slicehost: %s\n", error.c_str());
    status = kExitBadInput;
  }
  if (!o.write_golden.empty() && !WriteTranscript(o.write_golden, result.events, &error)) {
    std::fprintf(stderr, "slicehost: %s\n", error.c_str());
    status = kExitBadInput;
  }
  if (!o.report.empty() && !WriteReport(o.report, result, &error)) {
    std::fprintf(stderr, "slicehost: %s\n", error.c_str());
    status = kExitBadInput;
  }
  if (timeline_shown) {
    const size_t hidden = timeline.Hidden(result.events);
    if (hidden > 0) {
      std::printf("(%zu log lines, fetches and security-information requests not shown; --verbose shows them)\n",
                  hidden);
    }
    std::printf("\n");
  }
  if (!o.quiet) std::printf("%s", SummaryText(result).c_str());
  if (!o.expect.empty()) {
    if (auto difference = CompareTranscripts(golden, TranscriptText(result.events))) {
      std::fprintf(stderr, "slicehost: transcript differs from %s at %s\n", o.expect.c_str(), difference->c_str());
      return kExitFailed;
    }
    if (!o.quiet) std::printf("transcript matches %s\n", o.expect.c_str());
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  // A host process, as the platform's own is: its heap is set up before the
  // component's threads start.
  tsm::GrowHeapInLargeSteps();
  try {
    Options o;
    const std::string problem = ParseArgs(argc, argv, &o);
    if (!problem.empty()) return Usage(problem);
    if (o.help) {
      std::printf("%s", HelpText(o.command).c_str());
      return kExitOk;
    }
    if (o.version) {
      std::printf("%s", VersionText().c_str());
      return kExitOk;
    }
    const std::string file_problem = CheckFiles(o);
    if (!file_problem.empty()) {
      std::fprintf(stderr, "slicehost: %s\n", file_problem.c_str());
      return kExitBadInput;
    }
    if (o.command == "bench") return Bench(o);
    if (o.command == "check") return Check(o);
    return Play(o);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "slicehost: the run failed: %s\n", e.what());
    return kExitFailed;
  }
}
