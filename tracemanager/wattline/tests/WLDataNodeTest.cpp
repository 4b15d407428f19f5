// The power stream as a node: statistics over record ranges, the time
// index, and files that change under a mapping. The decoding of every record,
// and the same answers from a mapped file as from memory, are checked in
// WLStreamDecodeTest.
#include "wattline/WLDataNode.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>

#include "WLTestStreams.hpp"

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

namespace VSKTspServer {
namespace {

using wltest::StreamBuilder;
using wltest::TempDir;

// The times' binary search reads the column in place.
TEST(WLDataNodeFile, NearestIndexOnTheColumnMatchesTheListSearch) {
  TempDir dir;
  StreamBuilder s(0x08, 0);
  for (uint64_t i = 0; i < 5000; ++i) s.add({1000 + i * 10 + (i % 3), {}, 1, 1, 1});
  dir.write("WLData.bin", s.bytes());
  WLDataNode file;
  ASSERT_TRUE(file.readFile(dir.path(), "WLData.bin"));
  file.decode();
  std::vector<uint64_t> times(file.recordCount);
  file.times.read(0, times.size(), times.data());
  for (uint64_t value : {uint64_t{0}, uint64_t{1000}, uint64_t{1005}, uint64_t{1006},
                         uint64_t{26011}, uint64_t{50990}, uint64_t{51001}, uint64_t{99999}}) {
    EXPECT_EQ(nearestIndex(file.times, value), nearestIndex(times, value)) << value;
  }
  WLColumn<uint64_t> none;
  EXPECT_EQ(nearestIndex(none, 5), 0u);
}

StreamBuilder plainStream(uint64_t records, uint64_t timeBase) {
  StreamBuilder s(0x08, 0);
  for (uint64_t i = 0; i < records; ++i) {
    s.add({timeBase + i, {}, static_cast<uint32_t>(i), 3300, static_cast<uint32_t>(i * 2)});
  }
  return s;
}

// The size is taken once: a file that grows, or is replaced, after it was
// opened changes nothing that is read until it is opened again.
TEST(WLDataNodeFile, FileThatGrowsOrIsReplacedKeepsTheOpenedStream) {
  TempDir dir;
  const std::string path = dir.write("WLData.bin", plainStream(1000, 100).bytes());
  WLDataNode node;
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  node.decode();
  {
    std::ofstream grow(path, std::ios::binary | std::ios::app);
    const std::vector<uint8_t> more = plainStream(5000, 9000).bytes();
    grow.write(reinterpret_cast<const char*>(more.data()),
               static_cast<std::streamsize>(more.size()));
  }
  EXPECT_EQ(node.recordCount, 1000u);
  EXPECT_EQ(node.times.back(), 1099u);
  node.computeStats(0, 100000);
  EXPECT_EQ(node.currentStats.count, 1000);

  // Replaced by a shorter file under the same name: the mapping keeps the
  // old one alive.
  const std::string fresh = dir.write("next.bin", plainStream(10, 500).bytes());
  std::filesystem::rename(fresh, path);
  EXPECT_EQ(node.times[999], 1099u);
  EXPECT_EQ(node.energies[999], 1998u);
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  node.decode();
  EXPECT_EQ(node.recordCount, 10u);
  EXPECT_EQ(node.times.back(), 509u);
}

// Shrunk between readFile and decode: the pass checks the size before it
// touches the records, fails with a clear message, and the columns then
// read as 0 without touching the file.
TEST(WLDataNodeFile, FileThatShrankBeforeDecodeFailsCleanly) {
  TempDir dir;
  const std::string path = dir.write("WLData.bin", plainStream(20000, 100).bytes());
  WLDataNode node;
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  ASSERT_EQ(::truncate(path.c_str(), 18 * 50), 0);
  EXPECT_THAT([&] { node.decode(); },
              ThrowsMessage<std::runtime_error>(HasSubstr("became shorter")));
  EXPECT_EQ(node.times[19999], 0u);
  EXPECT_EQ(node.currents[10], 0u);
  node.computeStats(0, node.recordCount);
  EXPECT_EQ(node.currentStats.max, 0.0);

  // Truncated to nothing: even the tag is not read.
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  EXPECT_THROW(node.decode(), std::runtime_error);
}

// The statistics a node holds, each number as the shortest text that reads
// back as the same double; the duration, a difference of seconds, to 1e-12.
std::string statsText(const WLDataNode& n) {
  const auto num = [](double v) {
    char text[32];
    return std::string(text, std::to_chars(text, text + sizeof text, v).ptr);
  };
  const auto figures = [&](const char* name, const ValueStats& v) {
    return std::string(name) + " " + std::to_string(v.count) + " [" + num(v.min) + ", " +
           num(v.max) + "] mean " + num(v.mean);
  };
  return figures("power", n.powerStats) + " | " + figures("current", n.currentStats) + " | " +
         figures("voltage", n.voltageStats) + " | " + num(std::round(n.duration * 1e12) / 1e12) +
         " s " + num(n.energyUsed) + " mJ";
}

// Statistics over ranges of five records, in the order asked (the answer
// replaces the last one). Times in microseconds, currents in nA (shown in
// mA), voltages in mV (shown in V), energy in 0.1 uJ (shown in mJ); the
// last step wraps the counter: it counts as +0x20 in 1 ms (3.2 mW) in the
// power, but energyUsed is the plain difference of the counter.
TEST(WLDataNodeStats, PowerCurrentVoltageEnergyOverRanges) {
  StreamBuilder s(0x08, 0);
  s.add({1000000, {}, 1000000, 3000, 100})      // 1 mA, 3.0 V
      .add({1001000, {}, 3000000, 3300, 600})   // +500 in 1 ms: 50 mW
      .add({1003000, {}, 2000000, 3000, 1600})  // +1000 in 2 ms: 50 mW
      .add({1004000, {}, 2000000, 2700, 0xFFFFFFF0})
      .add({1005000, {}, 4000000, 3000, 0x10});  // +0x20 in 1 ms: 3.2 mW
  WLDataNode node;
  node.readBuffer(s.bytes().data(), static_cast<int64_t>(s.bytes().size()));
  node.decode();
  // The last record of a range is its end: 0 .. 3 lasts 3 ms.
  const struct {
    uint64_t first, last;
    const char* expected;
  } cases[] = {
      {0, 3,
       "power 2 [50, 50] mean 50 | current 3 [1, 3] mean 2 | "
       "voltage 3 [3, 3.3] mean 3.1 | 0.003 s 0.15 mJ"},
      {3, 5,
       "power 1 [3.2, 3.2] mean 3.2 | current 2 [2, 4] mean 3 | "
       "voltage 2 [2.7, 3] mean 2.85 | 0.001 s -429496.7264 mJ"},
      // Samples: 50, 50, (0xFFFFFFF0 - 1600) / 1e4 / 0.001, 3.2 mW.
      {0, 5,
       "power 4 [3.2, 429496568] mean 107374167.8 | current 5 [1, 4] mean 2.4 | "
       "voltage 5 [2.7, 3.3] mean 3 | 0.005 s -0.0084 mJ"},
      // Fewer than two records leave zero.
      {2, 3,
       "power 0 [0, 0] mean 0 | current 0 [0, 0] mean 0 | "
       "voltage 0 [0, 0] mean 0 | 0 s 0 mJ"},
  };
  for (const auto& c : cases) {
    node.computeStats(c.first, c.last);
    EXPECT_EQ(statsText(node), c.expected) << c.first << " .. " << c.last;
  }
  // A zero time step gives an infinite sample.
  StreamBuilder still(0x08, 0);
  still.add({5, {}, 0, 0, 0}).add({5, {}, 0, 0, 10});
  node.readBuffer(still.bytes().data(), static_cast<int64_t>(still.bytes().size()));
  node.decode();
  node.computeStats(0, 2);
  EXPECT_EQ(node.powerStats.count, 1);
  EXPECT_TRUE(std::isinf(node.powerStats.max));
}

TEST(WLDataNodeIndex, IndexOfTimeAssumesEvenSpacing) {
  StreamBuilder s(0x08, 0);
  for (uint64_t i = 0; i < 10; ++i) s.add({1000 + i * 100, {}, 0, 0, 0});
  auto bytes = s.bytes();
  WLDataNode node;
  EXPECT_EQ(node.indexOfTime(5), 0u);
  node.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
  node.decode();
  // step = (1900 - 1000) / 10 = 90 us; 1500 is 500 / 90 = 5.55 steps in.
  for (auto [time, index] : {std::pair<uint64_t, uint64_t>{0, 0}, {1000, 0}, {1089, 0}, {1090, 1},
                             {1500, 5}, {1900, 9}, {std::numeric_limits<uint64_t>::max(), 9}})
    EXPECT_EQ(node.indexOfTime(time), index) << time;

  StreamBuilder flat(0x08, 0);
  flat.add({7, {}, 0, 0, 0}).add({7, {}, 0, 0, 0}).add({7, {}, 0, 0, 0});
  node.readBuffer(flat.bytes().data(), static_cast<int64_t>(flat.bytes().size()));
  node.decode();
  EXPECT_EQ(node.indexOfTime(0), 2u);
}

TEST(WLDataNodeIndex, NearestIndexPrefersTheUpperOnATie) {
  const std::vector<uint64_t> list{10, 20, 30, 40};
  EXPECT_EQ(nearestIndex({}, 5), 0u);
  for (auto [value, index] :
       {std::pair<uint64_t, uint64_t>{0, 0}, {10, 0}, {99, 3}, {24, 1}, {25, 2}, {26, 2}, {30, 2}})
    EXPECT_EQ(nearestIndex(list, value), index) << value;
}

}  // namespace
}  // namespace VSKTspServer
