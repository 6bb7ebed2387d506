// slicehost: the platform host simulator around the slice manager.
//
//   slicehost demo   [--transcript FILE] [--report FILE.html] [--real-time] [--quiet] [--verbose]
//   slicehost run SCENARIO.json [the same options] [--expect GOLDEN] [--write-golden NEW]
//   slicehost bench  [--parents N] [--children N] [--kind iceberg|slice-all]
//   (every command also takes --factory)
//
// Exit codes: 0 done (and the transcript matched its golden file), 1 the
// transcript differs from the golden file or the run failed, 2 bad command
// line, bad scenario file, or a file that cannot be read or written.
//
// Threading: the main thread parses, plays the scenario (driving the clock)
// and prints; the run's own threads are started and ended inside RunScenario.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <variant>
#include <vector>

#include "platform/process_memory.h"
#include "slicehost/report.h"
#include "slicehost/runner.h"
#include "slicehost/scenario.h"
#include "slicehost/transcript.h"

namespace {

using namespace tsm::sim;

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kBadInput = 2;

const char kUsage[] =
    "usage:\n"
    "  slicehost demo [--transcript FILE] [--report FILE.html] [--real-time] [--quiet] [--verbose]\n"
    "  slicehost run SCENARIO.json [--transcript FILE] [--report FILE.html] [--real-time] [--quiet] [--verbose]\n"
    "                [--expect GOLDEN.jsonl] [--write-golden NEW.jsonl]\n"
    "  slicehost bench [--parents N] [--children N] [--kind iceberg|slice-all]\n"
    "\n"
    "demo     plays the embedded demo scenario and prints its timeline and summary\n"
    "run      plays a scenario file (format: docs/scenarios.md)\n"
    "bench    many parents with instant fills on the virtual clock; prints children per second\n"
    "\n"
    "--transcript FILE     every call across the host link as JSON Lines\n"
    "--report FILE.html    a self-contained HTML report with a chart per parent\n"
    "--real-time           the wall clock instead of the virtual one\n"
    "--quiet               no timeline and no summary\n"
    "--verbose             the timeline shows log lines and fetches too\n"
    "--factory             the manager through the factory export instead of COM (Windows)\n"
    "--expect GOLDEN       compare the transcript with a golden file; exit 1 at the first difference\n"
    "--write-golden NEW    write a new golden transcript (refuses to replace one: goldens are reviewed)\n";

struct Options {
  std::string command;
  bool help = false;
  std::string scenario_path;
  std::string transcript;
  std::string report;
  std::string expect;
  std::string write_golden;
  bool real_time = false;
  bool factory = false;
  bool quiet = false;
  bool verbose = false;
  int parents = 1000;
  int children = 20;
  int32_t bench_kind = 1;
};

int Usage(const std::string& problem) {
  std::fprintf(stderr, "slicehost: %s\n\n%s", problem.c_str(), kUsage);
  return kBadInput;
}

bool ParseCount(const std::string& text, int low, int high, int* out) {
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value < low || value > high) return false;
  *out = static_cast<int>(value);
  return true;
}

// Returns an empty text when the command line is good.
std::string ParseArgs(int argc, char** argv, Options* o) {
  if (argc < 2) return "no command given";
  o->command = argv[1];
  if (o->command == "help" || o->command == "--help" || o->command == "-h") {
    o->help = true;
    return {};
  }
  if (o->command != "demo" && o->command != "run" && o->command != "bench") {
    return "unknown command \"" + o->command + "\"";
  }
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::string number;
    if (arg == "--transcript") {
      if (!value(&o->transcript)) return "--transcript needs a file name";
    } else if (arg == "--report") {
      if (!value(&o->report)) return "--report needs a file name";
    } else if (arg == "--expect" && o->command == "run") {
      if (!value(&o->expect)) return "--expect needs a golden file";
    } else if (arg == "--write-golden" && o->command == "run") {
      if (!value(&o->write_golden)) return "--write-golden needs a file name";
    } else if (arg == "--real-time") {
      o->real_time = true;
    } else if (arg == "--factory") {
      o->factory = true;
    } else if (arg == "--quiet") {
      o->quiet = true;
    } else if (arg == "--verbose") {
      o->verbose = true;
    } else if (arg == "--parents" && o->command == "bench") {
      if (!value(&number) || !ParseCount(number, 1, 1000000, &o->parents)) return "--parents needs a count of 1 or more";
    } else if (arg == "--kind" && o->command == "bench") {
      if (!value(&number) || (number != "iceberg" && number != "slice-all")) return "--kind needs iceberg or slice-all";
      o->bench_kind = number == "iceberg" ? 1 : 4;
    } else if (arg == "--children" && o->command == "bench") {
      if (!value(&number) || !ParseCount(number, 1, 100000, &o->children)) {
        return "--children needs a count of 1 or more";
      }
    } else if (o->command == "run" && o->scenario_path.empty() && !arg.empty() && arg[0] != '-') {
      o->scenario_path = arg;
    } else {
      return "unexpected argument \"" + arg + "\" for " + o->command;
    }
  }
  if (o->command == "run" && o->scenario_path.empty()) return "run needs a scenario file";
  return {};
}

