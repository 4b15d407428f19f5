#include "experiments/MTBExperiment.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ExperimentFixture.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;
using ostrand_test::experimentGolden;
using ostrand_test::readFile;
using ostrand_test::tableWindow;
using ostrand_test::writeFile;

class MtbCapture : public ostrand_test::CaptureFixture<MTBExperiment> {
 protected:
  MtbCapture() : CaptureFixture("M4_CoreTrace", "MTB") {}
  void SetUp() override {
    writeFile(dir / "metadata", R"({"typeId":"MTB","device":"Probe/M4","dataFile":"mtb_data.json"})");
    writeFile(dir / "mtb_data.json", readFile(experimentGolden("mtb_small.json")));
  }
  static TableLinesResponse lines(MTBExperiment& e, int64_t index, int32_t count) {
    return e.discontinuityTable->getLines(tableWindow(index, count));
  }
};

TEST_F(MtbCapture, BeforeTheFirstRefreshOneLinePerRunInCaptureOrder) {
  auto experiment = openExperiment();
  ASSERT_EQ(experiment->exportCsv(dir / "before.csv", ""), 0);
  EXPECT_EQ(readFile(dir / "before.csv"),
            readFile(experimentGolden("mtb_small_before_refresh.csv")));
  // The hidden table is not reversed yet either.
  ASSERT_EQ(experiment->exportCsv(dir / "trace.csv", "Trace"), 0);
  EXPECT_EQ(readFile(dir / "trace.csv"),
            readFile(experimentGolden("mtb_small_before_refresh.csv")));
}

TEST_F(MtbCapture, AfterRefreshEveryInstructionAndNewestRunFirst) {
  auto experiment = openExperiment();
  experiment->refresh();
  ASSERT_EQ(experiment->exportCsv("", ""), 0);
  EXPECT_EQ(readFile(dir / "Discontinuity Trace.csv"),
            readFile(experimentGolden("mtb_small_discontinuity.csv")));
  ASSERT_EQ(experiment->exportCsv(dir / "trace.csv", "Trace"), 0);
  EXPECT_EQ(readFile(dir / "trace.csv"), readFile(experimentGolden("mtb_small_trace.csv")));

  auto page = lines(*experiment, 4, 200);
  EXPECT_EQ(page.model.size, 6);
  EXPECT_EQ(page.model.lowIndex, 4);
  ASSERT_EQ(page.model.lines.size(), 2u);
  EXPECT_EQ(page.model.lines[0].index, 4);  // counts instructions over all runs
  EXPECT_EQ(page.model.columnIds, (std::vector<int64_t>{0, 1, 2, 3, 4, 5, 6, 7, 8}));
}

// Its one output and its columns are in the route transcript (TspRoutesTest).
TEST_F(MtbCapture, TwoExperimentsOfOneKindHaveDifferentTableIds) {
  auto first = openExperiment();
  auto second = openExperiment();
  EXPECT_EQ(first->getOutput(first->getOutputs()[0]->id), first->discontinuityTable.get());
  EXPECT_NE(second->getOutputs()[0]->id, first->getOutputs()[0]->id);
}

// Values of the wrong type, and a run list shorter than the code, fail the
// request with the parser's error; a document that is no capture fails the
// refresh (golden/mtb_documents.txt and .expected).
TEST_F(MtbCapture, WrongTypesFailTheRequest) {
  auto experiment = openExperiment();
  experiment->refresh();
  EXPECT_TRUE(afterEachDocument(*experiment, "mtb_data.json", "mtb_documents",
                                [&] { return json(lines(*experiment, 0, 1)).dump(); }));
}

TEST_F(MtbCapture, MissingDataFileAndClose) {
  std::filesystem::remove(dir / "mtb_data.json");
  auto experiment = openExperiment();
  experiment->refresh();
  EXPECT_EQ(experiment->indexingStatus, "COMPLETED");
  EXPECT_EQ(lines(*experiment, 0, 10).model.size, 0);
  experiment->close();
  EXPECT_EQ(experiment->indexingStatus, "CLOSED");
  EXPECT_TRUE(experiment->outputs.empty());
  EXPECT_EQ(experiment->discontinuityTable, nullptr);
  EXPECT_EQ(experiment->exportCsv(dir / "x.csv", ""), -1);
}

}  // namespace
}  // namespace VSKTspServer
