#include "kit/CapstoneDisasmManager.hpp"

#include <gtest/gtest.h>

#include "kit/ElfSymbolManager.hpp"
#include "symbols/TargetEnvironment.hpp"

namespace {

const std::string kFirmware = std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/";
constexpr uint32_t kArmProcessor = 0x75803800;  // family 470

struct Line {
  int32_t size;
  uint64_t address;
  std::string text;
};

class Collector : public disasm_lite::IDisassembler::IResultInserter {
 public:
  void insert(const disasm_lite::DisassemblyRecord* r) override {
    lines.push_back({r->size, r->address, r->second});
  }
  std::vector<Line> lines;
};

class CapstoneDisasmManagerTest : public ::testing::Test {
 protected:
  disasm_lite::IDisassembler* make(const std::string& elf, bool bigEndian = false,
                                   uint32_t processor = kArmProcessor) {
    package = symbols.openPackage((kFirmware + elf).c_str());
    environment = disasm_lite::makeTargetEnvironment(processor, bigEndian);
    return disassembler = manager.createDisassembler(environment.get(), package);
  }
  Line one(uint64_t address) {
    disasm_lite::DisassemblyRecord r{};
    disassembler->disassembleOne(&r, {address});
    return {r.size, r.address, r.second};
  }
  void TearDown() override {
    if (disassembler) manager.destroyDisassembler(disassembler);
    if (package) symbols.releasePackage(package);
  }
  hostkit::ElfSymbolManager symbols;
  hostkit::CapstoneDisasmManager manager;
  sym_lite::ISymbolPackage* package = nullptr;
  std::unique_ptr<disasm_lite::TargetEnvironment> environment;
  disasm_lite::IDisassembler* disassembler = nullptr;
};

// Listings of ranges (literal pools, vectors, data, the end of the file)
// are in the program's transcript (golden/program.txt, `disasm`).
TEST_F(CapstoneDisasmManagerTest, ThumbTwoAndSystemRegistersOnMClass) {
  ASSERT_NE(make("m4.elf"), nullptr);
  auto bl = one(0xE4);
  EXPECT_EQ(bl.size, 4);
  EXPECT_EQ(bl.text.substr(0, 18), "000000E4 E92D41F0 ");
  Collector out;
  disassembler->disassembleRange({0xE4}, {0x150}, &out);
  bool sawMrs = false;
  for (const auto& line : out.lines) {
    EXPECT_GT(line.size, 0) << line.text;
    sawMrs = sawMrs || line.text.find("mrs r") != std::string::npos;
  }
  EXPECT_TRUE(sawMrs) << "the PRIMASK read in main did not decode";
}

TEST_F(CapstoneDisasmManagerTest, ByteOrderIsTheEnvironmentsToSay) {
  ASSERT_NE(make("m0plus.elf", /*bigEndian=*/true), nullptr);
  // The bytes 10 B5 read big-endian are the halfword 0x10B5, not 0xB510.
  EXPECT_EQ(one(0xB0).text.substr(0, 13), "000000B0 10B5");
  EXPECT_EQ(environment->query().name, "REG_ENDIAN");
  EXPECT_EQ(one(0x10000).size, 0);  // beyond the file: nothing
}

TEST_F(CapstoneDisasmManagerTest, OnlyArmProcessorsWithALoadedPackageGetADisassembler) {
  EXPECT_EQ(make("m0plus.elf", false, 320u << 22 | 102u << 10), nullptr);
  auto env = disasm_lite::makeTargetEnvironment(kArmProcessor, false);
  EXPECT_EQ(manager.createDisassembler(env.get(), nullptr), nullptr);
  auto* empty = symbols.createPackage(nullptr);
  EXPECT_EQ(manager.createDisassembler(env.get(), empty), nullptr);
  symbols.releasePackage(empty);
}

}  // namespace
