#include "symbols/ObjectFileInfo.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "FakeSymbolManager.hpp"
#include "TestSupport.hpp"
#include "source_utilities/HostApis.hpp"

using ::testing::HasSubstr;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace fs = std::filesystem;

namespace {

class ObjectFileInfoTest : public ::testing::Test {
 protected:
  void SetUp() override { QX_NLV::setSymbolManagerApi(&manager); }
  void TearDown() override { QX_NLV::setSymbolManagerApi(nullptr); }
  fs::path write(const std::string& name, const std::string& text) {
    return home.writeText(name, text);
  }
  // "<line> <text>" of the source line at `address`, or "none".
  static std::string sourceLine(ObjectFileInfo& info, uint64_t address) {
    uint32_t line = 0;
    const char* text = nullptr;
    if (!info.lookupSourceLine(address, &line, &text)) return "none";
    return std::to_string(line) + " " + text;
  }
  static std::string tenLines() {
    std::string text;
    for (int i = 1; i <= 10; ++i) text += "line " + std::to_string(i) + "\n";
    return text;
  }

  fake::Manager manager;
  ostrand_test::TempDir home{"ofi"};
  const fs::path dir = home.path();
};

// No symbol manager gives no object; another version than five, or a
// package not made, is refused on both roads.
TEST_F(ObjectFileInfoTest, RefusalsOnBothRoads) {
  QX_NLV::setSymbolManagerApi(nullptr);
  EXPECT_EQ(ObjectFileInfo::create("x.elf"), nullptr);
  QX_NLV::setSymbolManagerApi(&manager);
  for (uint32_t version : {4u, 6u}) {
    manager.version = version;
    EXPECT_THAT([&] { ObjectFileInfo::create("x.elf"); },
                ThrowsMessage<std::runtime_error>(StrEq("Mismatch API version")))
        << "version " << version << " accepted";
    EXPECT_THROW(ObjectFileInfo(470, 14), std::runtime_error);
  }
  manager.version = fake::Manager().version;
  manager.failCreate = true;
  EXPECT_THAT(
      [&] { ObjectFileInfo::create("x.elf"); },
      ThrowsMessage<std::exception>(StrEq("Failed to create the symbol package interface")));
  EXPECT_THROW(ObjectFileInfo(470, 14), std::runtime_error);
}

TEST_F(ObjectFileInfoTest, SourceIndexReadsWantedLinesOnceAndNotPastTheEnd) {
  fs::path source = write("src/main.c", tenLines());
  write("never.c", "only line\n");
  manager.setUp = [&](fake::Package& p) {
    p.lineTable = {{(dir / "src").string(), "main.c", 3},
                   {(dir / "src").string(), "main.c", 3},
                   {(dir / "src").string(), "main.c", 10},
                   {(dir / "src").string(), "main.c", 12},
                   {dir.string(), "never.c", 0}};
    p.sourceLines = {{0x100, {source.string(), 3}},
                     {0x104, {source.string(), 10}},
                     {0x108, {source.string(), 12}}};
  };
  auto info = ObjectFileInfo::create("x.elf");
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->sourceFileCount(), 1u);  // line 0 adds no file
  EXPECT_EQ(info->sourceLineCount(), 2u);  // 3 once, 10; 12 is past the end

  EXPECT_EQ(sourceLine(*info, 0x100), "3 line 3");
  EXPECT_EQ(sourceLine(*info, 0x104), "10 line 10");
  EXPECT_EQ(sourceLine(*info, 0x108), "12 <source not found>");
  // Either output may be left out.
  EXPECT_TRUE(info->lookupSourceLine(0x100, nullptr, nullptr));
}

