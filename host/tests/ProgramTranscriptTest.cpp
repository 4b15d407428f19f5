// `ostrand` runs as a user makes them from the repository's root, as a
// transcript: golden/program.txt holds the arguments of each run,
// golden/program.expected what each printed and its exit status. The
// commands that need the module have tests of their own.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "ProgramRunner.hpp"
#include "TestSupport.hpp"

namespace {

void quote(std::ostringstream& out, const std::string& text, const char* mark) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) out << mark << line << "\n";
}

TEST(ProgramTranscript, LookupDisasmAndTheProgramItself) {
  const std::string golden = ostrand_test::sourcePath("host/tests/golden/program");
  std::ifstream in(golden + ".txt");
  ASSERT_TRUE(in);
  ostrand_test::ProgramRunner runner;
  std::ostringstream transcript;
  std::string args;
  while (std::getline(in, args)) {
    if (args.empty() || args[0] == '#') continue;
    const ostrand_test::ProgramRun run = runner.run(args, "", OSTRAND_SOURCE_DIR);
    transcript << "$ ostrand " << args << "\n";
    quote(transcript, run.out, "| ");
    quote(transcript, run.err, "! ");
    transcript << "= exit " << run.exitCode << "\n";
  }
  EXPECT_TRUE(ostrand_test::matchesGolden(transcript.str(), golden + ".expected"));
}

}  // namespace
