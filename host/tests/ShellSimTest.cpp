// `ostrand shell` with the simulated tool libraries of the build tree:
// golden transcripts of the module with tools and no debug session, with a
// scenario (devices, receivers, a run driven by host lines), and without
// one required library; the host lines' own failures and exit codes.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ProgramRunner.hpp"
#include "TestSupport.hpp"

namespace {

namespace fs = std::filesystem;
using ostrand_test::ProgramRun;
using ostrand_test::readFile;

const std::string kGolden = std::string(OSTRAND_SOURCE_DIR) + "/host/tests/golden/";
const std::string kBase = std::string(OSTRAND_BUILD_DIR) + "/vsk_base";

// The program paths of a scenario depend on where the tree is built.
std::string portable(const std::string& text) {
  return ostrand_test::replaceAll(text, kBase, "<base>");
}

class ShellSimTest : public ::testing::Test {
 protected:
  ProgramRun run(const std::string& args, const std::string& input) { return runner_.run(args, input); }
  ostrand_test::ProgramRunner runner_;
};

struct Transcript {
  const char* name;
  const char* args;
};

class ShellSimTranscript : public ShellSimTest, public ::testing::WithParamInterface<Transcript> {};

TEST_P(ShellSimTranscript, MatchesTheGoldenFile) {
  ProgramRun r = run(GetParam().args, readFile(kGolden + GetParam().name + ".jsonl"));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(ostrand_test::matchesGolden(portable(r.out), kGolden + GetParam().name + ".expected"));
}

INSTANTIATE_TEST_SUITE_P(Sim, ShellSimTranscript,
                         ::testing::Values(Transcript{"sim_no_session", "shell"},
                                           Transcript{"sim_default", "shell --sim"}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ShellSimTest, WithoutOneRequiredLibraryTheModuleRunsWithoutTools) {
  const std::string tree = runner_.dir() + "/tree/vsk_base";
  fs::create_directories(tree);
  for (const char* part : {"lib", "emulation", "ProbeHost"}) {
    fs::copy(kBase + "/" + part, tree + "/" + part, fs::copy_options::recursive);
  }
  fs::remove(tree + "/emulation/analysis/bin/libXEVProperties.so");
  ProgramRun r = run("shell --module '" + tree + "/lib/libOstrand.so'", readFile(kGolden + "sim_no_tools.jsonl"));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, readFile(kGolden + "sim_no_tools.expected"));
}

TEST_F(ShellSimTest, HostLineFailuresSayWhatToDoAndEndWithOne) {
  ProgramRun noSim = run("shell", ":targets\n");
  EXPECT_EQ(noSim.exitCode, 1);
  EXPECT_NE(noSim.err.find("line 1: host lines drive the simulated targets; start the shell with --sim"),
            std::string::npos);

  ProgramRun bad = run("shell --sim",
                       ":run NOPE\n:connect mps2/CM4\n:run mps2/CM4 lots\n:frob\n:wait never-printed 1\n:sleep x\n"
                       ":files ~/no-such-dir\n");
  EXPECT_EQ(bad.exitCode, 1);
  for (const std::string& text : std::vector<std::string>{
           "line 1: :run NOPE: No CPU 'NOPE' in scenario 'default' (CPUs: microbit/CM0P, mps2/CM4)",
           "line 3: :run takes a number of instructions",
                           "line 4: unknown host line ':frob'",
                           "line 5: :wait: no line with 'never-printed' came within 1 s",
                           "line 6: :sleep needs milliseconds",
                           "line 7: :files " + runner_.dir() + "/no-such-dir: No such file or directory"}) {
    EXPECT_NE(bad.err.find(text), std::string::npos) << text << "\n" << bad.err;
  }

  std::ofstream(runner_.dir() + "/broken.json") << "{\"name\":\"x\"}";
  ProgramRun broken = run("shell --sim '" + runner_.dir() + "/broken.json'", "");
  EXPECT_EQ(broken.exitCode, 4);
  EXPECT_NE(broken.err.find("'devices' must be a non-empty array"), std::string::npos) << broken.err;

  ProgramRun help = run("shell --help", "");
  EXPECT_NE(help.out.find(":run CPU [N]"), std::string::npos);
}

}  // namespace
