// A stream opened from a file is served from its mapping; the same bytes
// given from memory are decoded into owned columns. Every observable
// answer must be the same either way: values, statistics (to the bit),
// table lines, line graph, summary and the evaluated states. Also what a
// mapping must survive: corrupt records, partial records, files that grow,
// are replaced or shrink.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

#include "WLCaptureGenerator.hpp"
#include "WLStateDecoders.hpp"
#include "WLTestStreams.hpp"
#include "WLViews.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;
using wltest::Sample;
using wltest::StreamBuilder;
using wltest::TempDir;

std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

bool sameBits(const ValueStats& a, const ValueStats& b) {
  return a.count == b.count && std::memcmp(&a.min, &b.min, sizeof a.min) == 0 &&
         std::memcmp(&a.max, &b.max, sizeof a.max) == 0 &&
         std::memcmp(&a.mean, &b.mean, sizeof a.mean) == 0;
}

// The same stream twice: from the file (mapped) and from memory (owned).
struct Pair {
  TempDir dir;
  std::vector<uint8_t> bytes;
  WLDataNode file, memory;

  void load() {
    bytes = readBytes(dir.path() + "/WLData.bin");
    ASSERT_TRUE(file.readFile(dir.path(), "WLData.bin"));
    memory.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
  }
};

template <typename T>
void expectSameColumn(const WLColumn<T>& a, const WLColumn<T>& b, const char* name) {
  ASSERT_EQ(a.exists(), b.exists()) << name;
  ASSERT_EQ(a.size(), b.size()) << name;
  std::vector<T> x(4096), y(4096);
  for (size_t at = 0; at < a.size(); at += x.size()) {
    const size_t n = std::min(x.size(), a.size() - at);
    a.read(at, n, x.data());
    b.read(at, n, y.data());
    for (size_t i = 0; i < n; ++i) {
      ASSERT_EQ(x[i], y[i]) << name << " record " << at + i;
      ASSERT_EQ(a[at + i], x[i]) << name << " record " << at + i;  // one by one reads the same
    }
  }
}

void expectSameColumns(const WLDataNode& a, const WLDataNode& b) {
  ASSERT_EQ(a.recordCount, b.recordCount);
  ASSERT_EQ(a.recordType, b.recordType);
  ASSERT_EQ(a.recordSize, b.recordSize);
  ASSERT_EQ(a.stateWordCount, b.stateWordCount);
  expectSameColumn(a.times, b.times, "time");
  expectSameColumn(a.energies, b.energies, "energy");
  expectSameColumn(a.currents, b.currents, "current");
  expectSameColumn(a.voltages, b.voltages, "voltage");
  ASSERT_EQ(a.stateWords.size(), b.stateWords.size());
  for (size_t w = 0; w < a.stateWords.size(); ++w) {
    expectSameColumn(a.stateWords[w], b.stateWords[w], "state word");
  }
}

void expectSameStats(WLDataNode& a, WLDataNode& b, uint64_t first, uint64_t last) {
  SCOPED_TRACE(testing::Message() << "stats over " << first << " .. " << last);
  a.computeStats(first, last);
  b.computeStats(first, last);
  EXPECT_TRUE(sameBits(a.powerStats, b.powerStats));
  EXPECT_TRUE(sameBits(a.currentStats, b.currentStats));
  EXPECT_TRUE(sameBits(a.voltageStats, b.voltageStats));
  EXPECT_EQ(std::memcmp(&a.duration, &b.duration, sizeof a.duration), 0);
  EXPECT_EQ(std::memcmp(&a.energyUsed, &b.energyUsed, sizeof a.energyUsed), 0);
}

void expectSameViews(WLDataNode& a, WLDataNode& b) {
  WLTable ta(&a), tb(&b);
  const int64_t n = static_cast<int64_t>(a.recordCount);
  for (int64_t start : {int64_t{0}, n / 2 - 7, n - 150, n + 3}) {
    TableLinesRequest r;
    r.requested_table_index = std::max<int64_t>(start, 0);
    r.requested_table_count = 200;
    EXPECT_EQ(json(ta.getLines(r)).dump(), json(tb.getLines(r)).dump()) << start;
  }
  EXPECT_EQ(json(ta.getColumns("")).dump(), json(tb.getColumns("")).dump());

  WLLineGraph la(&a), lb(&b);
  WLSummary sa(&a), sb(&b);
  const int64_t t0 = static_cast<int64_t>(a.times.front());
  const int64_t tN = static_cast<int64_t>(a.times.back());
  const std::vector<std::pair<int64_t, int64_t>> ranges = {
      {0, std::numeric_limits<int64_t>::max()}, {t0, tN}, {t0 + (tN - t0) / 3, t0 + (tN - t0) / 2}};
  for (const auto& [start, end] : ranges) {
    SCOPED_TRACE(testing::Message() << "range " << start << " .. " << end);
    const TimeRange range{start, end, 0};
    EXPECT_EQ(json(la.getXY(range, {})).dump(), json(lb.getXY(range, {})).dump());
    EXPECT_EQ(json(sa.getXYTree(start, end)).dump(), json(sb.getXYTree(start, end)).dump());
  }
}