TEST_F(ObjectFileInfoTest, BackslashesAndDotDotIndexUnderTheQueriedPath) {
  write("app/main.c", "first\nsecond\n");
  std::string windowsDir = (dir / "app" / "sub" / "..").string();
  std::replace(windowsDir.begin(), windowsDir.end(), '/', '\\');
  manager.setUp = [&](fake::Package& p) {
    p.lineTable = {{windowsDir, "main.c", 2}};
    p.sourceLines = {{0x10, {(dir / "app/main.c").string(), 2}}};
  };
  EXPECT_EQ(sourceLine(*ObjectFileInfo::create("x.elf"), 0x10), "2 second");
}

TEST_F(ObjectFileInfoTest, MissingSourceStillGivesTheLineNumber) {
  manager.setUp = [&](fake::Package& p) {
    p.lineTable = {{dir.string(), "gone.c", 7}};
    p.sourceLines = {{0x20, {(dir / "gone.c").string(), 7}}};
  };
  EXPECT_EQ(sourceLine(*ObjectFileInfo::create("x.elf"), 0x20),
            std::string("7 ") + ObjectFileInfo::kSourceNotFound);
}

TEST_F(ObjectFileInfoTest, UnknownAddressLeavesOutputsAlone) {
  manager.setUp = [](fake::Package& p) { p.functions = {{0x40, "known"}}; };
  auto info = ObjectFileInfo::create("x.elf");
  std::string function = "keep", file = "keep", directory = "keep";
  EXPECT_FALSE(info->lookupFunction(0x44, function, file, directory));
  EXPECT_EQ(function + file + directory, "keepkeepkeep");
  uint32_t line = 99;
  const char* text = "keep";
  EXPECT_FALSE(info->lookupSourceLine(0x44, &line, &text));
  EXPECT_EQ(line, 99u);
  EXPECT_STREQ(text, "keep");
  ASSERT_TRUE(info->lookupFunction(0x40, function, file, directory));
  EXPECT_EQ(function, "known");
}

TEST_F(ObjectFileInfoTest, ObjectFileGivesDigestAndTimestamp) {
  fs::path elf = write("fw/../prog.elf", "abc");
  manager.setUp = [&](fake::Package& p) { p.objectPath = (dir / "fw" / ".." / "prog.elf").string(); };
  auto info = ObjectFileInfo::create("ignored.elf");
  EXPECT_EQ(info->objectFile(), dir / "prog.elf");  // the package's file, normalised
  EXPECT_EQ(info->sha1(), "A9993E364706816ABA3E25717850C26C9CD0D89D");
  struct stat st {};
  ASSERT_EQ(::stat(elf.c_str(), &st), 0);
  EXPECT_EQ(info->timestamp(), st.st_mtime);
}

TEST_F(ObjectFileInfoTest, EmptyObjectPathIsNoError) {
  auto expectNoFile = [](const ObjectFileInfo& info) {
    EXPECT_TRUE(info.objectFile().empty());
    EXPECT_EQ(info.sha1(), "");
    EXPECT_EQ(info.timestamp(), 0);
  };
  expectNoFile(*ObjectFileInfo::create("x.elf"));
  ObjectFileInfo fromProcessor(470, 14);
  expectNoFile(fromProcessor);
  EXPECT_TRUE(fromProcessor.loadFiles({}).empty());
  expectNoFile(fromProcessor);
}

TEST_F(ObjectFileInfoTest, VanishedObjectFileFailsWithLastWriteTime) {
  manager.setUp = [&](fake::Package& p) { p.objectPath = (dir / "absent.elf").string(); };
  EXPECT_THAT([&] { ObjectFileInfo::create("absent.elf"); },
              ThrowsMessage<fs::filesystem_error>(HasSubstr("last_write_time")));
}