int Bench(const Options& o) {
  BenchOptions options;
  options.parents = o.parents;
  options.children_per_parent = o.children;
  options.sliced_type = o.bench_kind;
  if (o.factory) options.path = ManagerPath::Factory;
  const BenchResult r = RunBench(options);
  std::printf("kind:                         %s\n", SliceKindName(options.sliced_type).c_str());
  std::printf("path:                         %s\n", options.path == ManagerPath::Com ? "COM" : "factory export");
  std::printf("parents:                      %d\n", r.parents);
  std::printf("children sent:                %lld\n", static_cast<long long>(r.children));
  std::printf("simulated time:               %s\n", FormatSimTime(r.simulated_ms).c_str());
  std::printf("real time:                    %.3f s\n", r.wall_seconds);
  std::printf("children per second:          %.0f\n", r.children_per_second);
  std::printf("host-thread us per parent:    %.1f\n", r.host_us_per_parent);
  return kOk;
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

int Play(const Options& o) {
  Scenario scenario;
  {
    auto parsed = o.command == "demo" ? ParseScenario(DemoScenarioJson(), "demo") : LoadScenarioFile(o.scenario_path);
    if (auto* error = std::get_if<ScenarioError>(&parsed)) {
      std::fprintf(stderr, "slicehost: %s\n", error->message.c_str());
      return kBadInput;
    }
    scenario = std::get<Scenario>(std::move(parsed));
  }
  std::string golden;
  if (!o.expect.empty() && !ReadFileBytes(o.expect, &golden)) {
    std::fprintf(stderr, "slicehost: %s: cannot be read\n", o.expect.c_str());
    return kBadInput;
  }
  if (!o.write_golden.empty()) {
    std::string existing;
    if (ReadFileBytes(o.write_golden, &existing)) {
      std::fprintf(stderr,
                   "slicehost: %s exists: golden transcripts are reviewed, not regenerated; compare with --transcript "
                   "and --expect, and replace it by hand when the change is intended\n",
                   o.write_golden.c_str());
      return kBadInput;
    }
  }

  RunOptions options;
  options.real_time = o.real_time;
  if (o.factory) options.path = ManagerPath::Factory;
  Timeline timeline(o.verbose);
  if (!o.quiet) {
    std::printf("%s\n\n", scenario.description.empty() ? scenario.name.c_str() : scenario.description.c_str());
    std::printf("time        dir event                         detail  (-> host to manager, <- manager to host)\n");
    options.on_event = [&timeline](const HostEvent& e) { timeline.Print(e); };
  }
  const RunResult result = RunScenario(scenario, options);
  std::fflush(stdout);

  int status = kOk;
  std::string error;
  if (!o.transcript.empty() && !WriteTranscript(o.transcript, result.events, &error)) {
    std::fprintf(stderr, "slicehost: %s\n", error.c_str());
    status = kBadInput;
  }
  if (!o.write_golden.empty() && !WriteTranscript(o.write_golden, result.events, &error)) {
    std::fprintf(stderr, "slicehost: %s\n", error.c_str());
    status = kBadInput;
  }
  if (!o.report.empty() && !WriteReport(o.report, result, &error)) {
    std::fprintf(stderr, "slicehost: %s\n", error.c_str());
    status = kBadInput;
  }
  if (!o.quiet) {
    const size_t hidden = timeline.Hidden(result.events);
    if (hidden > 0) {
      std::printf("(%zu log lines, fetches and security-information requests not shown; --verbose shows them)\n",
                  hidden);
    }
    std::printf("\n%s", SummaryText(result).c_str());
  }
  if (!o.expect.empty()) {
    if (auto difference = CompareTranscripts(golden, TranscriptText(result.events))) {
      std::fprintf(stderr, "slicehost: transcript differs from %s at %s\n", o.expect.c_str(), difference->c_str());
      return kFailed;
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
      std::printf("%s", kUsage);
      return kOk;
    }
    if (o.command == "bench") return Bench(o);
    return Play(o);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "slicehost: the run failed: %s\n", e.what());
    return kFailed;
  }
}