void expectSameStates(const WLDataNode& a, const WLDataNode& b) {
  ASSERT_EQ(a.dsr != nullptr, b.dsr != nullptr);
  if (a.dsr == nullptr) return;
  EXPECT_EQ(a.dsr->rowRecords, b.dsr->rowRecords);
  EXPECT_EQ(a.dsr->rowWords, b.dsr->rowWords);
  EXPECT_EQ(a.dsr->modeChanges, b.dsr->modeChanges);
  EXPECT_EQ(a.dsr->modeBits, b.dsr->modeBits);
  EXPECT_EQ(a.dsr->pcRecords, b.dsr->pcRecords);
  EXPECT_EQ(a.dsr->pcValues, b.dsr->pcValues);
  EXPECT_EQ(a.dsr->peripheralChanges, b.dsr->peripheralChanges);
  EXPECT_FALSE(a.dsr->rowRecords.empty());
}

void attachDecoder(WLDataNode& node, WLStateLayout layout) {
  const json jstate = stateDescription(layout);
  if (jstate.is_null()) return;
  node.dsr = makeStateDecoder(node, jstate["version"].get<int64_t>());
  node.dsr->initDefaults();
  node.dsr->loadBitFields(jstate);
}

// Generated captures of both record kinds; the long one is decoded on two
// threads and crosses the size beyond which decoding is shared.
TEST(WLMappedStream, FileAndMemoryGiveTheSameAnswers) {
  struct Case {
    uint32_t type;
    WLStateLayout layout;
    double seconds;
  };
  for (const Case& c : {Case{8, WLStateLayout::kNone, 3.0}, Case{7, WLStateLayout::kV4, 2.0},
                        Case{7, WLStateLayout::kV2, 280.0}}) {
    SCOPED_TRACE(testing::Message() << "type " << c.type << ", " << c.seconds << " s");
    Pair p;
    WLGeneratorOptions options;
    options.recordType = c.type;
    options.layout = c.layout;
    options.durationSeconds = c.seconds;
    writeStream(p.dir.path() + "/WLData.bin", options);
    p.load();
    attachDecoder(p.file, c.layout);
    attachDecoder(p.memory, c.layout);
    p.file.decode();
    p.memory.decode();
    ASSERT_TRUE(p.file.mapped());
    ASSERT_FALSE(p.memory.mapped());
    ASSERT_GT(p.file.recordCount, 1000u);
    expectSameColumns(p.file, p.memory);
    p.file.evaluateStates();
    p.memory.evaluateStates();
    expectSameStates(p.file, p.memory);
    const uint64_t n = p.file.recordCount;
    // The first two come from the pass of decode, the others are summed
    // when asked; all must match the owned columns' sums to the bit.
    expectSameStats(p.file, p.memory, 0, n);
    expectSameStats(p.file, p.memory, 0, n - 1);
    expectSameStats(p.file, p.memory, 1, n);
    expectSameStats(p.file, p.memory, n / 3, n / 3 + 5000);
    expectSameStats(p.file, p.memory, 0, n + 100);
    expectSameViews(p.file, p.memory);
  }
}

// The times' binary search reads the column in place.
TEST(WLMappedStream, NearestIndexOnTheColumnMatchesTheListSearch) {
  Pair p;
  StreamBuilder s(0x08, 0);
  for (uint64_t i = 0; i < 5000; ++i) s.add({1000 + i * 10 + (i % 3), {}, 1, 1, 1});
  p.dir.write("WLData.bin", s.bytes());
  p.load();
  p.file.decode();
  std::vector<uint64_t> times(p.file.recordCount);
  p.file.times.read(0, times.size(), times.data());
  for (uint64_t value : {uint64_t{0}, uint64_t{1000}, uint64_t{1005}, uint64_t{1006},
                         uint64_t{26011}, uint64_t{50990}, uint64_t{51001}, uint64_t{99999}}) {
    EXPECT_EQ(nearestIndex(p.file.times, value), nearestIndex(times, value)) << value;
  }
  WLColumn<uint64_t> none;
  EXPECT_EQ(nearestIndex(none, 5), 0u);
}

