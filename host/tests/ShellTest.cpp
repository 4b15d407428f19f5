// The real `ostrand shell` with the real module: texts compared exactly.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include "ProgramRunner.hpp"

namespace {

using ostrand_test::ProgramRun;
using ostrand_test::readFile;

class ShellTest : public ::testing::Test {
 protected:
  ProgramRun run(const std::string& args, const std::string& input, const std::string& env = "") {
    return runner_.run(args, input, "", env);
  }
  ostrand_test::ProgramRunner runner_;
  const std::string& dir_ = runner_.dir();
};

TEST_F(ShellTest, ScriptedExchangeMatchesTheGoldenTranscript) {
  std::string golden = std::string(OSTRAND_SOURCE_DIR) + "/host/tests/golden/";
  ProgramRun r = run("shell", readFile(golden + "session.jsonl"));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, readFile(golden + "session.expected"));
}

// The messages and exit codes of bad command lines and modules that cannot
// be loaded are in the program's transcript (golden/program.txt).
TEST_F(ShellTest, HelpAndABadLineOfInput) {
  ProgramRun help = run("shell --help", "");
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("usage: ostrand shell"), std::string::npos);

  ProgramRun top = run("--help", "");
  EXPECT_EQ(top.exitCode, 0);
  EXPECT_NE(top.out.find("shell"), std::string::npos);

  ProgramRun nul = run("shell", std::string("{\"command\":\"cloudTrace.stopSession\",\"id\":1}\n{\"a\0\"}\n", 48));
  EXPECT_EQ(nul.exitCode, 4);
  EXPECT_NE(nul.err.find("line 2 holds a NUL byte"), std::string::npos);
  EXPECT_EQ(nul.out, "{\"response\":1}\n");
}

TEST_F(ShellTest, EveryLineIsAnsweredOrRefusedAndTheShellSurvivesAnyInput) {
  // Nesting beyond the JSON reader's limit is answered by the module; two
  // messages on one line would lose the second's reply, so they are refused.
  const std::string deep = std::string(1001, '[') + std::string(1001, ']') + "\n";
  ProgramRun r = run("shell --wait 5",
                     deep + "{\"command\":\"cloudTrace.stopSession\",\"id\":1}"
                            "{\"command\":\"cloudTrace.stopSession\",\"id\":2}\n"
                            "{\"command\":\"cloudTrace.stopSession\",\"id\":3}\n");
  EXPECT_EQ(r.exitCode, 4) << r.err;
  EXPECT_NE(r.err.find("line 2 holds more than one JSON message"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("still owed"), std::string::npos) << r.err;
  EXPECT_NE(r.out.find("\"error\":null"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("{\"response\":3}"), std::string::npos) << r.out;
}

TEST_F(ShellTest, TrafficAndDiagnosticLogsWhenAsked) {
  // The JSON traffic log and the module's own log, both switched on by
  // environment variables of the host process.
  std::string traffic = dir_ + "/traffic.log";
  ProgramRun r = run("shell", "{\"command\":\"cloudTrace.stopSession\",\"id\":3}\n",
                     "OSTRAND_JSON_LOG='" + traffic + "' QX_TRACE_LOGGING=1");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::string log = readFile(traffic);
  EXPECT_NE(log.find(" -> {\"command\":\"cloudTrace.stopSession\",\"id\":3}\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" <- {\"response\":3}\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" -> ~Translator()\n"), std::string::npos) << log;
  bool found = false;
  for (const auto& entry : std::filesystem::directory_iterator(dir_ + "/.QX-trace")) {
    std::string name = entry.path().filename();
    if (name.rfind("qx_trace_log_", 0) == 0) {
      found = true;
      EXPECT_NE(readFile(entry.path()).find("Logger : trace user settings directory is "), std::string::npos);
    }
  }
  EXPECT_TRUE(found) << "no qx_trace_log_*.txt in " << dir_ << "/.QX-trace";
}

TEST_F(ShellTest, EndOfInputWaitsForOwedRepliesOnly) {
  // A cancel of a command already answered owes nothing; the shell ends at
  // once without using up its wait.
  auto start = std::chrono::steady_clock::now();
  ProgramRun r = run("shell --wait 20", "{\"command\":\"cloudTrace.stopSession\",\"id\":1}\n{\"cancel\":1}\n");
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

}  // namespace
