#include <gtest/gtest.h>

#include <algorithm>

#include "EtmDecoder.hpp"
#include "EtmEncoder.hpp"
#include "ExecTestSupport.hpp"

namespace OstrandSim {
namespace {

// The instructions a decoder can give back for a run under `config`: the
// traced ones, except those after the last waypoint (or exception) before
// tracing stops, which no trace places.
std::vector<uint32_t> expectedTrace(const std::vector<ExecStep>& steps, const EtmConfig& config) {
  std::vector<uint32_t> out, tail;
  bool started = config.startAddresses.empty(), tracing = false;
  auto has = [](const std::vector<uint32_t>& v, uint32_t a) {
    return std::find(v.begin(), v.end(), a) != v.end();
  };
  for (const ExecStep& s : steps) {
    if (s.kind == StepKind::kExceptionEntry && tracing) {
      out.insert(out.end(), tail.begin(), tail.end());
      tail.clear();
    }
    if (s.kind != StepKind::kInstruction) continue;
    if (has(config.startAddresses, s.address)) started = true;
    bool active = started && (config.traceOn || !config.ranges.empty() || !config.startAddresses.empty());
    if (active && !config.ranges.empty()) {
      active = std::any_of(config.ranges.begin(), config.ranges.end(), [&](const auto& r) {
        return s.address >= r.start && s.address <= r.end;
      });
    }
    if (!active) tail.clear();
    tracing = active;
    if (active) {
      tail.push_back(s.address);
      bool indirect = false;
      if (isThumbWaypoint(s.value, s.size, indirect)) {
        out.insert(out.end(), tail.begin(), tail.end());
        tail.clear();
      }
    }
    if (has(config.stopAddresses, s.address)) started = false;
  }
  return out;
}

struct Decoded {
  std::vector<uint32_t> addresses;
  uint64_t cycles = 0, withCycles = 0;
  bool runsMatch = true;  // every run row spans exactly the instruction rows after it
};

Decoded readRows(const RowTable& rows) {
  Decoded d;
  uint32_t runFirst = 0, runLast = 0, previous = 0;
  bool first = false;
  for (size_t r = 0; r < rows.rowCount(); ++r) {
    if (rows.has(r, 0)) {
      if (r > 0) d.runsMatch &= previous == runLast;
      runFirst = static_cast<uint32_t>(*rows.value(r, 0));
      runLast = static_cast<uint32_t>(*rows.value(r, 1));
      first = true;
      continue;
    }
    const uint32_t a = static_cast<uint32_t>(*rows.value(r, 2));
    if (first) d.runsMatch &= a == runFirst;
    first = false;
    previous = a;
    d.addresses.push_back(a);
    if (auto c = rows.value(r, 4)) {
      d.cycles += *c;
      ++d.withCycles;
    }
  }
  if (rows.rowCount() > 0) d.runsMatch &= previous == runLast;
  return d;
}

struct Case {
  const char* name;
  std::vector<std::pair<const char*, uint32_t>> ranges;  // symbol + length
  const char* start;
  const char* stop;
};

class EtmRoundTrip : public ::testing::TestWithParam<std::tuple<test::Board, Case>> {};

// Execution, encoder, OpenCSD and rows give back exactly the instructions
// that ran (and were to be traced), with cycle counts on the way.
TEST_P(EtmRoundTrip, ReproducesTheExecutedInstructions) {
  const auto& [board, c] = GetParam();
  const ProgramImage image(test::programPath(board));
  EtmConfig config;
  config.bufferBytes = 1 << 20;
  for (const auto& [symbol, length] : c.ranges) {
    const uint32_t at = *image.symbol(symbol);
    config.ranges.push_back({at, at + length});
  }
  if (c.start != nullptr) config.startAddresses.push_back(*image.symbol(c.start));
  if (c.stop != nullptr) config.stopAddresses.push_back(*image.symbol(c.stop));
  EtmEncoder etm(config);
  test::Recorder rec;
  test::runBoard(board, 30000, etm, &rec);
  const EtmSnapshot snap = etm.snapshot();
  EXPECT_FALSE(snap.wrapped);

  EtmDecodeStats stats;
  const Decoded d = readRows(decodeEtm(snap, image, &stats));
  const std::vector<uint32_t> expected = expectedTrace(rec.steps, config);
  ASSERT_GT(expected.size(), 500u);
  EXPECT_EQ(d.addresses.size(), expected.size());
  EXPECT_TRUE(d.addresses == expected);
  EXPECT_TRUE(d.runsMatch);
  if (c.ranges.empty()) {
    EXPECT_GT(stats.exceptions, 0u);
  }
  EXPECT_GT(d.withCycles, 10u);
  EXPECT_GE(d.cycles, d.withCycles);
  EXPECT_LE(d.cycles, rec.steps.back().timeNs / config.nsPerCycle);
}

const Case kCases[] = {
    {"all", {}, nullptr, nullptr},
    {"ranges", {{"filter_step", 0x20}, {"crc_update", 0x18}}, nullptr, nullptr},
    {"triggers", {}, "process_block", "report"},
};

INSTANTIATE_TEST_SUITE_P(
    Boards, EtmRoundTrip,
    ::testing::Combine(::testing::ValuesIn(test::kBoards), ::testing::ValuesIn(kCases)),
    [](const auto& info) {
      return test::testName(std::string(std::get<0>(info.param).machine) + "_" + std::get<1>(info.param).name);
    });

// A circular buffer that wrapped decodes from its oldest sync to the end,
// and what it gives is the tail of the execution.
TEST(EtmBuffer, WrappedBufferDecodesItsNewestPart) {
  const test::Board& board = test::kBoards[1];
  const ProgramImage image(test::programPath(board));
  EtmConfig config;
  config.bufferBytes = 4096;
  config.syncPeriod = 256;
  EtmEncoder etm(config);
  test::Recorder rec;
  test::runBoard(board, 20000, etm, &rec);
  const EtmSnapshot snap = etm.snapshot();
  ASSERT_TRUE(snap.wrapped);
  EXPECT_EQ(snap.bytes.size(), 4096u);
  const Decoded d = readRows(decodeEtm(snap, image));
  const std::vector<uint32_t> expected = expectedTrace(rec.steps, config);
  ASSERT_GT(d.addresses.size(), 300u);
  ASSERT_LT(d.addresses.size(), expected.size());
  EXPECT_TRUE(std::equal(d.addresses.begin(), d.addresses.end(),
                         expected.end() - static_cast<long>(d.addresses.size())));
}

}  // namespace
}  // namespace OstrandSim
