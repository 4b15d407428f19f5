// The power-stream decoder against a reference decoder written here from the
// file format, record by record: every value of every column, from a file
// (mapped) and from memory (owned columns), for 0, 1, 2 and 4 state words,
// from empty streams to millions of records (which take the two-thread
// roads), clean or with a wrong tag in each lane of a group of records.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <stdexcept>

#include "WLTestStreams.hpp"
#include "wattline/WLDataNode.hpp"
#include "wattline/WLStateDecoders.hpp"
#include "wattline/WLViews.hpp"
#include "wattline/generator/WLCaptureGenerator.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;
using wltest::Sample;
using wltest::StreamBuilder;
using wltest::TempDir;

// What a stream must decode to, worked out byte by byte.
struct Reference {
  uint32_t type = 0, size = 0;
  uint8_t words = 0;
  uint64_t count = 0;
  bool corrupt = false;
  std::vector<uint64_t> t;
  std::vector<uint32_t> e, c;
  std::vector<uint16_t> v;
  std::vector<std::vector<uint32_t>> w;
};

uint64_t le(const uint8_t* p, int width) {
  uint64_t value = 0;
  for (int i = width - 1; i >= 0; --i) value = value << 8 | p[i];
  return value;
}

Reference referenceDecode(const std::vector<uint8_t>& bytes) {
  Reference r;
  if (bytes.empty()) {  // nothing to tell the kind: plain records, none of them
    r.type = 8, r.size = 18;
    return r;
  }
  const uint8_t tag = bytes[0];
  const uint32_t type = tag & 0x0F;
  if (type != 7 && type != 8) return r;
  r.type = type;
  r.size = type == 7 ? 26 : 18;
  r.words = type == 7 ? static_cast<uint8_t>((tag >> 4) == 0 ? 2 : tag >> 4) : 0;
  const uint64_t stride = 18 + 4u * r.words;
  const uint64_t nominal = bytes.size() / r.size;
  const uint64_t fitting = bytes.size() >= stride ? (bytes.size() - stride) / stride : 0;
  r.count = nominal == 0 ? 0 : std::min(nominal - 1, fitting);
  r.w.assign(r.words, std::vector<uint32_t>(r.count));
  r.t.resize(r.count), r.e.resize(r.count), r.c.resize(r.count), r.v.resize(r.count);
  for (uint64_t i = 0; i < r.count; ++i) {
    const uint8_t* p = bytes.data() + stride * (i + 1);
    if (p[0] != tag) {
      r.corrupt = true;  // this record and all after it read as 0
      break;
    }
    r.t[i] = le(p + 1, 7);
    for (unsigned k = 0; k < r.words; ++k) r.w[k][i] = static_cast<uint32_t>(le(p + 8 + 4 * k, 4));
    const uint8_t* tail = p + 8 + 4 * r.words;
    const uint32_t current = static_cast<uint32_t>(le(tail, 4));
    const uint16_t voltage = static_cast<uint16_t>(le(tail + 4, 2));
    r.c[i] = current == 0xFFFFFFFFu ? 0 : current;
    r.v[i] = voltage == 0xFFFF ? 0 : voltage;
    r.e[i] = static_cast<uint32_t>(le(tail + 6, 4));
  }
  return r;
}

template <typename T>
void expectColumn(const WLColumn<T>& column, const std::vector<T>& expected, const char* name) {
  ASSERT_EQ(column.size(), expected.size()) << name;
  std::vector<T> chunk(4096);
  for (size_t at = 0; at < expected.size(); at += chunk.size()) {
    const size_t n = std::min(chunk.size(), expected.size() - at);
    column.read(at, n, chunk.data());
    for (size_t i = 0; i < n; ++i) ASSERT_EQ(chunk[i], expected[at + i]) << name << " " << at + i;
  }
  // One by one reads the same as in blocks.
  const size_t step = expected.size() < 100000 ? 1 : 61;
  for (size_t i = 0; i < expected.size(); i += step)
    ASSERT_EQ(column[i], expected[i]) << name << " [" << i << "]";
}

