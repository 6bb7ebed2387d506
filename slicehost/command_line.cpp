#include "slicehost/command_line.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "slicehost/bench.h"

namespace tsm::sim {

namespace {

const char kGeneralHelp[] =
    "usage:\n"
    "  slicehost demo  [--transcript FILE] [--report FILE.html] [--real-time] [--quiet | --summary-only] [--verbose]\n"
    "  slicehost run   SCENARIO.json [the same options] [--expect GOLDEN.jsonl] [--write-golden NEW.jsonl]\n"
    "  slicehost check SCENARIO.json\n"
    "  slicehost bench [--parents N] [--children N] [--kind iceberg|slice-all] [--profile] [--factory]\n"
    "  slicehost --version\n"
    "\n"
    "demo     plays the embedded demo scenario and prints its timeline and summary\n"
    "run      plays a scenario file (format: docs/scenarios.md)\n"
    "check    prints the warnings of a scenario file without playing it\n"
    "bench    many parents with instant fills on the virtual clock; prints children per second\n"
    "\n"
    "`slicehost VERB --help` tells more about one verb.\n"
    "\n"
    "exit codes:\n"
    "  0  done: the run ended (and its transcript matched the golden file); check found nothing\n"
    "  1  the transcript differs from the golden file, the run failed, or check found warnings\n"
    "  2  bad command line, bad scenario file, or a file that cannot be read or written\n";

const char kPlayOptions[] =
    "  --transcript FILE     every call across the host link as JSON Lines\n"
    "  --report FILE.html    a self-contained HTML report: an overview chart and a chart per parent\n"
    "  --real-time           the wall clock instead of the virtual one\n"
    "  --quiet               no timeline and no summary (warnings are still printed)\n"
    "  --summary-only        the summary without the timeline\n"
    "  --verbose             the timeline shows log lines and fetches too\n"
    "  --factory             the manager through the factory export instead of COM (Windows)\n";

const char kExitCodes[] =
    "\n"
    "exit codes: 0 done, 1 the run failed or the transcript differs, 2 bad command line, scenario file or file\n";

const char kDemoHelp[] =
    "usage: slicehost demo [options]\n"
    "\n"
    "Plays the embedded demo scenario: nine parents of every slicing kind against the\n"
    "simulated exchange, on a virtual clock. Prints the timeline, then a summary per parent.\n"
    "\n"
    "options:\n";

const char kRunHelp[] =
    "usage: slicehost run SCENARIO.json [options]\n"
    "\n"
    "Plays a scenario file (format: docs/scenarios.md). Warnings about doubtful but valid\n"
    "scenarios go to standard error, one line each, also with --quiet; the run goes on.\n"
    "\n"
    "options:\n";

const char kRunOnlyOptions[] =
    "  --expect GOLDEN       compare the transcript with a golden file; exit 1 at the first difference\n"
    "  --write-golden NEW    write a new golden transcript (refuses to replace one: goldens are reviewed)\n";

const char kCheckHelp[] =
    "usage: slicehost check SCENARIO.json\n"
    "\n"
    "Reads a scenario file and prints its warnings (one line each on standard error) without\n"
    "playing it: malformed sessions or security info texts, parents on undeclared symbols,\n"
    "parents without SlicedType, LeavesQty or OrderQty, negative or 32-bit-overflowing\n"
    "quantities, steps naming unknown orders or records, sessions the run never reaches.\n"
    "\n"
    "exit codes: 0 no warnings, 1 warnings, 2 bad command line or scenario file\n";

const char kBenchHelp[] =
    "usage: slicehost bench [--parents N] [--children N] [--kind iceberg|slice-all] [--profile]\n"
    "\n"
    "Submits N parents at once against an exchange that acknowledges and fills every order\n"
    "at once, on the virtual clock, and measures how fast the manager works them.\n"
    "\n"
    "options:\n"
    "  --parents N           parents submitted (1 to 1000000; default 1000)\n"
    "  --children N          orders per parent (1 to 100000; default 20): each parent's quantity is N times\n"
    "                        its disclosed size of 100, so it ends in N-1 children and a final portion\n"
    "                        (with N = 1 in just the final portion)\n"
    "  --kind KIND           iceberg (a child after each fill; default) or slice-all (all children at once)\n"
    "  --profile             also a table of CPU time by thread class: threads, milliseconds, microseconds\n"
    "                        per child and share of all, and how busy the cores were\n"
    "  --factory             the manager through the factory export instead of COM (Windows)\n"
    "\n"
    "A run makes at most 200000 orders (parents times orders per parent); larger shapes are refused.\n"
    "\n"
    "prints the children sent, the simulated and real time, children per second, the host\n"
    "thread's time inside the manager per parent, and the CPU time per child of the base-data\n"
    "event thread, the host loop and the manager's timer threads, each from the thread's own\n"
    "CPU clock. Runs longer than 2 s print their progress to standard error once a second.\n"
    "\n"
    "exit codes: 0 done, 1 the run failed, 2 bad command line\n";

// A whole number from `low` to `high`; the message tells which when not.
std::string ParseCount(const std::string& option, const std::string& text, int low, int high, int* out) {
  const std::string wanted =
      option + " needs a whole number from " + std::to_string(low) + " to " + std::to_string(high);
  if (text.empty()) return wanted;
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (*end != '\0') return wanted + ", found \"" + text + "\"";
  if (errno == ERANGE || value < low || value > high) return wanted + ", found " + text + " (out of range)";
  *out = static_cast<int>(value);
  return {};
}

bool IsDirectory(const std::string& path) {
  std::error_code ec;
  return std::filesystem::is_directory(path, ec);
}

// Opens `path` for appending and closes it again; a file that did not
// exist before is removed, so that a run that fails later leaves nothing.
std::string CheckWritable(const std::string& option, const std::string& path) {
  if (path.empty()) return {};
  if (IsDirectory(path)) return option + " " + path + ": is a directory, not a file";
  std::error_code ec;
  const bool existed = std::filesystem::exists(path, ec);
  {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    if (!out) return option + " " + path + ": cannot be written";
  }
  if (!existed) std::filesystem::remove(path, ec);
  return {};
}

std::string CheckReadable(const std::string& what, const std::string& path) {
  if (path.empty()) return {};
  if (IsDirectory(path)) return path + ": is a directory; " + what + " is a file";
  std::ifstream in(path, std::ios::binary);
  if (!in) return path + ": cannot be opened for reading";
  return {};
}

}  // namespace

std::string ParseArgs(int argc, char** argv, Options* o) {
  if (argc < 2) return "no command given";
  int first = 1;
  const std::string verb = argv[1];
  if (verb == "help" || verb == "--help" || verb == "-h") {
    o->help = true;
    if (argc > 2) o->command = argv[2];
    return {};
  }
  if (verb == "--version") {
    o->version = true;
    return {};
  }
  if (verb != "demo" && verb != "run" && verb != "check" && verb != "bench") {
    return "unknown command \"" + verb + "\"";
  }
  o->command = verb;
  const bool plays = verb == "demo" || verb == "run";
  for (int i = first + 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::string number;
    if (arg == "--help" || arg == "-h") {
      o->help = true;
      return {};
    } else if (arg == "--transcript" && plays) {
      if (!value(&o->transcript)) return "--transcript needs a file name";
    } else if (arg == "--report" && plays) {
      if (!value(&o->report)) return "--report needs a file name";
    } else if (arg == "--expect" && verb == "run") {
      if (!value(&o->expect)) return "--expect needs a golden file";
    } else if (arg == "--write-golden" && verb == "run") {
      if (!value(&o->write_golden)) return "--write-golden needs a file name";
    } else if (arg == "--real-time" && plays) {
      o->real_time = true;
    } else if (arg == "--quiet" && plays) {
      o->quiet = true;
    } else if (arg == "--summary-only" && plays) {
      o->summary_only = true;
    } else if (arg == "--verbose" && plays) {
      o->verbose = true;
    } else if (arg == "--factory" && (plays || verb == "bench")) {
      o->factory = true;
    } else if (arg == "--parents" && verb == "bench") {
      value(&number);
      const std::string problem = ParseCount(arg, number, 1, 1000000, &o->parents);
      if (!problem.empty()) return problem;
    } else if (arg == "--children" && verb == "bench") {
      value(&number);
      const std::string problem = ParseCount(arg, number, 1, 100000, &o->children);
      if (!problem.empty()) return problem;
    } else if (arg == "--kind" && verb == "bench") {
      if (!value(&number) || (number != "iceberg" && number != "slice-all")) return "--kind needs iceberg or slice-all";
      o->bench_kind = number == "iceberg" ? 1 : 4;
    } else if (arg == "--profile" && verb == "bench") {
      o->profile = true;
    } else if ((verb == "run" || verb == "check") && o->scenario_path.empty() && !arg.empty() && arg[0] != '-') {
      o->scenario_path = arg;
    } else {
      return "unexpected argument \"" + arg + "\" for " + verb;
    }
  }
  if ((verb == "run" || verb == "check") && o->scenario_path.empty()) return verb + " needs a scenario file";
  if (verb == "bench" && static_cast<int64_t>(o->parents) * o->children > kBenchMaxOrders) {
    return std::to_string(o->parents) + " parents of " + std::to_string(o->children) + " orders make " +
           std::to_string(static_cast<int64_t>(o->parents) * o->children) + " orders, over the " +
           std::to_string(kBenchMaxOrders) + " a bench run may make; use fewer parents or fewer orders per parent";
  }
  if (o->quiet && o->summary_only) return "--quiet and --summary-only exclude each other";
  return {};
}

std::string HelpText(const std::string& command) {
  if (command == "demo") return std::string(kDemoHelp) + kPlayOptions + kExitCodes;
  if (command == "run") return std::string(kRunHelp) + kPlayOptions + kRunOnlyOptions + kExitCodes;
  if (command == "check") return kCheckHelp;
  if (command == "bench") return kBenchHelp;
  return kGeneralHelp;
}

std::string CheckFiles(const Options& o) {
  for (const std::string& problem :
       {CheckReadable("a scenario", o.scenario_path), CheckReadable("a golden transcript", o.expect),
        CheckWritable("--transcript", o.transcript), CheckWritable("--report", o.report),
        o.write_golden.empty() || !IsDirectory(o.write_golden)
            ? std::string()
            : "--write-golden " + o.write_golden + ": is a directory, not a file"}) {
    if (!problem.empty()) return problem;
  }
  return {};
}

}  // namespace tsm::sim
