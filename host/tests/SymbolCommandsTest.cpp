// `ostrand lookup` and `ostrand disasm` on the committed test firmware, as a
// user runs them from the repository's root.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "ProgramRunner.hpp"

namespace {

std::vector<std::string> fields(const std::string& line) {
  std::vector<std::string> out;
  std::stringstream s(line);
  std::string f;
  while (std::getline(s, f, '\t')) out.push_back(f);
  if (!line.empty() && line.back() == '\t') out.emplace_back();
  return out;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::stringstream s(text);
  std::string l;
  while (std::getline(s, l)) out.push_back(l);
  return out;
}

class SymbolCommandsTest : public ::testing::Test {
 protected:
  ostrand_test::ProgramRun run(const std::string& args) { return runner_.run(args, "", OSTRAND_SOURCE_DIR); }
  ostrand_test::ProgramRunner runner_;
};

TEST_F(SymbolCommandsTest, LookupBySymbolAndAddressAgree) {
  auto bySymbol = run("lookup --elf testdata/firmware/m4.elf main");
  ASSERT_EQ(bySymbol.exitCode, 0) << bySymbol.err;
  auto f = fields(lines(bySymbol.out).at(0));
  ASSERT_EQ(f.size(), 6u) << bySymbol.out;
  EXPECT_EQ(f[1], "main");
  EXPECT_EQ(f[2], "main.c");
  EXPECT_EQ(f[3], "testdata/firmware/m4");
  EXPECT_NE(f[5].find("main"), std::string::npos);  // the source text of that line

  auto byAddress = run("lookup --elf testdata/firmware/m4.elf " + f[0] + " --json");
  ASSERT_EQ(byAddress.exitCode, 0) << byAddress.err;
  EXPECT_NE(byAddress.out.find("\"function\":\"main\""), std::string::npos) << byAddress.out;
  EXPECT_NE(byAddress.out.find("\"line\":" + f[4]), std::string::npos);
}

TEST_F(SymbolCommandsTest, LookupReportsUnknownsAndBadInput) {
  auto unknown = run("lookup --elf testdata/firmware/m4.elf no_such_symbol");
  EXPECT_EQ(unknown.exitCode, 1);
  EXPECT_NE(unknown.err.find("no_such_symbol"), std::string::npos);

  auto missing = run("lookup --elf /nonexistent.elf main");
  EXPECT_EQ(missing.exitCode, 4);
  EXPECT_FALSE(missing.err.empty());

  auto notElf = run("lookup --elf README.md main");
  EXPECT_EQ(notElf.exitCode, 4);

  auto usage = run("lookup main");
  EXPECT_EQ(usage.exitCode, 2);
  EXPECT_EQ(run("lookup --help").exitCode, 0);
}

TEST_F(SymbolCommandsTest, DisasmCoversTheRangeThroughTheLastInstruction) {
  auto start = fields(lines(run("lookup --elf testdata/firmware/m0plus.elf main").out).at(0))[0];
  unsigned long from = std::stoul(start, nullptr, 16);
  auto r = run("disasm --elf testdata/firmware/m0plus.elf --from " + std::to_string(from) + " --to " +
               std::to_string(from + 6));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  auto rows = lines(r.out);
  ASSERT_FALSE(rows.empty());
  unsigned long expected = from;
  for (const auto& row : rows) {
    auto f = fields(row);
    ASSERT_EQ(f.size(), 3u) << row;
    EXPECT_EQ(std::stoul(f[0], nullptr, 16), expected);  // contiguous, no gaps
    expected += std::stoul(f[1]);
    EXPECT_FALSE(f[2].empty());
  }
  // The instruction at --to is included: the run ends past it.
  EXPECT_GT(expected, from + 6);
  EXPECT_LE(expected, from + 6 + 4);

  auto json = run("disasm --json --elf testdata/firmware/m0plus.elf --from " + start + " --to " + start);
  ASSERT_EQ(json.exitCode, 0) << json.err;
  EXPECT_EQ(lines(json.out).size(), 1u);
  EXPECT_NE(json.out.find("\"size\":"), std::string::npos);

  EXPECT_EQ(run("disasm --elf testdata/firmware/m0plus.elf --from 0x20 --to 0x10").exitCode, 2);
  EXPECT_EQ(run("disasm --elf testdata/firmware/m0plus.elf --from zz --to 0x10").exitCode, 2);
}

}  // namespace
