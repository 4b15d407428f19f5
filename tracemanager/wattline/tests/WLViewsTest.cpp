// The table, line graph and summary over nodes decoded from hand-made
// streams; expected values are worked out here from the samples.
#include "wattline/WLViews.hpp"

#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "WLTestStreams.hpp"

namespace VSKTspServer {
namespace {

using wltest::Sample;
using wltest::StreamBuilder;
using wltest::TempDir;

struct Decoded {
  std::vector<uint8_t> bytes;
  WLDataNode node;
  explicit Decoded(StreamBuilder& s) : bytes(s.bytes()) {
    node.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
    node.decode();
  }
};

TableLinesRequest linesRequest(int64_t index, int32_t count) {
  TableLinesRequest r;
  r.requested_table_index = index;
  r.requested_table_count = count;
  r.requested_table_column_ids = {0};  // ignored: a line has every cell
  return r;
}

TEST(WLTable, StateWordsAsUpperHexWithDsr1First) {
  StreamBuilder s(0x07, 2);
  s.add({100, {2147483658u, 0x1F}, 5, 3300, 7}).add({200, {0, 0xABCDEF01}, 6, 3301, 8});
  Decoded d(s);
  WLTable table(&d.node);
  auto lines = table.getLines(linesRequest(0, 10)).model;
  EXPECT_EQ(lines.columnIds, (std::vector<int64_t>{0, 1, 2, 3, 4, 5}));
  ASSERT_EQ(lines.lines.size(), 2u);
  std::vector<std::string> first;
  for (auto& c : lines.lines[0].cells) first.push_back(c.content);
  EXPECT_EQ(first, (std::vector<std::string>{"100", "7", "5", "3300", "1F", "8000000A"}));
  EXPECT_EQ(lines.lines[1].cells[4].content, "ABCDEF01");
  EXPECT_EQ(lines.lines[1].cells[5].content, "0");
}

TEST(WLTable, RangesAndPlainStreams) {
  StreamBuilder s(0x08, 0);
  for (uint64_t i = 0; i < 10; ++i) s.add({10 * (i + 1), {}, uint32_t(i), 3000, uint32_t(i)});
  Decoded d(s);
  WLTable table(&d.node);
  EXPECT_EQ(table.getColumns("").model.size(), 4u);

  // Nothing asked, the last two lines, past the end.
  for (auto [index, count, lines] :
       {std::tuple{2, 0, 0u}, std::tuple{8, 200, 2u}, std::tuple{50, 5, 0u}}) {
    auto page = table.getLines(linesRequest(index, count)).model;
    ASSERT_EQ(page.lines.size(), lines) << index;
    EXPECT_EQ(page.size, 10);
    EXPECT_EQ(page.lowIndex, index);
    EXPECT_EQ(page.columnIds, (std::vector<int64_t>{0, 1, 2, 3}));
  }
  auto tail = table.getLines(linesRequest(8, 200)).model;
  EXPECT_EQ(tail.lines[0].index, 8);
  EXPECT_EQ(tail.lines[1].cells.size(), 4u);
  EXPECT_EQ(tail.lines[1].cells[0].content, "100");

  WLTable orphan;
  EXPECT_TRUE(orphan.getColumns("").model.empty());
  EXPECT_TRUE(orphan.getLines(linesRequest(0, 5)).model.lines.empty());
}

TEST(WLTable, SlicedExportMatchesTheOneRequestExport) {
  StreamBuilder s(0x07, 2);
  for (uint32_t i = 0; i < 1000; ++i) s.add({i + 1ull, {i, i * 3}, i, 3000, i});
  Decoded d(s);
  WLTable table(&d.node);
  TempDir dir;
  ASSERT_EQ(table.exportCsv(dir.path() + "/whole.csv"), 0);
  ASSERT_EQ(table.exportInSlices(dir.path() + "/sliced.csv", 7), 0);
  const std::string whole = ostrand_test::readFile(dir.path() + "/whole.csv");
  EXPECT_EQ(whole.substr(0, 40), "Time,Energy,Current,Voltage,DSR1,DSR0\r\n1");
  EXPECT_EQ(ostrand_test::readFile(dir.path() + "/sliced.csv"), whole);
  EXPECT_EQ(table.exportInSlices(dir.path() + "/no/such/dir.csv"), -1);
}

TEST(WLLineGraph, StrideKeepsAtMostTwiceTheBudget) {
  for (auto [records, step, points] : {std::tuple{4000, 1, 3999}, std::tuple{4001, 2, 2000}}) {
    StreamBuilder s(0x08, 0);
    for (int i = 0; i < records; ++i) s.add({uint64_t(i) * 10, {}, uint32_t(i * 7), 3000, 0});
    Decoded d(s);
    WLLineGraph graph(&d.node);
    auto xy = graph.getXY({-5, int64_t(1) << 60, 0}, {}).model;
    ASSERT_EQ(xy.series.size(), 1u);
    const auto& series = xy.series[0];
    ASSERT_EQ(series.xValues.size(), size_t(points)) << records;
    EXPECT_EQ(series.xValues[1], step);
    EXPECT_EQ(series.yValues[1], step * 7);  // a real sample, not an average
    // The last record itself is not included.
    EXPECT_LT(series.xValues.back(), records - 1);
  }
  WLLineGraph orphan;
  EXPECT_TRUE(orphan.getXY({0, 100, 0}, {}).model.series.at(0).yValues.empty());
}

// One milliwatt for three seconds at 3 V and 1 mA (the energy counter in
// 0.1 uJ steps: 10000 per second).
StreamBuilder oneMilliwatt() {
  StreamBuilder s(0x08, 0);
  for (uint64_t i = 0; i < 4; ++i) {
    s.add({i * 1'000'000, {}, 1'000'000, 3000, uint32_t(i * 10000)});
  }
  return s;
}

std::vector<std::string> labelsOf(const XYTreeResponse& r, int64_t id) {
  for (const auto& e : r.model.entries)
    if (e.id == id) return e.labels;
  return {};
}

// The figures, their tree and the coin-cell life are in the route
// transcript (WLRoutesTest); here the edges of the range and the export.
TEST(WLSummary, ShortRangesAndTheLastFiguresStay) {
  StreamBuilder s = oneMilliwatt();
  Decoded d(s);
  WLSummary summary(&d.node);
  // One record in range: everything zero, the life too.
  auto one = summary.getXYTree(1'000'000, 1'000'001);
  EXPECT_EQ(labelsOf(one, 12)[1], "0.000 mJ");
  EXPECT_EQ(labelsOf(one, 16)[1], "0 day, 0 hour, 0 min");
  // An empty range shows the last computation again.
  summary.getXYTree(0, 3'000'000);
  EXPECT_EQ(labelsOf(summary.getXYTree(5, 5), 11)[1], "2.00 sec");
  // Rows keep shape with no node at all.
  WLSummary orphan;
  EXPECT_EQ(orphan.getXYTree(0, 10).model.entries.size(), 14u);
  EXPECT_TRUE(summary.getXY({0, 100, 0}, {}).model.series.empty());
  // Beyond 32 bits the life wraps rather than saturates.
  EXPECT_EQ(WLSummary::coinCellSeconds(1.0, 1e9), uint32_t(uint64_t(2376000) * 1000000000ull));
}

TEST(WLSummary, CsvOfTheWholeStream) {
  StreamBuilder s = oneMilliwatt();
  Decoded d(s);
  WLSummary summary(&d.node);
  summary.getXYTree(0, 1'000'000);  // a narrow selection first
  TempDir dir;
  ASSERT_EQ(summary.exportCsv(dir.path() + "/summary.csv"), 0);
  const std::string csv = ostrand_test::readFile(dir.path() + "/summary.csv");
  EXPECT_EQ(csv.substr(0, 45), "Name,Value\r\nSystem,\r\nTime,2.00 sec\r\nEnergy,2.");
  EXPECT_NE(csv.find("CR2032 (220mAh) Life,\"27 day, 12 hour, 0 min\"\r\n"), std::string::npos);
  EXPECT_DOUBLE_EQ(d.node.duration, 2.0);  // the whole stream stays in the node
  EXPECT_EQ(summary.exportCsv(dir.path() + "/missing/summary.csv"), -1);
}

}  // namespace
}  // namespace VSKTspServer
