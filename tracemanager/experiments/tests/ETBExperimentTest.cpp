#include "experiments/ETBExperiment.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ExperimentFixture.hpp"

using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace VSKTspServer {
namespace {

using ostrand_test::experimentGolden;
using ostrand_test::readFile;
using ostrand_test::writeFile;

EtbRecordStore::Record record(int n) {
  return {{"addr", "0000010" + std::to_string(n)},
          {"asm", "BF00"},
          {"dasm", "   nop"},
          {"function", "main"},
          {"file", "main.c"},
          {"lno", std::to_string(10 + n)},
          {"src", "  x++;"},
          {"dir", "/src"},
          {"cycles", std::to_string(n * 2)}};
}

class EtbCapture : public ostrand_test::CaptureFixture<ETBExperiment> {
 protected:
  EtbCapture() : CaptureFixture("M7_CoreTrace", "ETB") {}
  void SetUp() override { writeFile(dir / "metadata", R"({"typeId":"ETB","device":"P/M7"})"); }
  static TableLinesResponse lines(ETBTable& table, int64_t index, int32_t count) {
    return table.getLines(ostrand_test::tableWindow(index, count));
  }
};

TEST_F(EtbCapture, BeforeTheFirstRefreshAnEmptyStoreCannotAnswer) {
  auto experiment = openExperiment();
  EXPECT_EQ(experiment->discontinuityTable->getColumns("").model.size(), 10u);
  EXPECT_THAT([&] { lines(*experiment->discontinuityTable, 0, 200); },
              ThrowsMessage<std::out_of_range>(StrEq("invalid vector subscript")));
  experiment->refresh();
  auto empty = lines(*experiment->discontinuityTable, 0, 200);
  EXPECT_EQ(empty.model.size, 0);
  EXPECT_TRUE(empty.model.lines.empty());
}

TEST_F(EtbCapture, CellsFollowTheRecordKeys) {
  router.etbRecords.append(std::vector<EtbRecordStore::Record>{record(0), record(1), record(2)});
  EtbRecordStore::Record bare = {{"addr", "00000200"}};
  router.etbRecords.append(bare);
  auto experiment = openExperiment();
  experiment->refresh();
  ASSERT_EQ(experiment->exportCsv("", ""), 0);
  EXPECT_EQ(readFile(dir / "Discontinuity Trace.csv"), readFile(experimentGolden("etb_cells.csv")));
  // The hidden table shows the newest record first, and Seq. counts lines.
  ASSERT_EQ(experiment->exportCsv(dir / "t.csv", "Trace"), 0);
  EXPECT_EQ(readFile(dir / "t.csv"), readFile(experimentGolden("etb_cells_trace.csv")));
}

TEST_F(EtbCapture, StaleRowsAfterANewDecodeFailUntilRefresh) {
  for (int i = 0; i < 5; ++i) router.etbRecords.append(record(i));
  auto experiment = openExperiment();
  experiment->refresh();
  router.etbRecords.clear();
  router.etbRecords.append(record(0));
  EXPECT_EQ(lines(*experiment->discontinuityTable, 0, 1).model.lines.size(), 1u);
  EXPECT_THROW(lines(*experiment->discontinuityTable, 0, 5), std::out_of_range);
  experiment->refresh();
  EXPECT_EQ(lines(*experiment->discontinuityTable, 0, 5).model.size, 1);
}

TEST_F(EtbCapture, ClosingOneExperimentEmptiesTheSharedStore) {
  for (int i = 0; i < 3; ++i) router.etbRecords.append(record(i));
  auto first = openExperiment();
  auto second = openExperiment();
  first->close();
  EXPECT_EQ(first->indexingStatus, "CLOSED");
  EXPECT_EQ(router.etbRecords.size(), 0u);
  second->refresh();
  EXPECT_EQ(lines(*second->discontinuityTable, 0, 10).model.size, 0);
}

// The decoder fills the store on its own thread while requests read it.
TEST_F(EtbCapture, ConcurrentDecodeAndRequests) {
  for (int i = 0; i < 50; ++i) router.etbRecords.append(record(i));
  auto experiment = openExperiment();
  experiment->refresh();
  std::atomic<bool> done{false};
  std::thread decoder([&] {
    for (int round = 0; round < 100; ++round) {
      router.etbRecords.clear();
      for (int i = 0; i < 60; ++i) router.etbRecords.append(record(i));
    }
    done = true;
  });
  int requests = 0;
  do {
    try {
      (void)lines(*experiment->discontinuityTable, 0, 50);
    } catch (const std::out_of_range&) {
      // The store was cleared between two appends: a stale range, not a crash.
    }
    ++requests;
  } while (!done);
  decoder.join();
  EXPECT_GT(requests, 0);
  experiment->refresh();
  EXPECT_EQ(lines(*experiment->discontinuityTable, 0, 100).model.size, 60);
}

}  // namespace
}  // namespace VSKTspServer