void expectDecoded(const WLDataNode& node, const Reference& r) {
  EXPECT_EQ(node.recordType, r.type);
  EXPECT_EQ(node.stateWordCount, r.words);
  ASSERT_EQ(node.recordCount, r.count);
  if (r.type == 0) return;
  EXPECT_EQ(node.recordSize, r.size);
  expectColumn(node.times, r.t, "time");
  expectColumn(node.energies, r.e, "energy");
  expectColumn(node.currents, r.c, "current");
  expectColumn(node.voltages, r.v, "voltage");
  ASSERT_EQ(node.stateWords.size(), r.words);
  for (unsigned k = 0; k < r.words; ++k) expectColumn(node.stateWords[k], r.w[k], "state word");
}

// Decodes; true when it failed with the corrupt-stream error.
bool decodeFails(WLDataNode& node) {
  try {
    node.decode();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Corrupted buffer");
    return true;
  }
  return false;
}

// A count and three doubles: no padding, so the bytes are the figures.
bool sameBits(const ValueStats& a, const ValueStats& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// The statistics of a file's mapping (the first two ranges come from the
// pass of decode) and of owned columns agree to the bit.
void expectSameStats(WLDataNode& file, WLDataNode& memory, uint64_t n) {
  if (n == 0) return;
  const std::initializer_list<std::pair<uint64_t, uint64_t>> ranges = {
      {0, n}, {0, n - 1}, {1, n}, {n / 3, n / 3 + 5000}, {0, n + 100}};
  for (auto [first, last] : ranges) {
    file.computeStats(first, last);
    memory.computeStats(first, last);
    SCOPED_TRACE(testing::Message() << "stats over " << first << " .. " << last);
    EXPECT_TRUE(sameBits(file.powerStats, memory.powerStats));
    EXPECT_TRUE(sameBits(file.currentStats, memory.currentStats));
    EXPECT_TRUE(sameBits(file.voltageStats, memory.voltageStats));
    EXPECT_EQ(std::memcmp(&file.energyUsed, &memory.energyUsed, sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(&file.duration, &memory.duration, sizeof(double)), 0);
  }
}

// ... and with a plain walk over the reference's samples.
void expectWalkedStats(WLDataNode& file, const Reference& r) {
  const uint64_t n = r.count;
  if (r.corrupt || n < 2) return;
  double current = 0, voltage = 0, lo = 1e300;
  for (uint64_t i = 0; i < n; ++i) {
    current += r.c[i] / 1e6;
    voltage += r.v[i] / 1000.0;
    lo = std::min(lo, r.c[i] / 1e6);
  }
  file.computeStats(0, n);
  EXPECT_DOUBLE_EQ(file.currentStats.mean, current / static_cast<double>(n));
  EXPECT_DOUBLE_EQ(file.voltageStats.mean, voltage / static_cast<double>(n));
  EXPECT_EQ(file.currentStats.min, lo);
  EXPECT_EQ(file.powerStats.count, static_cast<int64_t>(n - 1));
}

struct Case {
  std::string name;
  uint8_t tag;            // the file's first byte
  unsigned words;         // state words written per record
  uint64_t records;       // 0: `extra` bytes of the tag alone, or a lone lead-in
  size_t extra = 0;       // bytes of a partial record at the end
  std::vector<std::pair<uint64_t, uint8_t>> bad = {};  // record, wrong tag
  bool leadIn = false;
};

// Fields at their extremes, varied so that neighbours in a group differ:
// 56-bit times with the top bit set, "no reading" and one below it, voltages
// with the sign bit of 16 set.
Sample sampleAt(uint64_t i, unsigned words) {
  const uint32_t u = static_cast<uint32_t>(i);
  Sample s;
  s.time = i % 3 == 0 ? ((uint64_t{1} << 56) - 1 - i) : i * 7 + 3;
  for (unsigned k = 0; k < words; ++k) s.words.push_back(k % 2 ? 0x80000000u | (u * 3 + k) : ~u - k);
  s.current = i % 4 == 1 ? 0xFFFFFFFFu : 0xFFFFFFFEu - u;
  s.voltage = static_cast<uint16_t>(i % 5 == 2 ? 0xFFFF : 0x8000 + (i % 0x7FFF));
  s.energy = 0xFFFFFFFFu - 7 * u;
  return s;
}

std::vector<uint8_t> streamOf(const Case& c, bool withBad) {
  StreamBuilder b(c.tag, c.words);
  if (c.leadIn) b.leadIn();
  for (uint64_t i = 0; i < c.records; ++i) {
    uint8_t tag = c.tag;
    for (const auto& [at, wrong] : c.bad)
      if (withBad && at == i) tag = wrong;
    b.addWithTag(tag, sampleAt(i, c.words));
  }
  b.bytes().insert(b.bytes().end(), c.extra, c.tag);
  return b.bytes();
}

class WLStreamDecode : public testing::TestWithParam<Case> {};

TEST_P(WLStreamDecode, EveryRecordAsTheReferenceDecodesIt) {
  const Case& c = GetParam();
  const std::vector<uint8_t> clean = streamOf(c, false);
  const std::vector<uint8_t> bytes = c.bad.empty() ? clean : streamOf(c, true);
  const Reference r = referenceDecode(bytes);
  ASSERT_EQ(r.corrupt, !c.bad.empty());

  TempDir dir;
  dir.write("WLData.bin", bytes);
  WLDataNode file, memory;
  ASSERT_TRUE(file.readFile(dir.path(), "WLData.bin"));
  EXPECT_TRUE(file.hasStream());
  EXPECT_EQ(decodeFails(file), r.corrupt);
  EXPECT_EQ(file.mapped(), r.type != 0 && !bytes.empty());  // an empty file maps nothing
  expectDecoded(file, r);

  // The owned columns are decoded twice: the clean stream first, so a
  // corrupt one must clear what the reused columns held after its bad record.
  if (r.corrupt) {
    memory.readBuffer(clean.data(), static_cast<int64_t>(clean.size()));
    memory.decode();
  }
  memory.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
  EXPECT_EQ(decodeFails(memory), r.corrupt);
  EXPECT_FALSE(memory.mapped());
  expectDecoded(memory, r);
  expectSameStats(file, memory, r.count);
  expectWalkedStats(file, r);
}

std::vector<Case> cases() {
  std::vector<Case> all = {
      {"Empty", 0x08, 0, 0},
      {"LessThanARecord", 0x08, 0, 0, 17},
      {"LeadInOnly", 0x08, 0, 0, 0, {}, true},
      {"PlainIgnoresTheHighNibble", 0x58, 0, 2},
      {"StatesDefaultToTwoWords", 0x07, 2, 2},
      {"OneWordCountsNominally", 0x17, 1, 12},
      {"FourWordsReadOnlyWholeRecords", 0x47, 4, 5},
      {"PartialTail1", 0x27, 2, 301, 1},
      {"PartialTail25", 0x27, 2, 301, 25},
      {"PlainPartialTail", 0x08, 0, 1, 10},
      {"Extremes29Plain", 0x08, 0, 29},
      {"Extremes29States", 0x27, 2, 29},
      {"ManyBlocks", 0x08, 0, 100003},
      {"StreamingStoresPlain", 0x08, 0, 700001},
      {"StreamingStoresStates", 0x27, 2, 700001},
      {"BadInALaterBlock", 0x27, 2, 60000, 0, {{45001, 0x17}}},
      {"BadNearTheEndOfALargeStream", 0x27, 2, 400005, 0, {{399001, 0x17}}},
      {"TwoThreadsClean", 0x27, 2, 2'800'003},  // about 70 MiB
      // Two bad records in different shares: the earlier one decides.
      {"TwoThreadsEarlierBadWins", 0x27, 2, 2'800'003, 0, {{1048321, 0x17}, {2000000, 0x17}}},
  };
  // A wrong tag in each lane of a group of eight, also one that differs
  // from the right tag only in the word count.
  for (uint64_t lane = 16; lane < 24; ++lane) {
    const std::string n = std::to_string(lane - 16);
    all.push_back({"StatesBadInLane" + n, 0x27, 2, 40, 0, {{lane, lane % 2 ? 0x26 : 0x37}}});
    all.push_back({"PlainBadInLane" + n, 0x08, 0, 40, 0, {{lane, 0x18}}});
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(Streams, WLStreamDecode, testing::ValuesIn(cases()),
                         [](const auto& info) { return info.param.name; });

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

void attachDecoder(WLDataNode& node, WLStateLayout layout) {
  const json jstate = stateDescription(layout);
  if (jstate.is_null()) return;
  node.dsr = makeStateDecoder(node, jstate["version"].get<int64_t>());
  node.dsr->initDefaults();
  node.dsr->loadBitFields(jstate);
}

// Generated captures of both record kinds: views, evaluated states and
// statistics are the same from the mapping as from owned columns. The long
// one is decoded on two threads.
TEST(WLStreamDecodeKinds, GeneratedCapturesGiveTheSameAnswersFromFileAndMemory) {
  struct Generated {
    uint32_t type;
    WLStateLayout layout;
    double seconds;
  };
  for (const Generated& g : {Generated{8, WLStateLayout::kNone, 3.0},
                             Generated{7, WLStateLayout::kV4, 2.0},
                             Generated{7, WLStateLayout::kV2, 280.0}}) {
    SCOPED_TRACE(testing::Message() << "type " << g.type << ", " << g.seconds << " s");
    TempDir dir;
    WLGeneratorOptions options;
    options.recordType = g.type;
    options.layout = g.layout;
    options.durationSeconds = g.seconds;
    writeStream(dir / "WLData.bin", options);
    const std::string bytes = ostrand_test::readFile(dir / "WLData.bin");
    WLDataNode file, memory;
    ASSERT_TRUE(file.readFile(dir.path(), "WLData.bin"));
    memory.readBuffer(reinterpret_cast<const uint8_t*>(bytes.data()),
                      static_cast<int64_t>(bytes.size()));
    for (WLDataNode* node : {&file, &memory}) {
      attachDecoder(*node, g.layout);
      node->decode();
      node->evaluateStates();
    }
    ASSERT_TRUE(file.mapped());
    ASSERT_GT(file.recordCount, 1000u);
    if (file.dsr) {
      EXPECT_FALSE(file.dsr->rowRecords.empty());
      EXPECT_EQ(file.dsr->rowRecords, memory.dsr->rowRecords);
      EXPECT_EQ(file.dsr->rowWords, memory.dsr->rowWords);
      EXPECT_EQ(file.dsr->modeChanges, memory.dsr->modeChanges);
      EXPECT_EQ(file.dsr->modeBits, memory.dsr->modeBits);
      EXPECT_EQ(file.dsr->pcRecords, memory.dsr->pcRecords);
      EXPECT_EQ(file.dsr->pcValues, memory.dsr->pcValues);
      EXPECT_EQ(file.dsr->peripheralChanges, memory.dsr->peripheralChanges);
    }
    expectSameStats(file, memory, file.recordCount);
    expectSameViews(file, memory);
  }
}

TEST(WLStreamDecodeKinds, RecordKindsWithoutLayoutDecodeNothing) {
  TempDir dir;
  WLDataNode node;
  dir.write("WLData.bin", std::vector<uint8_t>(100, 0x23));
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  node.decode();
  EXPECT_EQ(node.recordType, 3u);
  EXPECT_EQ(node.recordCount, 0u);
  EXPECT_FALSE(node.times.exists());

  // After a load that set a record size, an unknown kind still counts 0.
  StreamBuilder s(0x08, 0);
  s.add({1, {}, 1, 1, 1});
  node.readBuffer(s.bytes().data(), static_cast<int64_t>(s.bytes().size()));
  node.decode();
  const std::vector<uint8_t> unknown(100, 0x0B);
  node.readBuffer(unknown.data(), 100);
  node.decode();
  EXPECT_EQ(node.recordType, 0u);
  EXPECT_EQ(node.recordCount, 0u);
  EXPECT_FALSE(node.currents.exists());
}

TEST(WLStreamDecodeKinds, MissingFileLeavesNoStreamAndReloadReplacesTheColumns) {
  TempDir dir;
  WLDataNode node;
  EXPECT_FALSE(node.readFile(dir.path(), "WLData.bin"));
  EXPECT_FALSE(node.readFile(dir.path(), ""));  // the folder itself
  node.decode();
  node.computeStats(0, 10);
  EXPECT_FALSE(node.hasStream());
  EXPECT_EQ(node.recordCount, 0u);
  EXPECT_EQ(node.powerStats.count, 0);
  EXPECT_EQ(node.indexOfTime(100), 0u);

  StreamBuilder s(0x07, 2);
  s.add({1, {1, 1}, 1, 1, 1});
  dir.write("WLData.bin", s.bytes());
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  node.decode();
  ASSERT_EQ(node.stateWords.size(), 2u);
  StreamBuilder p(0x08, 0);
  p.add({1, {}, 1, 1, 1}).add({2, {}, 2, 2, 2});
  dir.write("WLData.bin", p.bytes());
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  node.decode();
  EXPECT_EQ(node.recordCount, 2u);
  EXPECT_TRUE(node.stateWords.empty());
  EXPECT_FALSE(node.readFile(dir.path(), "gone.bin"));
  EXPECT_FALSE(node.times.exists());
}

}  // namespace
}  // namespace VSKTspServer
