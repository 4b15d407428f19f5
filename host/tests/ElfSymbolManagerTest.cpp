#include "kit/ElfSymbolManager.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

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

// Symbols, functions and lines by address (Thumb bit, inlined helpers,
// addresses outside code) are in the program's transcript (`lookup` in
// golden/program.txt), which asks this manager through the module.
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

}  // namespace
