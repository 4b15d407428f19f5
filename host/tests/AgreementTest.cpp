// Agreement with the GNU tools for Arm: over every instruction address of
// the test programs, function and line must match arm-none-eabi-addr2line
// and the mnemonic arm-none-eabi-objdump, each for at least 99% of
// addresses. The answers go through ObjectFileInfo and CloudDisasm, as the
// trace tables get them. The differences that remain are listed in
// docs/symbols-agreement.md.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

#include "HostKitApis.hpp"
#include "TestSupport.hpp"
#include "symbols/CloudDisasm.hpp"
#include "symbols/ObjectFileInfo.hpp"

namespace {

using ostrand_test::commandOutput;

const std::string kFirmware = std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/";

bool haveTool(const char* tool) {
  return commandOutput(std::string("command -v ") + tool + " 2>/dev/null").size() > 0;
}

struct Instruction {
  uint64_t address;
  std::string mnemonic;
};

// "  8e:\tbf30      \twfi" -> {0x8e, "wfi"}.
std::vector<Instruction> objdumpInstructions(const std::string& elf) {
  std::vector<Instruction> out;
  std::istringstream in(commandOutput("arm-none-eabi-objdump -d " + elf));
  std::string line;
  while (std::getline(in, line)) {
    // address ":" TAB opcode TAB mnemonic [operands]
    const size_t colon = line.find(":\t");
    const size_t start = line.find_first_not_of(' ');
    if (colon == std::string::npos || start >= colon) continue;
    const std::string address = line.substr(start, colon - start);
    if (address.find_first_not_of("0123456789abcdef") != std::string::npos) continue;
    const size_t tab = line.find('\t', colon + 2);
    if (tab == std::string::npos) continue;
    std::string mnemonic = line.substr(tab + 1);
    mnemonic = mnemonic.substr(0, mnemonic.find_first_of(" \t"));
    if (!mnemonic.empty()) out.push_back({std::stoull(address, nullptr, 16), mnemonic});
  }
  return out;
}

// The two tools spell some instructions differently; these are the same
// instruction under both names.
std::string normalised(std::string mnemonic) {
  for (auto suffix : {".n", ".w"})
    if (mnemonic.size() > 2 && mnemonic.ends_with(suffix)) mnemonic.resize(mnemonic.size() - 2);
  static const std::map<std::string, std::string> kAliases = {
      {"stmia", "stm"}, {"ldmia", "ldm"}, {"bcs", "bhs"}, {"bcc", "blo"},
      {"movcs", "movhs"}, {"movcc", "movlo"}};
  auto alias = kAliases.find(mnemonic);
  return alias == kAliases.end() ? mnemonic : alias->second;
}

std::string ourMnemonic(const std::string& text) {
  auto blanks = text.find("    ");
  if (blanks == std::string::npos) return "";
  std::string rest = text.substr(blanks + 4);
  return rest.substr(0, rest.find(' '));
}

class AgreementTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (!haveTool("arm-none-eabi-objdump") || !haveTool("arm-none-eabi-addr2line"))
      GTEST_SKIP() << "binutils-arm-none-eabi is not installed (scripts/install-deps.sh)";
    ostrand_test::HostKitApis::install();
  }
  void TearDown() override { ostrand_test::HostKitApis::uninstall(); }
};

TEST_P(AgreementTest, FunctionLineAndMnemonicMatchTheGnuTools) {
  const std::string elf = kFirmware + GetParam();
  auto instructions = objdumpInstructions(elf);
  ASSERT_GT(instructions.size(), 50u);

  std::ostringstream addresses;
  for (const auto& i : instructions) addresses << "0x" << std::hex << i.address << "\n";
  // One file per program: the programs run as tests of their own, side by side.
  const std::string list = ::testing::TempDir() + "agreement_addresses_" + GetParam() + ".txt";
  std::ofstream(list) << addresses.str();
  std::istringstream answers(commandOutput("arm-none-eabi-addr2line -f -e " + elf + " < " + list));

  auto info = ObjectFileInfo::create(elf);
  ASSERT_NE(info, nullptr);
  CloudDisasm disasm(info, 0x75803800);

  size_t functionLineSame = 0, mnemonicSame = 0;
  std::ostringstream differences;
  for (const auto& instruction : instructions) {
    std::string gnuFunction, gnuPlace;
    std::getline(answers, gnuFunction);
    std::getline(answers, gnuPlace);
    std::string gnuLine = gnuPlace.substr(gnuPlace.rfind(':') + 1);
    gnuLine = gnuLine.substr(0, gnuLine.find(' '));  // " (discriminator n)"

    std::string function, file, directory;
    uint32_t line = 0;
    const bool found = info->lookupFunction(instruction.address, function, file, directory);
    const bool lined = info->lookupSourceLine(instruction.address, &line, nullptr);
    const std::string ourFunction = found ? function : "??";
    const std::string ourLine = lined && line ? std::to_string(line) : "?";
    if (ourFunction == gnuFunction && (ourLine == gnuLine || (gnuLine == "0" && ourLine == "?")))
      ++functionLineSame;
    else
      differences << std::hex << instruction.address << std::dec << ": ours " << ourFunction
                  << ":" << ourLine << ", gnu " << gnuFunction << ":" << gnuLine << "\n";

    auto decoded = disasm.DisassembleOne({instruction.address});
    const std::string mnemonic = ourMnemonic(decoded.text);
    if (normalised(mnemonic) == normalised(instruction.mnemonic))
      ++mnemonicSame;
    else
      differences << std::hex << instruction.address << std::dec << ": ours '" << mnemonic
                  << "', gnu '" << instruction.mnemonic << "'\n";
  }
  const double total = double(instructions.size());
  RecordProperty("instructions", int(instructions.size()));
  std::printf("%s: %zu instructions, function+line %.2f%%, mnemonic %.2f%%\n%s", GetParam(),
              instructions.size(), 100.0 * functionLineSame / total,
              100.0 * mnemonicSame / total, differences.str().c_str());
  EXPECT_GE(functionLineSame / total, 0.99) << differences.str();
  EXPECT_GE(mnemonicSame / total, 0.99) << differences.str();
}

INSTANTIATE_TEST_SUITE_P(Programs, AgreementTest, ::testing::Values("m0plus.elf", "m4.elf", "bench.elf", "run_mps2.elf"),
                         [](const auto& info) {
                           std::string name = info.param;
                           return name.substr(0, name.find('.'));
                         });

}  // namespace
