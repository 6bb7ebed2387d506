#include "slicehost/command_line.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace tsm::sim {
namespace {

// ParseArgs over the words of a command line (program name first).
std::string Parse(std::vector<std::string> words, Options* o) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  return ParseArgs(static_cast<int>(argv.size()), argv.data(), o);
}

TEST(CommandLine, EveryVerbHasItsOwnHelp) {
  for (const char* verb : {"demo", "run", "check", "bench"}) {
    Options o;
    EXPECT_EQ(Parse({"slicehost", verb, "--help"}, &o), "") << verb;
    EXPECT_TRUE(o.help) << verb;
    EXPECT_EQ(o.command, verb);
    const std::string help = HelpText(verb);
    EXPECT_EQ(help.rfind(std::string("usage: slicehost ") + verb, 0), 0u) << help;
    EXPECT_NE(help.find("exit codes"), std::string::npos) << verb;
  }
  Options o;
  EXPECT_EQ(Parse({"slicehost", "help", "run"}, &o), "");
  EXPECT_EQ(o.command, "run");
}

TEST(CommandLine, GeneralHelpNamesTheExitCodes) {
  const std::string help = HelpText("");
  EXPECT_NE(help.find("  0  done"), std::string::npos);
  EXPECT_NE(help.find("  1  the transcript differs"), std::string::npos);
  EXPECT_NE(help.find("  2  bad command line"), std::string::npos);
  EXPECT_NE(help.find("slicehost check SCENARIO.json"), std::string::npos);
  EXPECT_NE(help.find("slicehost --version"), std::string::npos);
}

TEST(CommandLine, VersionIsAnOptionOfItsOwn) {
  Options o;
  EXPECT_EQ(Parse({"slicehost", "--version"}, &o), "");
  EXPECT_TRUE(o.version);
}

TEST(CommandLine, BenchHelpSaysWhatChildrenCounts) {
  const std::string help = HelpText("bench");
  EXPECT_NE(help.find("--children N          orders per parent"), std::string::npos) << help;
  EXPECT_NE(help.find("N-1 children and a final portion"), std::string::npos) << help;
  EXPECT_NE(help.find("--parents N"), std::string::npos);
  EXPECT_NE(help.find("--kind KIND"), std::string::npos);
}

TEST(CommandLine, SummaryOnlyIsTakenAndExcludesQuiet) {
  Options o;
  EXPECT_EQ(Parse({"slicehost", "demo", "--summary-only"}, &o), "");
  EXPECT_TRUE(o.summary_only);
  Options both;
  EXPECT_EQ(Parse({"slicehost", "demo", "--summary-only", "--quiet"}, &both),
            "--quiet and --summary-only exclude each other");
}

TEST(CommandLine, NumbersOutOfRangeAreNotCalledFractional) {
  Options o;
  EXPECT_EQ(Parse({"slicehost", "bench", "--parents", "99999999999999999999"}, &o),
            "--parents needs a whole number from 1 to 1000000, found 99999999999999999999 (out of range)");
  EXPECT_EQ(Parse({"slicehost", "bench", "--children", "0"}, &o),
            "--children needs a whole number from 1 to 100000, found 0 (out of range)");
  EXPECT_EQ(Parse({"slicehost", "bench", "--children", "1.5"}, &o),
            "--children needs a whole number from 1 to 100000, found \"1.5\"");
  EXPECT_EQ(Parse({"slicehost", "bench", "--parents"}, &o), "--parents needs a whole number from 1 to 1000000");
}

TEST(CommandLine, BenchShapesOverTheLimitAreRefused) {
  Options o;
  EXPECT_EQ(Parse({"slicehost", "bench", "--parents", "1000", "--children", "300"}, &o),
            "1000 parents of 300 orders make 300000 orders, over the 200000 a bench run may make; use fewer "
            "parents or fewer orders per parent");
  Options at_limit;
  EXPECT_EQ(Parse({"slicehost", "bench", "--parents", "1000", "--children", "200"}, &at_limit), "");
  Options by_default;
  EXPECT_EQ(Parse({"slicehost", "bench", "--parents", "20000"}, &by_default),
            "20000 parents of 20 orders make 400000 orders, over the 200000 a bench run may make; use fewer "
            "parents or fewer orders per parent");
}

TEST(CommandLine, BenchProfileIsAnOptionOfBenchOnly) {
  Options o;
  EXPECT_EQ(Parse({"slicehost", "bench", "--profile"}, &o), "");
  EXPECT_TRUE(o.profile);
  Options demo;
  EXPECT_EQ(Parse({"slicehost", "demo", "--profile"}, &demo), "unexpected argument \"--profile\" for demo");
  EXPECT_NE(HelpText("bench").find("--profile"), std::string::npos);
  EXPECT_NE(HelpText("bench").find("at most 200000 orders"), std::string::npos);
}

TEST(CommandLine, CheckNeedsAScenario) {
  Options o;
  EXPECT_EQ(Parse({"slicehost", "check"}, &o), "check needs a scenario file");
  Options bench;
  EXPECT_EQ(Parse({"slicehost", "bench", "--report", "x.html"}, &bench), "unexpected argument \"--report\" for bench");
}

class CommandLineFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("slicehost_cli_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string Path(const std::string& name) const { return (dir_ / name).string(); }

  std::filesystem::path dir_;
};

TEST_F(CommandLineFiles, DirectoryAsScenarioOrGoldenIsRefused) {
  Options o;
  o.scenario_path = dir_.string();
  EXPECT_EQ(CheckFiles(o), dir_.string() + ": is a directory; a scenario is a file");
  Options expect;
  expect.expect = dir_.string();
  EXPECT_EQ(CheckFiles(expect), dir_.string() + ": is a directory; a golden transcript is a file");
}

TEST_F(CommandLineFiles, OutputThatCannotBeWrittenIsRefusedBeforeTheRun) {
  Options o;
  o.report = Path("no/such/folder/report.html");
  EXPECT_EQ(CheckFiles(o), "--report " + o.report + ": cannot be written");
  Options t;
  t.transcript = dir_.string();
  EXPECT_EQ(CheckFiles(t), "--transcript " + dir_.string() + ": is a directory, not a file");
}

TEST_F(CommandLineFiles, WritableOutputsPassAndLeaveNoFileBehind) {
  Options o;
  o.report = Path("report.html");
  o.transcript = Path("t.jsonl");
  EXPECT_EQ(CheckFiles(o), "");
  EXPECT_FALSE(std::filesystem::exists(o.report));
  EXPECT_FALSE(std::filesystem::exists(o.transcript));
  std::ofstream(Path("kept.jsonl")) << "kept";
  o.transcript = Path("kept.jsonl");
  EXPECT_EQ(CheckFiles(o), "");
  std::ifstream in(o.transcript);
  std::string text;
  in >> text;
  EXPECT_EQ(text, "kept");
}

}  // namespace
}  // namespace tsm::sim