// A wrong tag in the middle: earlier records stay, the bad one and all
// after it read as 0, in every column and in the statistics, exactly as
// from memory; also deep in a stream read on two threads, where a later
// wrong tag must not win over the earlier one.
TEST(WLMappedStream, CorruptRecordEndsTheStreamLikeInMemory) {
  for (uint64_t records : {uint64_t{20000}, uint64_t{2'700'000}}) {
    SCOPED_TRACE(records);
    Pair p;
    StreamBuilder s(0x07, 2);
    for (uint64_t i = 0; i < records; ++i) {
      const uint32_t u = static_cast<uint32_t>(i);
      s.add({i * 20 + 5, {u, ~u}, i % 9 == 0 ? 0xFFFFFFFFu : u * 3,
             static_cast<uint16_t>(i % 11 == 0 ? 0xFFFF : 3000 + i % 300), u * 17});
    }
    const uint64_t bad = records * 3 / 5 + 3;
    s.bytes()[26 * (bad + 1)] = 0x17;
    s.bytes()[26 * (records - 2 + 1)] = 0x27;
    p.dir.write("WLData.bin", s.bytes());
    p.load();
    for (WLDataNode* node : {&p.file, &p.memory}) {
      try {
        node->decode();
        FAIL() << "no exception";
      } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Corrupted buffer");
      }
    }
    ASSERT_TRUE(p.file.mapped());
    EXPECT_EQ(p.file.recordCount, records);
    EXPECT_EQ(p.file.times[bad - 1], (bad - 1) * 20 + 5);
    EXPECT_EQ(p.file.times[bad], 0u);
    EXPECT_EQ(p.file.stateWords[1][bad + 1], 0u);
    expectSameColumns(p.file, p.memory);
    expectSameStats(p.file, p.memory, 0, records);
    expectSameStats(p.file, p.memory, bad - 10, bad + 10);
  }
}

// A file whose end is a partial record: only whole records are read, the
// last one whole and right.
TEST(WLMappedStream, PartialLastRecordIsNotRead) {
  for (size_t extra : {size_t{1}, size_t{11}, size_t{25}}) {
    Pair p;
    StreamBuilder s(0x07, 2);
    for (uint32_t i = 0; i < 301; ++i) s.add({i * 7, {i, i}, i, 2, i});
    auto bytes = s.bytes();
    bytes.insert(bytes.end(), extra, 0x07);
    p.dir.write("WLData.bin", bytes);
    p.load();
    p.file.decode();
    p.memory.decode();
    ASSERT_EQ(p.file.recordCount, 301u) << extra;
    EXPECT_EQ(p.file.times.back(), 300u * 7);
    EXPECT_EQ(p.file.energies.back(), 300u);
    expectSameColumns(p.file, p.memory);
  }
  // Less than a record, and nothing at all.
  Pair tiny;
  tiny.dir.write("WLData.bin", std::vector<uint8_t>(17, 0x08));
  tiny.load();
  tiny.file.decode();
  EXPECT_EQ(tiny.file.recordCount, 0u);
  EXPECT_TRUE(tiny.file.times.exists());
  tiny.dir.write("WLData.bin", {});
  tiny.load();
  tiny.file.decode();
  EXPECT_EQ(tiny.file.recordCount, 0u);
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
TEST(WLMappedStream, FileThatGrowsOrIsReplacedKeepsTheOpenedStream) {
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
TEST(WLMappedStream, FileThatShrankBeforeDecodeFailsCleanly) {
  TempDir dir;
  const std::string path = dir.write("WLData.bin", plainStream(20000, 100).bytes());
  WLDataNode node;
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  ASSERT_EQ(::truncate(path.c_str(), 18 * 50), 0);
  try {
    node.decode();
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("became shorter"), std::string::npos) << e.what();
  }
  EXPECT_EQ(node.times[19999], 0u);
  EXPECT_EQ(node.currents[10], 0u);
  node.computeStats(0, node.recordCount);
  EXPECT_EQ(node.currentStats.max, 0.0);

  // Truncated to nothing: even the tag is not read.
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  EXPECT_THROW(node.decode(), std::runtime_error);
}

}  // namespace
}  // namespace VSKTspServer
