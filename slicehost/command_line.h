// The command line of `slicehost`: its verbs, their options, their help
// texts and the checks made before anything runs.
//
// Threading: pure functions; no shared state.
#pragma once

#include <cstdint>
#include <string>

namespace tsm::sim {

// Exit codes of the program.
constexpr int kExitOk = 0;      // done; the transcript matched; check found nothing
constexpr int kExitFailed = 1;  // the transcript differs, the run failed, or check found warnings
constexpr int kExitBadInput = 2;  // bad command line, bad scenario file, a file that cannot be read or written

struct Options {
  std::string command;  // "demo", "run", "check", "bench"; empty with --help or --version alone
  bool help = false;    // print the help of `command` (or the general one)
  bool version = false;
  std::string scenario_path;
  std::string transcript;
  std::string report;
  std::string expect;
  std::string write_golden;
  bool real_time = false;
  bool quiet = false;
  bool summary_only = false;
  bool verbose = false;
  bool factory = false;  // the manager through the factory export instead of COM (Windows)
  int parents = 1000;
  int children = 20;
  int32_t bench_kind = 1;
  bool profile = false;
};

// Reads the arguments into `o`; returns an empty text when they are good,
// else what is wrong.
std::string ParseArgs(int argc, char** argv, Options* o);

// The help of `command` ("demo", "run", "check", "bench"), or the general
// help for any other text.
std::string HelpText(const std::string& command);

// What is wrong with the files named on the command line, found before the
// run: a scenario or golden file that is a directory or cannot be read, a
// transcript or report that cannot be written. Empty when nothing is.
std::string CheckFiles(const Options& o);

}  // namespace tsm::sim
