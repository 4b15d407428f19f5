#include "experiments/GenericTable.hpp"

#include <gtest/gtest.h>

#include "ExperimentFixture.hpp"
#include "experiments/TDFExperiment.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;
using ostrand_test::experimentGolden;
using ostrand_test::readFile;
using ostrand_test::writeFile;
const auto range = ostrand_test::tableWindow;

class TdfCapture : public ostrand_test::CaptureFixture<TDFExperiment> {
 protected:
  TdfCapture() : CaptureFixture("run_TDF", "TDF") {}
  void SetUp() override {
    writeFile(dir / "metadata", R"({"typeId":"TDF","device":"file/run","dataFile":"tdf_data.json"})");
    writeFile(dir / "tdf_data.json", readFile(experimentGolden("tdf_small.json")));
  }
};

TEST_F(TdfCapture, ExportMatchesGoldenFile) {
  auto experiment = openExperiment();
  EXPECT_EQ(experiment->indexingStatus, "COMPLETED");
  ASSERT_EQ(experiment->exportCsv("", ""), 0);
  EXPECT_EQ(readFile(dir / "Trace.csv"), readFile(experimentGolden("tdf_small.csv")));
  EXPECT_EQ(experiment->exportCsv("", "Other"), -1);
  EXPECT_EQ(experiment->exportCsv(dir / "named.csv", "Trace"), 0);
  EXPECT_EQ(experiment->exportCsv("", "Trace"), -1);  // a name needs a path
}

// Its outputs and columns as a client sees them are in the route transcript
// (tsp_server/tests/golden/routes.expected).

// The window asked for, cut to the table's four lines; an empty request
// asks for none.
TEST_F(TdfCapture, RangesClampToTheTable) {
  auto experiment = openExperiment();
  GenericTable& table = *experiment->table;
  auto page = table.getLines(range(2, 100));
  ASSERT_EQ(page.model.lines.size(), 2u);
  EXPECT_EQ(
      json(page.model.lines[0]).dump(),
      R"({"cells":[{"content":"20","tags":0},{"content":"short","tags":0},{"content":"","tags":0}],)"
      R"("index":2,"tags":0})");
  EXPECT_EQ(page.model.columnIds, (std::vector<int64_t>{0, 1, 2}));
  const struct {
    TableLinesRequest request;
    int64_t lowIndex;
    size_t lines;
  } cases[] = {{range(2, 100), 2, 2},
               {range(10, 5), 4, 0},
               {json::object().get<TableLinesRequest>(), 0, 0},
               {range(-3, 2), 0, 2},
               {range(INT64_MAX - 1, 0x7fffffff), 4, 0}};
  for (const auto& c : cases) {
    const auto answer = table.getLines(c.request);
    SCOPED_TRACE(testing::Message()
                 << c.request.requested_table_index << " +" << c.request.requested_table_count);
    EXPECT_EQ(answer.model.size, 4);
    EXPECT_EQ(answer.model.lowIndex, c.lowIndex);
    EXPECT_EQ(answer.model.lines.size(), c.lines);
  }
}

TEST_F(TdfCapture, MissingDataFileAnswersAnEmptyTableAndCloseDropsTheOutputs) {
  std::filesystem::remove(dir / "tdf_data.json");
  auto experiment = openExperiment();
  EXPECT_EQ(experiment->indexingStatus, "COMPLETED");
  auto empty = experiment->table->getLines(range(3, 10));
  EXPECT_EQ(empty.model.size, 0);
  EXPECT_EQ(empty.model.lowIndex, 3);
  EXPECT_TRUE(experiment->table->getColumns("").model.empty());
  experiment->close();
  EXPECT_EQ(experiment->indexingStatus, "CLOSED");
  EXPECT_TRUE(experiment->outputs.empty());
}

// A new document is read at the refresh; one that does not parse, or has
// values of the wrong type, fails the refresh or the request with the
// parser's error (golden/tdf_documents.txt and .expected).
TEST_F(TdfCapture, EachNewDocumentAfterARefresh) {
  auto experiment = openExperiment();
  GenericTable& table = *experiment->table;
  EXPECT_TRUE(afterEachDocument(*experiment, "tdf_data.json", "tdf_documents", [&] {
    return json(table.getColumns("")).dump() + "\n" + json(table.getLines(range(0, 10))).dump();
  }));
}

TEST(TdfExperimentWithoutTraces, OpenDoesNothingRefreshThrows) {
  DataBrokerRouter router;
  TDFExperiment experiment("x", &router);
  experiment.open();
  EXPECT_EQ(experiment.indexingStatus, "");
  EXPECT_TRUE(experiment.outputs.empty());
  EXPECT_THROW(experiment.refresh(), std::out_of_range);
}

}  // namespace
}  // namespace VSKTspServer
