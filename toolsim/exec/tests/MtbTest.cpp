#include <gtest/gtest.h>

#include <cstring>

#include "ExecTestSupport.hpp"
#include "MtbDecoder.hpp"
#include "MtbEncoder.hpp"

namespace OstrandSim {
namespace {

using test::CodeRun;

struct Decoded {
  std::vector<CodeRun> runs;               // complete runs, oldest first
  std::vector<uint32_t> instructions;  // instruction rows of those runs
  uint32_t openRun = kNoAddress;       // first address of the newest run
};

Decoded complete(const RowTable& rows) {
  Decoded d;
  bool inComplete = false;
  for (size_t r = 0; r < rows.rowCount(); ++r) {
    if (rows.has(r, 0)) {
      const uint32_t first = static_cast<uint32_t>(*rows.value(r, 0));
      const uint32_t last = static_cast<uint32_t>(*rows.value(r, 1));
      inComplete = first != kNoAddress && last != kNoAddress;
      if (inComplete) d.runs.push_back({first, last});
      if (last == kNoAddress) d.openRun = first;
    } else if (inComplete) {
      d.instructions.push_back(static_cast<uint32_t>(*rows.value(r, 2)));
    }
  }
  return d;
}

std::vector<uint32_t> instructionsOf(const std::vector<CodeRun>& runs, const ProgramImage& image) {
  std::vector<uint32_t> out;
  for (const CodeRun& run : runs) {
    for (uint32_t at = run.first; at <= run.last;) {
      out.push_back(at);
      uint8_t size = 0;
      image.opcodeAt(at, size);
      at += size;
    }
  }
  return out;
}

MtbConfig config(uint32_t bytes, bool circular = true, uint32_t watermark = 0, bool stop = false) {
  MtbConfig c;
  c.bufferBytes = bytes;
  c.circular = circular;
  c.watermark = watermark;
  c.stopAtWatermark = stop;
  return c;
}

class MtbTest : public ::testing::TestWithParam<test::Board> {
 protected:
  void SetUp() override { image_ = std::make_unique<ProgramImage>(test::programPath(GetParam())); }
  std::unique_ptr<ProgramImage> image_;
};

// A circular buffer holds the newest branches: its runs are the last runs
// of the execution, in order, and the run in progress is open.
TEST_P(MtbTest, CircularBufferHoldsTheNewestRunsOfTheExecution) {
  MtbEncoder mtb(config(4096));
  const auto pcs = test::runBoard(GetParam(), 20000, mtb);
  const MtbSnapshot snap = mtb.snapshot();
  EXPECT_TRUE(snap.wrap);
  EXPECT_GT(mtb.packetsWritten(), 512u);

  const Decoded d = complete(decodeMtb(snap, image_.get()));
  const std::vector<CodeRun> logRuns = test::runsOf(pcs, *image_);
  ASSERT_GT(d.runs.size(), 300u);
  ASSERT_GE(logRuns.size(), d.runs.size() + 1);
  const std::vector<CodeRun> expected(logRuns.end() - 1 - d.runs.size(), logRuns.end() - 1);
  EXPECT_EQ(d.runs, expected);
  EXPECT_EQ(d.openRun, logRuns.back().first);
  EXPECT_EQ(d.instructions, instructionsOf(expected, *image_));
}

// A one-shot buffer keeps the first branches and stops when full; the
// first packet carries the start bit.
TEST_P(MtbTest, OneShotBufferKeepsTheFirstRunsAndStops) {
  MtbEncoder mtb(config(1024, false));
  bool stopped = false;
  mtb.setStopCallback([&] { stopped = true; });
  const auto pcs = test::runBoard(GetParam(), 20000, mtb);
  const MtbSnapshot snap = mtb.snapshot();
  EXPECT_TRUE(stopped);
  EXPECT_FALSE(mtb.tracing());
  EXPECT_EQ(snap.position, 0u);
  EXPECT_EQ(snap.buffer[4] & 1u, 1u) << "S bit of the first packet";
  EXPECT_EQ(snap.buffer[12] & 1u, 0u);

  const Decoded d = complete(decodeMtb(snap, image_.get()));
  const std::vector<CodeRun> logRuns = test::runsOf(pcs, *image_);
  ASSERT_GT(d.runs.size(), 50u);
  const std::vector<CodeRun> expected(logRuns.begin() + 1, logRuns.begin() + 1 + d.runs.size());
  EXPECT_EQ(d.runs, expected);
}

// Stop at watermark: tracing ends with POSITION at the watermark, no wrap;
// the exceptions inside show as the hardware writes them.
TEST_P(MtbTest, WatermarkStopsAndExceptionsHaveTheirPackets) {
  MtbEncoder mtb(config(8192, true, 4096, true));
  test::runBoard(GetParam(), 30000, mtb);
  const MtbSnapshot snap = mtb.snapshot();
  EXPECT_TRUE(mtb.stoppedByBuffer());
  EXPECT_EQ(snap.position, 4096u);
  EXPECT_FALSE(snap.wrap);

  const uint32_t handler = *image_->symbol("SysTick_Handler");
  int entries = 0, returns = 0;
  for (uint32_t at = 0; at + 16 <= snap.position; at += 8) {
    uint32_t w[4];
    std::memcpy(w, snap.buffer.data() + at, 16);
    if ((w[0] & 1u) && (w[1] & ~1u) == handler) ++entries;
    if (w[1] >= 0xF0000000u) {
      ++returns;
      EXPECT_EQ(w[2], w[1] | 1u) << "second packet: EXC_RETURN with the A bit";
    }
  }
  EXPECT_GT(entries, 0);
  EXPECT_GE(returns, entries - 1);
}

INSTANTIATE_TEST_SUITE_P(Boards, MtbTest, ::testing::ValuesIn(test::kBoards), test::boardName);

TEST(MtbConfigTest, SizesAndRowLimit) {
  EXPECT_THROW(MtbEncoder(config(24)), std::invalid_argument);
  EXPECT_THROW(MtbEncoder(config(64, true, 12)), std::invalid_argument);

  // A buffer of 1 MiB of short runs decodes to at most 16384 rows.
  MtbSnapshot big;
  big.buffer.resize(1 << 20);
  for (size_t at = 0; at < big.buffer.size(); at += 8) {
    const uint32_t w[2] = {0x100u + static_cast<uint32_t>(at % 64), 0x200u};
    std::memcpy(big.buffer.data() + at, w, 8);
  }
  big.wrap = true;
  EXPECT_EQ(decodeMtb(big, nullptr).rowCount(), kMtbMaxRows);
}

}  // namespace
}  // namespace OstrandSim
