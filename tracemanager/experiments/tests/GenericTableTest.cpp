#include "experiments/GenericTable.hpp"

#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "experiments/DataBrokerRouter.hpp"
#include "experiments/TDFExperiment.hpp"

namespace VSKTspServer {
namespace {

std::string goldenPath(const std::string& name) {
  return ostrand_test::sourcePath("tracemanager/experiments/tests/golden/" + name);
}

using nlohmann::json;
using ostrand_test::readFile;
using ostrand_test::TempDir;
using ostrand_test::writeFile;

TableLinesRequest range(int64_t index, int32_t count) {
  TableLinesRequest r;
  r.requested_table_index = index;
  r.requested_table_count = count;
  return r;
}

std::vector<std::string> texts(const TableLine& line) {
  std::vector<std::string> out;
  for (const auto& cell : line.cells) out.push_back(cell.content);
  return out;
}

class TdfCapture : public ::testing::Test {
 protected:
  void SetUp() override {
    writeFile(dir / "metadata", R"({"typeId":"TDF","device":"file/run","dataFile":"tdf_data.json"})");
    writeFile(dir / "tdf_data.json", readFile(goldenPath("tdf_small.json")));
  }
  std::unique_ptr<TDFExperiment> openExperiment() {
    auto experiment = std::make_unique<TDFExperiment>("run_TDF", &router);
    experiment->addTrace(VSKTrace("TDF", dir.path(), ""));
    experiment->open();
    return experiment;
  }
  TempDir dir;
  DataBrokerRouter router;
};

TEST_F(TdfCapture, ExportMatchesGoldenFile) {
  auto experiment = openExperiment();
  EXPECT_EQ(experiment->indexingStatus, "COMPLETED");
  ASSERT_EQ(experiment->exportCsv("", ""), 0);
  EXPECT_EQ(readFile(dir / "Trace.csv"), readFile(goldenPath("tdf_small.csv")));
  EXPECT_EQ(experiment->exportCsv("", "Other"), -1);
  EXPECT_EQ(experiment->exportCsv(dir / "named.csv", "Trace"), 0);
  EXPECT_EQ(experiment->exportCsv("", "Trace"), -1);  // a name needs a path
}

// Its outputs and columns as a client sees them are in the route transcript
// (tsp_server/tests/golden/routes.expected).

TEST_F(TdfCapture, RangesClampToTheTable) {
  auto experiment = openExperiment();
  GenericTable& table = *experiment->table;
  auto page = table.getLines(range(2, 100));
  EXPECT_EQ(page.model.size, 4);
  EXPECT_EQ(page.model.lowIndex, 2);
  ASSERT_EQ(page.model.lines.size(), 2u);
  EXPECT_EQ(page.model.lines[0].index, 2);
  EXPECT_EQ(texts(page.model.lines[0]), (std::vector<std::string>{"20", "short", ""}));
  EXPECT_EQ(page.model.columnIds, (std::vector<int64_t>{0, 1, 2}));

  auto beyond = table.getLines(range(10, 5));
  EXPECT_TRUE(beyond.model.lines.empty());
  EXPECT_EQ(beyond.model.lowIndex, 4);
  EXPECT_EQ(beyond.model.size, 4);

  auto none = table.getLines(json::object().get<TableLinesRequest>());
  EXPECT_TRUE(none.model.lines.empty());
  EXPECT_EQ(none.model.size, 4);

  auto negative = table.getLines(range(-3, 2));
  EXPECT_EQ(negative.model.lowIndex, 0);
  EXPECT_EQ(negative.model.lines.size(), 2u);
  auto huge = table.getLines(range(INT64_MAX - 1, 0x7fffffff));
  EXPECT_TRUE(huge.model.lines.empty());
}

TEST_F(TdfCapture, RefreshReadsTheNewDocument) {
  auto experiment = openExperiment();
  writeFile(dir / "tdf_data.json", R"({"Columns":[{"name":"Only"}],"Rows":[["a"],["b"]]})");
  experiment->refresh();
  auto columns = experiment->table->getColumns("");
  ASSERT_EQ(columns.model.size(), 1u);
  EXPECT_EQ(columns.model[0].name, "Only");
  EXPECT_EQ(experiment->table->getLines(range(0, 10)).model.size, 2);
}

TEST_F(TdfCapture, MissingAndBrokenDataFiles) {
  std::filesystem::remove(dir / "tdf_data.json");
  auto experiment = openExperiment();
  EXPECT_EQ(experiment->indexingStatus, "COMPLETED");
  auto empty = experiment->table->getLines(range(3, 10));
  EXPECT_EQ(empty.model.size, 0);
  EXPECT_EQ(empty.model.lowIndex, 3);
  EXPECT_TRUE(experiment->table->getColumns("").model.empty());

  writeFile(dir / "tdf_data.json", "{\"Rows\": [");
  EXPECT_THROW(experiment->refresh(), json::parse_error);
  EXPECT_EQ(experiment->indexingStatus, "RUNNING");

  writeFile(dir / "tdf_data.json", R"({"Columns":[{"name":1}]})");
  EXPECT_THROW(experiment->refresh(), json::type_error);

  writeFile(dir / "tdf_data.json", R"({"Columns":[{"name":"a"}],"Rows":[[5]]})");
  experiment->refresh();
  EXPECT_THROW(experiment->table->getLines(range(0, 1)), json::type_error);
  writeFile(dir / "tdf_data.json", R"({"Columns":[{"name":"a"}],"Rows":["row"]})");
  experiment->refresh();
  EXPECT_THROW(experiment->table->getLines(range(0, 1)), json::type_error);

  experiment->close();
  EXPECT_EQ(experiment->indexingStatus, "CLOSED");
  EXPECT_TRUE(experiment->outputs.empty());
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
