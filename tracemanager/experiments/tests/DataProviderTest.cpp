#include "experiments/VSKDataProvider.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "experiments/CsvWriter.hpp"
#include "experiments/VSKExperiment.hpp"

using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace VSKTspServer {
namespace {

// A small in-memory table for the provider-level behaviour.
class FixedTable : public VSKTableProvider {
 public:
  std::vector<std::vector<std::string>> lines;
  bool failLines = false;

  ColumnsResponse getColumns(std::string) override {
    ColumnsResponse r;
    r.status = kStatusCompleted;
    r.model = {{0, "A", "", ""}, {1, "B", "", ""}};
    return r;
  }
  TableLinesResponse getLines(TableLinesRequest request) override {
    if (failLines) throw std::runtime_error("broken");
    TableLinesResponse r;
    EXPECT_EQ(request.requested_table_index, 0);
    EXPECT_EQ(request.requested_table_count, 2147483647);
    EXPECT_EQ(request.requested_table_column_ids, (std::vector<int64_t>{0, 1}));
    for (size_t i = 0; i < lines.size(); ++i) {
      TableLine line;
      line.index = static_cast<int64_t>(i);
      for (const auto& text : lines[i]) line.cells.push_back({text, 0});
      r.model.lines.push_back(line);
    }
    return r;
  }
};

class Graph : public VSKTimeGraphProvider {
 public:
  ArrowsResponse getArrows(TimeRange) override { return {}; }
  StatesResponse getStates(TimeRange, std::vector<int32_t>) override { return {}; }
  TooltipResponse getTooltip(TooltipRequest) override { return {}; }
  TimeGraphTreeResponse getTree(int64_t, int64_t) override { return {}; }
  StylesResponse getStyles(std::string) override { return {}; }
};

class Plain : public VSKExperiment {
 public:
  using VSKExperiment::VSKExperiment;
  void refresh() override {}
};

int idNumber(const std::string& id, const std::string& stem) {
  EXPECT_EQ(id.rfind(stem + ".", 0), 0u) << id;
  return std::stoi(id.substr(stem.size() + 1));
}

TEST(DataProviders, EachBaseCountsItsOwnIds) {
  FixedTable first;
  FixedTable second;
  Graph graph;
  const int a = idNumber(first.id, "com.qx.vsk.vireo.TableDataProvider");
  EXPECT_EQ(idNumber(second.id, "com.qx.vsk.vireo.TableDataProvider"), a + 1);
  idNumber(graph.id, "com.qx.vsk.vireo.TimeGraphDataProvider");
  {
    FixedTable gone;
    (void)gone;
  }
  FixedTable later;  // a destroyed provider's number is not reused
  EXPECT_EQ(idNumber(later.id, "com.qx.vsk.vireo.TableDataProvider"), a + 3);
}

TEST(DataProviders, ExportWritesEveryCellAndFailsCleanly) {
  ostrand_test::TempDir dir;
  FixedTable table;
  table.lines = {{"1", "x,y"}, {"", "z"}};
  ASSERT_EQ(table.exportCsv(dir / "t.csv"), 0);
  EXPECT_EQ(ostrand_test::readFile(dir / "t.csv"), "A,B\r\n1,\"x,y\"\r\n,z\r\n");

  FixedTable empty;
  ASSERT_EQ(empty.exportCsv(dir / "e.csv"), 0);
  EXPECT_EQ(ostrand_test::readFile(dir / "e.csv"), "A,B\r\n");

  EXPECT_EQ(table.exportCsv(dir / "missing/t.csv"), -1);
  EXPECT_EQ(table.exportCsv(dir / "again.csv"), 0);  // still usable

  table.failLines = true;
  EXPECT_EQ(table.exportCsv(dir / "f.csv"), -1);
}

TEST(VSKExperimentBase, OutputsAndLifecycle) {
  Plain experiment("x_CoreTrace", nullptr);
  EXPECT_EQ(experiment.UUID.size(), 36u);
  EXPECT_EQ(experiment.UUID[14], '4');  // version 4
  EXPECT_NE(Plain("y", nullptr).UUID, experiment.UUID);
  EXPECT_THAT([&] { experiment.getOutput("com.qx.vsk.vireo.TableDataProvider.1"); },
              ThrowsMessage<std::invalid_argument>(StrEq("Invalid OutputId")));
  Graph graph;
  FixedTable table;
  experiment.outputs[table.id] = &table;
  experiment.outputs[graph.id] = &graph;
  EXPECT_EQ(experiment.getOutput(graph.id), &graph);
  auto descriptors = experiment.getOutputs();
  ASSERT_EQ(descriptors.size(), 2u);
  EXPECT_LT(descriptors[0]->id, descriptors[1]->id);
  EXPECT_EQ(experiment.exportCsv("a.csv", ""), -1);
  experiment.close();
  EXPECT_EQ(experiment.indexingStatus, "CLOSED");
}

}  // namespace
}  // namespace VSKTspServer
