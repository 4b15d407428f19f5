// The host kit's managers as the module meets them: the ELF symbol
// manager's load failures, compile units, function ranges and package
// ownership; the Capstone disassembly manager on M-class code, byte order
// and the processors it serves. Lookups and listings by address are in the
// program's transcript (`lookup` and `disasm` in golden/program.txt).
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "kit/CapstoneDisasmManager.hpp"
#include "kit/ElfSymbolManager.hpp"
#include "symbols/TargetEnvironment.hpp"

namespace {

const std::string kFirmware = std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/";

class Listener : public sym_lite::LoadListener {
 public:
  void onLoaded() override { ++loaded; }
  void onLoadFailed(uint32_t s) override {
    ++failed;
    status = s;
  }
  int loaded = 0, failed = 0;
  uint32_t status = 0;
};

class ElfSymbolManagerTest : public ::testing::Test {
 protected:
  sym_lite::ISymbolPackage* open(const std::string& name) {
    auto* package = manager.openPackage((kFirmware + name).c_str());
    EXPECT_NE(package, nullptr) << name;
    opened.push_back(package);
    return package;
  }
  void TearDown() override {
    for (auto* p : opened) manager.releasePackage(p);
  }
  hostkit::ElfSymbolManager manager;
  std::vector<sym_lite::ISymbolPackage*> opened;
};

TEST_F(ElfSymbolManagerTest, LoadFailuresReportOnceWithTheirCause) {
  const std::string notElf = ::testing::TempDir() + "not_an_elf.txt";
  std::ofstream(notElf) << "plain text";
  struct Case {
    std::string path;
    uint32_t status;
  } cases[] = {{"/nonexistent/prog.elf", sym_lite::kLoadNotFound},
               {notElf, sym_lite::kLoadNotElf},
               {"/proc/self/exe", sym_lite::kLoadUnsupported}};  // this x86 test program
  auto* package = manager.createPackage(nullptr);
  for (const auto& c : cases) {
    Listener listener;
    package->loadFile(c.path.c_str(), &listener);
    EXPECT_EQ(listener.loaded, 0) << c.path;
    EXPECT_EQ(listener.failed, 1) << c.path;
    EXPECT_EQ(listener.status, c.status) << c.path;
    EXPECT_EQ(manager.openPackage(c.path.c_str()), nullptr);
    EXPECT_EQ(manager.lastStatus(), c.status);
  }
  EXPECT_STREQ(package->objectFilePath(), "");  // nothing loaded, nothing named
  Listener ok;
  package->loadFile((kFirmware + "m4.elf").c_str(), &ok);
  EXPECT_EQ(ok.loaded, 1);
  EXPECT_EQ(std::string(package->objectFilePath()), kFirmware + "m4.elf");
  manager.releasePackage(package);
}

TEST_F(ElfSymbolManagerTest, CompileUnitsCarryTheirSectionsLinesAndBytes) {
  auto* package = open("m0plus.elf");
  ASSERT_GE(package->compileUnitCount(), 4u);  // startup, main, sensor, checksum (+ libgcc)
  bool sawMain = false;
  for (uint32_t u = 0; u < package->compileUnitCount(); ++u) {
    sym_lite::UnitInfo unit{};
    package->compileUnit(u)->info(&unit);
    if (!unit.name || std::strcmp(unit.name, "m0plus/main.c") != 0) continue;
    sawMain = true;
    EXPECT_STREQ(unit.directory, "testdata/firmware");
    ASSERT_EQ(unit.sectionCount, 1u);
    auto* section = package->compileUnit(u)->section(0);
    sym_lite::SectionInfo info{};
    section->info(&info);
    EXPECT_STREQ(info.name, ".text");
    std::vector<sym_lite::LineEntry> lines(info.lineCount);
    std::vector<sym_lite::AddressRange> ranges(info.rangeCount);
    section->lines(lines.data());
    section->ranges(ranges.data());
    ASSERT_FALSE(lines.empty());
    ASSERT_FALSE(ranges.empty());
    for (const auto& line : lines) {
      EXPECT_GE(line.address, info.baseAddress);
      // main.c and the device header it includes from ../common.
      EXPECT_EQ(std::string(line.directory).rfind("testdata/firmware/m0plus", 0), 0u);
    }
    // SysTick_Handler at 0xB0 begins with "push {r4, lr}" (0xB510).
    const auto* bytes = reinterpret_cast<const uint8_t*>(info.data);
    EXPECT_EQ(bytes[0xB0 - info.baseAddress], 0x10);
    EXPECT_EQ(bytes[0xB1 - info.baseAddress], 0xB5);
  }
  EXPECT_TRUE(sawMain);
  EXPECT_EQ(package->compileUnit(package->compileUnitCount()), nullptr);
}

TEST_F(ElfSymbolManagerTest, FunctionRangesAscendWithoutOverlap) {
  auto* package = open("bench.elf");
  ASSERT_GT(package->functionCount(), 3000u);
  uint64_t previousEnd = 0;
  for (uint32_t i = 0; i < package->functionCount(); ++i) {
    sym_lite::FunctionRange range{};
    ASSERT_TRUE(package->functionRange(i, &range));
    EXPECT_LT(range.start, range.end);
    EXPECT_GE(range.start, previousEnd) << range.name;
    previousEnd = range.end;
  }
  sym_lite::FunctionRange none{};
  EXPECT_FALSE(package->functionRange(package->functionCount(), &none));
  EXPECT_EQ(package->isBigEndian(), 0u);
}

TEST_F(ElfSymbolManagerTest, ReleasingAForeignPackageIsIgnored) {
  hostkit::ElfSymbolManager other;
  auto* package = other.createPackage(nullptr);
  manager.releasePackage(package);  // not ours: must not be freed twice
  other.releasePackage(package);
}

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
