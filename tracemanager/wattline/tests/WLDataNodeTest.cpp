#include "WLDataNode.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "WLTestStreams.hpp"

using VSKTspServer::nearestIndex;
using VSKTspServer::WLDataNode;
using wltest::Sample;
using wltest::StreamBuilder;
using wltest::TempDir;

namespace {

// Decodes `bytes` through a real file, as an experiment does.
void load(WLDataNode& node, const TempDir& dir, const std::vector<uint8_t>& bytes) {
  dir.write("WLData.bin", bytes);
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  node.decode();
}

TEST(WLDataNodeDecode, PlainRecordsIgnoreTheHighNibbleAndSkipTheLeadIn) {
  TempDir dir;
  StreamBuilder s(0x58, 0);  // type 8: a nibble of 5 words means nothing here
  s.add({0x00123456789ABCull, {}, 1500000, 3300, 42}).add({0x00FFFFFFFFFFFFull, {}, 7, 1, 0xFFFFFFFE});
  WLDataNode node;
  load(node, dir, s.bytes());
  EXPECT_EQ(node.recordType, 8u);
  EXPECT_EQ(node.recordSize, 18u);
  EXPECT_EQ(node.stateWordCount, 0);
  ASSERT_EQ(node.recordCount, 2u);
  EXPECT_TRUE(node.stateWords.empty());
  EXPECT_EQ(node.times[0], 0x00123456789ABCull);
  EXPECT_EQ(node.times[1], 0x00FFFFFFFFFFFFull);  // all 56 bits
  EXPECT_EQ(node.currents[0], 1500000u);
  EXPECT_EQ(node.voltages[0], 3300);
  EXPECT_EQ(node.energies[0], 42u);
  EXPECT_EQ(node.energies[1], 0xFFFFFFFEu);
}

TEST(WLDataNodeDecode, StateRecordsDefaultToTwoWordsInFileOrder) {
  TempDir dir;
  StreamBuilder s(0x07, 2);
  s.add({10, {0x8000000A, 0x03400000}, 11, 12, 13}).add({20, {1, 2}, 21, 22, 23});
  WLDataNode node;
  load(node, dir, s.bytes());
  EXPECT_EQ(node.recordSize, 26u);
  ASSERT_EQ(node.stateWordCount, 2);
  ASSERT_EQ(node.recordCount, 2u);
  EXPECT_EQ(node.stateWords[0][0], 0x8000000Au);
  EXPECT_EQ(node.stateWords[1][0], 0x03400000u);
  EXPECT_EQ(node.stateWords[1][1], 2u);
  EXPECT_EQ(node.currents[1], 21u);
  EXPECT_EQ(node.voltages[1], 22);
  EXPECT_EQ(node.energies[1], 23u);
  EXPECT_EQ(node.times[1], 20u);
}

TEST(WLDataNodeDecode, NoReadingValuesShowAsZero) {
  TempDir dir;
  StreamBuilder s(0x08, 0);
  s.add({0, {}, 0xFFFFFFFF, 0xFFFF, 0}).add({1000, {}, 2000000, 3000, 10000}).add({2000, {}, 4000000, 3000, 20000});
  WLDataNode node;
  load(node, dir, s.bytes());
  EXPECT_EQ(node.currents[0], 0u);
  EXPECT_EQ(node.voltages[0], 0);
  node.computeStats(0, node.recordCount);
  EXPECT_DOUBLE_EQ(node.currentStats.min, 0.0);
  EXPECT_DOUBLE_EQ(node.currentStats.mean, 2.0);  // (0 + 2 + 4) mA / 3
  EXPECT_DOUBLE_EQ(node.voltageStats.min, 0.0);
  EXPECT_DOUBLE_EQ(node.voltageStats.mean, 2.0);  // (0 + 3 + 3) V / 3
}

TEST(WLDataNodeDecode, ShortFilesHoldNoSamples) {
  TempDir dir;
  WLDataNode node;
  std::vector<uint8_t> partial(17, 0x08);
  load(node, dir, partial);
  EXPECT_EQ(node.recordCount, 0u);
  EXPECT_TRUE(node.times.exists());

  StreamBuilder one(0x08, 0);
  one.leadIn();
  load(node, dir, one.bytes());
  EXPECT_EQ(node.recordCount, 0u);

  // A trailing partial record is not a sample.
  StreamBuilder two(0x08, 0);
  two.add({5, {}, 1, 1, 1});
  two.bytes().resize(two.bytes().size() + 10, 0x08);
  load(node, dir, two.bytes());
  EXPECT_EQ(node.recordCount, 1u);

  load(node, dir, {});
  EXPECT_TRUE(node.hasStream());
  EXPECT_EQ(node.recordCount, 0u);
}

TEST(WLDataNodeDecode, WrongTagStopsWithCorruptedBufferAndKeepsWhatWasRead) {
  TempDir dir;
  // Long enough to span several read blocks, so the bad record lies in a
  // later block than the first.
  constexpr uint64_t kRecords = 60000, kBad = 45001;
  StreamBuilder s(0x07, 2);
  for (uint64_t i = 0; i < kRecords; ++i) {
    Sample sample{i * 10, {static_cast<uint32_t>(i), 7}, static_cast<uint32_t>(i + 1), 3000, static_cast<uint32_t>(i)};
    if (i == kBad) {
      s.addWithTag(0x17, sample);
    } else {
      s.add(sample);
    }
  }
  WLDataNode node;
  dir.write("WLData.bin", s.bytes());
  ASSERT_TRUE(node.readFile(dir.path(), "WLData.bin"));
  try {
    node.decode();
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Corrupted buffer");
  }
  EXPECT_EQ(node.recordCount, kRecords);
  EXPECT_EQ(node.times[kBad - 1], (kBad - 1) * 10);
  EXPECT_EQ(node.currents[kBad - 1], kBad);
  EXPECT_EQ(node.currents[kBad], 0u);
  EXPECT_EQ(node.stateWords[0][kBad + 1], 0u);
  EXPECT_EQ(node.times[kRecords - 1], 0u);
}

TEST(WLDataNodeDecode, ManyBlocksDecodeLikeOne) {
  TempDir dir;
  constexpr uint64_t kRecords = 100003;
  StreamBuilder s(0x08, 0);
  for (uint64_t i = 0; i < kRecords; ++i) {
    s.add({i * 7 + 3, {}, static_cast<uint32_t>(i * 13), static_cast<uint16_t>(i), static_cast<uint32_t>(i * 29)});
  }
  WLDataNode node;
  load(node, dir, s.bytes());
  ASSERT_EQ(node.recordCount, kRecords);
  for (uint64_t i : {uint64_t{0}, uint64_t{29126}, uint64_t{29127}, uint64_t{58254}, kRecords - 1}) {
    EXPECT_EQ(node.times[i], i * 7 + 3) << i;
    EXPECT_EQ(node.currents[i], i * 13) << i;
    EXPECT_EQ(node.voltages[i], static_cast<uint16_t>(i)) << i;
    EXPECT_EQ(node.energies[i], i * 29) << i;
  }
}

TEST(WLDataNodeDecode, LargeStreamsDecodeLikeSmallOnes) {
  // Beyond a few mebibytes the columns are written by another road; the
  // values, the unaligned tail and a bad record must come out the same.
  constexpr uint64_t kRecords = 400005, kBad = 399001;
  StreamBuilder s(0x07, 2);
  for (uint64_t i = 0; i < kRecords; ++i) {
    const uint32_t u = static_cast<uint32_t>(i);
    s.add({i * 10 + 1, {u * 3, ~u}, i % 1000 == 0 ? 0xFFFFFFFFu : u * 5,
           static_cast<uint16_t>(i % 7 == 0 ? 0xFFFF : i), u * 11});
  }
  WLDataNode node;
  auto& bytes = s.bytes();
  node.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
  node.decode();
  ASSERT_EQ(node.recordCount, kRecords);
  for (uint64_t i : {uint64_t{0}, uint64_t{7}, uint64_t{8}, uint64_t{1000}, uint64_t{20161},
                     uint64_t{333333}, kRecords - 1}) {
    const uint32_t u = static_cast<uint32_t>(i);
    EXPECT_EQ(node.times[i], i * 10 + 1) << i;
    EXPECT_EQ(node.stateWords[0][i], u * 3) << i;
    EXPECT_EQ(node.stateWords[1][i], ~u) << i;
    EXPECT_EQ(node.currents[i], i % 1000 == 0 ? 0u : u * 5) << i;
    EXPECT_EQ(node.voltages[i], i % 7 == 0 ? 0 : static_cast<uint16_t>(i)) << i;
    EXPECT_EQ(node.energies[i], u * 11) << i;
  }
  // Decoded again into the same columns, a bad record clears all after it.
  bytes[26 * (kBad + 1)] = 0x17;
  node.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
  EXPECT_THROW(node.decode(), std::runtime_error);
  EXPECT_EQ(node.times[kBad - 1], (kBad - 1) * 10 + 1);
  EXPECT_EQ(node.times[kBad], 0u);
  EXPECT_EQ(node.energies[kRecords - 1], 0u);
}

// Every field at its extremes, in every position of a group of records
// decoded together, for both record kinds, through short streams (written
// to the columns directly) and long ones (written past the cache).
TEST(WLDataNodeDecode, ExtremeValuesSurviveInEveryLane) {
  const uint64_t kMaxTime = (uint64_t{1} << 56) - 1;
  const auto sampleAt = [&](uint64_t i, bool words) {
    const uint32_t u = static_cast<uint32_t>(i);
    Sample s;
    // Times with the top bit of the 56 set, currents and voltages just
    // below and at "no reading", voltages with the sign bit of 16 set.
    s.time = i % 3 == 0 ? kMaxTime - i : i;
    if (words) s.words = {0xFFFFFFFFu - u, 0x80000000u | u};
    s.current = i % 4 == 1 ? 0xFFFFFFFFu : 0xFFFFFFFEu - u;
    s.voltage = static_cast<uint16_t>(i % 5 == 2 ? 0xFFFF : 0x8000 + (i % 0x7FFF));
    s.energy = 0xFFFFFFFFu - 7 * u;
    return s;
  };
  for (bool words : {false, true}) {
    for (uint64_t records : {uint64_t{29}, uint64_t{700001}}) {
      StreamBuilder b(words ? 0x07 : 0x08, words ? 2 : 0);
      for (uint64_t i = 0; i < records; ++i) b.add(sampleAt(i, words));
      WLDataNode node;
      node.readBuffer(b.bytes().data(), static_cast<int64_t>(b.bytes().size()));
      node.decode();
      ASSERT_EQ(node.recordCount, records);
      for (uint64_t i = 0; i < records; i += (i < 64 ? 1 : 9973)) {
        const Sample s = sampleAt(i, words);
        SCOPED_TRACE(testing::Message() << "words " << words << " records " << records << " i " << i);
        ASSERT_EQ(node.times[i], s.time);
        ASSERT_EQ(node.currents[i], s.current == 0xFFFFFFFFu ? 0u : s.current);
        ASSERT_EQ(node.voltages[i], s.voltage == 0xFFFF ? 0 : s.voltage);
        ASSERT_EQ(node.energies[i], s.energy);
        if (words) {
          ASSERT_EQ(node.stateWords[0][i], s.words[0]);
          ASSERT_EQ(node.stateWords[1][i], s.words[1]);
        }
      }
    }
  }
}

// A wrong tag is found wherever it sits among records decoded together,
// also when it differs from the right one only in the word count.
TEST(WLDataNodeDecode, WrongTagIsFoundInEveryLane) {
  for (uint64_t bad = 16; bad < 24; ++bad) {
    StreamBuilder b(0x27, 2);
    for (uint64_t i = 0; i < 40; ++i) {
      const Sample s{i + 100, {1, 2}, 3, 4, 5};
      if (i == bad) {
        b.addWithTag(bad % 2 == 0 ? 0x37 : 0x26, s);
      } else {
        b.add(s);
      }
    }
    WLDataNode node;
    node.readBuffer(b.bytes().data(), static_cast<int64_t>(b.bytes().size()));
    EXPECT_THROW(node.decode(), std::runtime_error) << bad;
    EXPECT_EQ(node.times[bad - 1], bad - 1 + 100) << bad;
    EXPECT_EQ(node.times[bad], 0u) << bad;
    EXPECT_EQ(node.energies[bad], 0u) << bad;
  }
}

// Streams of tens of mebibytes are decoded in shares by two threads; the
// result must not depend on which thread took which share, and a bad record
// must clear everything after it even when a later share was decoded first.
TEST(WLDataNodeDecode, StreamsDecodedInSharesMatchTheFile) {
  constexpr uint64_t kRecords = 2'800'003;  // about 70 MiB
  StreamBuilder b(0x07, 2);
  const auto sampleAt = [](uint64_t i) {
    const uint32_t u = static_cast<uint32_t>(i);
    return Sample{i * 3 + 1, {u, ~u}, u * 5, static_cast<uint16_t>(i), u * 7};
  };
  for (uint64_t i = 0; i < kRecords; ++i) b.add(sampleAt(i));
  const std::vector<uint64_t> probes = {0, 20159, 20160, 524159, 524160, 1048320, 2000001,
                                        kRecords - 1};
  const auto expectRecords = [&](const WLDataNode& node, uint64_t bad) {
    for (uint64_t i : probes) {
      const Sample s = i < bad ? sampleAt(i) : Sample{0, {0, 0}, 0, 0, 0};
      EXPECT_EQ(node.times[i], s.time) << i;
      EXPECT_EQ(node.stateWords[0][i], s.words[0]) << i;
      EXPECT_EQ(node.stateWords[1][i], s.words[1]) << i;
      EXPECT_EQ(node.currents[i], s.current) << i;
      EXPECT_EQ(node.voltages[i], s.voltage) << i;
      EXPECT_EQ(node.energies[i], s.energy) << i;
    }
  };
  {
    TempDir dir;
    WLDataNode node;
    load(node, dir, b.bytes());
    ASSERT_EQ(node.recordCount, kRecords);
    expectRecords(node, kRecords);
  }
  // Two bad records in different shares: the earlier one decides.
  constexpr uint64_t kBad = 1048321;
  b.bytes()[26 * (kBad + 1)] = 0x17;
  b.bytes()[26 * (2000000 + 1)] = 0x17;
  WLDataNode node;
  node.readBuffer(b.bytes().data(), static_cast<int64_t>(b.bytes().size()));
  EXPECT_THROW(node.decode(), std::runtime_error);
  expectRecords(node, kBad);
  EXPECT_EQ(node.times[kBad - 1], sampleAt(kBad - 1).time);
}

TEST(WLDataNodeDecode, RecordKindsWithoutLayoutDecodeNothing) {
  TempDir dir;
  WLDataNode node;
  load(node, dir, std::vector<uint8_t>(100, 0x23));
  EXPECT_EQ(node.recordType, 3u);
  EXPECT_EQ(node.recordCount, 0u);
  EXPECT_FALSE(node.times.exists());

  // After a load that set a record size, an unknown kind still counts 0.
  StreamBuilder s(0x08, 0);
  s.add({1, {}, 1, 1, 1});
  load(node, dir, s.bytes());
  load(node, dir, std::vector<uint8_t>(100, 0x0B));
  EXPECT_EQ(node.recordType, 0u);
  EXPECT_EQ(node.recordCount, 0u);
  EXPECT_FALSE(node.currents.exists());
}

TEST(WLDataNodeDecode, OtherWordCountsNeverReadPastTheEnd) {
  TempDir dir;
  // Four words make 34-byte records; the count from 26-byte records would
  // reach past the end, so only whole records are read.
  StreamBuilder s(0x47, 4);
  for (uint32_t i = 0; i < 5; ++i) s.add({i, {i, i + 1, i + 2, 0xF0000000 + i}, i, 1, i});
  WLDataNode node;
  load(node, dir, s.bytes());
  EXPECT_EQ(node.stateWordCount, 4);
  ASSERT_EQ(node.recordCount, 5u);  // 204 bytes: 204/26 - 1 = 6, but 5 fit
  EXPECT_EQ(node.stateWords[3][4], 0xF0000004u);
  EXPECT_EQ(node.currents[4], 4u);

  // One word (22 bytes): the nominal count is the smaller one.
  StreamBuilder one(0x17, 1);
  for (uint32_t i = 0; i < 12; ++i) one.add({i, {i * 3}, i, 1, i});
  load(node, dir, one.bytes());  // 13 * 22 = 286 bytes: 286/26 - 1 = 10
  ASSERT_EQ(node.recordCount, 10u);
  EXPECT_EQ(node.stateWords[0][9], 27u);
}

TEST(WLDataNodeDecode, MissingFileLeavesNoStream) {
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
}

TEST(WLDataNodeDecode, ReloadReplacesTheColumns) {
  TempDir dir;
  StreamBuilder s(0x07, 2);
  s.add({1, {1, 1}, 1, 1, 1});
  WLDataNode node;
  load(node, dir, s.bytes());
  ASSERT_EQ(node.stateWords.size(), 2u);
  StreamBuilder p(0x08, 0);
  p.add({1, {}, 1, 1, 1}).add({2, {}, 2, 2, 2});
  load(node, dir, p.bytes());
  EXPECT_EQ(node.recordCount, 2u);
  EXPECT_TRUE(node.stateWords.empty());
  EXPECT_FALSE(node.readFile(dir.path(), "gone.bin"));
  EXPECT_FALSE(node.times.exists());
}

class WLDataNodeStats : public ::testing::Test {
 protected:
  // Times in microseconds, energy in 0.1 uJ; the last step wraps the counter.
  void SetUp() override {
    StreamBuilder s(0x08, 0);
    s.add({1000000, {}, 1000000, 3000, 100})       // 1 mA, 3.0 V
        .add({1001000, {}, 3000000, 3300, 600})    // +500 in 1 ms: 50 mW
        .add({1003000, {}, 2000000, 3000, 1600})   // +1000 in 2 ms: 50 mW
        .add({1004000, {}, 2000000, 2700, 0xFFFFFFF0})
        .add({1005000, {}, 4000000, 3000, 0x10});  // +0x20 in 1 ms: 3.2 mW
    bytes_ = s.bytes();
    node_.readBuffer(bytes_.data(), static_cast<int64_t>(bytes_.size()));
    node_.decode();
  }
  std::vector<uint8_t> bytes_;
  WLDataNode node_;
};

TEST_F(WLDataNodeStats, PowerCurrentVoltageOverARange) {
  node_.computeStats(0, 3);
  EXPECT_EQ(node_.powerStats.count, 2);
  EXPECT_DOUBLE_EQ(node_.powerStats.min, 50.0);
  EXPECT_DOUBLE_EQ(node_.powerStats.max, 50.0);
  EXPECT_EQ(node_.currentStats.count, 3);
  EXPECT_DOUBLE_EQ(node_.currentStats.mean, 2.0);
  EXPECT_DOUBLE_EQ(node_.currentStats.max, 3.0);
  EXPECT_NEAR(node_.voltageStats.mean, 3.1, 1e-12);
  EXPECT_NEAR(node_.duration, 0.003, 1e-12);  // the last record of the range is 2
  EXPECT_NEAR(node_.energyUsed, 0.15, 1e-12);
}

TEST_F(WLDataNodeStats, EnergyCounterWrapsOnceInPowerButNotInEnergyUsed) {
  node_.computeStats(3, 5);
  EXPECT_EQ(node_.powerStats.count, 1);
  EXPECT_NEAR(node_.powerStats.mean, 32.0 / 10000.0 / 0.001, 1e-9);
  EXPECT_LT(node_.energyUsed, 0.0);
  EXPECT_NEAR(node_.energyUsed, 16 / 10000.0 - 4294967280.0 / 10000.0, 1e-6);

  node_.computeStats(0, 5);
  // Samples: 50, 50, (0xFFFFFFF0 - 1600) / 1e4 / 0.001, 3.2 mW.
  const double big = (4294967280.0 - 1600.0) / 10000.0 / 0.001;
  EXPECT_EQ(node_.powerStats.count, 4);
  EXPECT_NEAR(node_.powerStats.mean, (50 + 50 + big + 3.2) / 4, 1e-6);
  EXPECT_NEAR(node_.powerStats.min, 3.2, 1e-9);
}

TEST_F(WLDataNodeStats, FewerThanTwoRecordsLeaveZeroAndReplaceTheLastResult) {
  node_.computeStats(0, 5);
  ASSERT_GT(node_.duration, 0.0);
  node_.computeStats(2, 3);
  EXPECT_EQ(node_.powerStats.count, 0);
  EXPECT_EQ(node_.currentStats.count, 0);
  EXPECT_DOUBLE_EQ(node_.currentStats.max, 0.0);
  EXPECT_DOUBLE_EQ(node_.duration, 0.0);
  EXPECT_DOUBLE_EQ(node_.energyUsed, 0.0);
}

TEST_F(WLDataNodeStats, ZeroTimeStepGivesAnInfiniteSample) {
  StreamBuilder s(0x08, 0);
  s.add({5, {}, 0, 0, 0}).add({5, {}, 0, 0, 10});
  auto bytes = s.bytes();
  node_.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
  node_.decode();
  node_.computeStats(0, 2);
  EXPECT_EQ(node_.powerStats.count, 1);
  EXPECT_TRUE(std::isinf(node_.powerStats.max));
}

TEST(WLDataNodeIndex, IndexOfTimeAssumesEvenSpacing) {
  StreamBuilder s(0x08, 0);
  for (uint64_t i = 0; i < 10; ++i) s.add({1000 + i * 100, {}, 0, 0, 0});
  auto bytes = s.bytes();
  WLDataNode node;
  EXPECT_EQ(node.indexOfTime(5), 0u);
  node.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
  node.decode();
  // step = (1900 - 1000) / 10 = 90 us
  EXPECT_EQ(node.indexOfTime(0), 0u);
  EXPECT_EQ(node.indexOfTime(1000), 0u);
  EXPECT_EQ(node.indexOfTime(1089), 0u);
  EXPECT_EQ(node.indexOfTime(1090), 1u);
  EXPECT_EQ(node.indexOfTime(1500), 5u);  // 500 / 90 = 5.55
  EXPECT_EQ(node.indexOfTime(1900), 9u);
  EXPECT_EQ(node.indexOfTime(std::numeric_limits<uint64_t>::max()), 9u);

  StreamBuilder flat(0x08, 0);
  flat.add({7, {}, 0, 0, 0}).add({7, {}, 0, 0, 0}).add({7, {}, 0, 0, 0});
  node.readBuffer(flat.bytes().data(), static_cast<int64_t>(flat.bytes().size()));
  node.decode();
  EXPECT_EQ(node.indexOfTime(0), 2u);
}

TEST(WLDataNodeIndex, NearestIndexPrefersTheUpperOnATie) {
  const std::vector<uint64_t> list{10, 20, 30, 40};
  EXPECT_EQ(nearestIndex({}, 5), 0u);
  EXPECT_EQ(nearestIndex(list, 0), 0u);
  EXPECT_EQ(nearestIndex(list, 10), 0u);
  EXPECT_EQ(nearestIndex(list, 99), 3u);
  EXPECT_EQ(nearestIndex(list, 24), 1u);
  EXPECT_EQ(nearestIndex(list, 25), 2u);
  EXPECT_EQ(nearestIndex(list, 26), 2u);
  EXPECT_EQ(nearestIndex(list, 30), 2u);
}

}  // namespace