TEST_F(ObjectFileInfoTest, Sha1OfKnownInputs) {
  EXPECT_EQ(ObjectFileInfo::sha1File(write("empty", "")),
            "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
  // Longer than one 1024-byte block, and not a multiple of it.
  EXPECT_EQ(ObjectFileInfo::sha1File(write("million", std::string(1000000, 'a'))),
            "34AA973CD4C4DAA4F61EEB2BDBAD27316534016F");
  EXPECT_EQ(ObjectFileInfo::sha1File(dir / "nothing"), "");
}

TEST_F(ObjectFileInfoTest, LoadFilesPairsStatusesByPositionWhateverTheReportOrder) {
  for (auto report : {fake::Package::Report::BeforeReturn, fake::Package::Report::LaterReversed}) {
    manager.setUp = [&](fake::Package& p) {
      p.report = report;
      p.expectedLoads = 3;
      p.loadStatus = {{"b.elf", 7}};
    };
    ObjectFileInfo info(470, 14);
    auto results = info.loadFiles({"a.elf", "b.elf", "c.elf"});
    using Pairs = std::vector<std::pair<std::string, uint32_t>>;
    Pairs got;
    for (const auto& r : results) got.emplace_back(r.path, r.status);
    EXPECT_EQ(got, (Pairs{{"a.elf", 0}, {"b.elf", 7}, {"c.elf", 0}}));
  }
}

TEST_F(ObjectFileInfoTest, EnvironmentsAreNumberedAndOutliveThePackage) {
  std::string first, second;
  {
    ObjectFileInfo a(470, 14);
    ObjectFileInfo b(320, 41);
    first = a.debugEnvironment()->name();
    second = b.debugEnvironment()->name();
    ASSERT_THAT(first, ::testing::MatchesRegex("TraceObjFile[0-9]+"));
    EXPECT_EQ(second, "TraceObjFile" + std::to_string(std::stoul(first.substr(12)) + 1));
    uint64_t selector = 0;
    b.debugEnvironment()->processorSelector(&selector);
    EXPECT_EQ(selector, (uint64_t{9} << 32) | 1u);
  }
  // Each package was released while its environment still existed.
  EXPECT_EQ(manager.log, (std::vector<std::string>{"release " + second, "release " + first}));
}

// Family, variant, then the processor class and model they select.
TEST(ProcessorSelectionTest, FollowsTheTable) {
  const uint32_t table[][4] = {{320, 32, 1, 10}, {320, 40, 1, 10}, {320, 41, 1, 9},
                               {320, 42, 4, 16}, {470, 21, 0, 1},  {470, 10, 0, 0},
                               {470, 13, 0, 3},  {470, 14, 0, 2},  {470, 51, 0, 5},
                               {470, 82, 0, 6},  {470, 83, 0, 4},  {470, 11, 0, 8},
                               {100, 14, 4, 16}};
  for (const auto& [family, variant, processorClass, processorModel] : table) {
    EXPECT_EQ(ObjectFileInfo::processorSelection(family, variant),
              std::make_pair(processorClass, processorModel))
        << family << "/" << variant;
  }
}

TEST_F(ObjectFileInfoTest, RangesAreHalfOpenAndTheCacheNeverGoesStale) {
  manager.setUp = [](fake::Package& p) {
    p.functionRanges = {{"a", 0x100, 0x120}, {"b", 0x120, 0x140}, {"overlap", 0x130, 0x150},
                {"empty", 0x150, 0x150}, {"c", 0x200, 0x210}};
  };
  auto info = ObjectFileInfo::create("x.elf");
  EXPECT_EQ(info->rangeCount(), 3u);  // the overlapping and the empty range are left out
  // Address, then the range number found (0: none); the end of "a" is the
  // start of "b", and asking again after a miss finds "a" afresh.
  for (auto [address, range] : {std::pair{0x11Fu, 1u}, {0x120u, 2u}, {0x140u, 0u}, {0x20Fu, 5u},
                                {0x210u, 0u}, {0xFFu, 0u}, {0x100u, 1u}}) {
    uint32_t value = 77;
    EXPECT_EQ(info->lookupRange(address, &value), range != 0) << std::hex << address;
    EXPECT_EQ(value, range) << std::hex << address;
  }
}

}  // namespace
