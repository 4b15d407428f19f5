#include "tsp_server/models/TspResponses.hpp"

#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "tsp_server/models/TspObjects.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;

// The JSON form of each response shape, one per line, against a golden
// listing: the keys a client reads, their order and their number types
// (style numbers as widened floats, XY values as integers), and empty
// responses that keep every key.
TEST(TspResponses, ShapesMatchTheGoldenListing) {
  OutputElementStyle style{"L0",
                           {{"opacity", "0.5"},
                            {"height", "0.1"},
                            {"border-radius", "2"},
                            {"-factor", " 1.5"},
                            {"background-color", "0.25"},
                            {"style-name", "Run"}}};
  TableLinesResponse lines;
  lines.status = "COMPLETED";
  lines.model.size = 1200;
  lines.model.columnIds = {0, 1};
  lines.model.lines.push_back({0, 0, {{"0", 0}, {"=>", 0}}});
  TimeGraphEntry entry;
  entry.id = 3;
  entry.parentId = -1;
  entry.labels = {"PowerMode"};
  entry.hasData = true;
  entry.style.parentKey = "L0";
  entry.start = 10;
  entry.end = 20;
  StatesResponse states;
  states.status = "COMPLETED";
  states.model.rows.push_back({1, {{10, 20, "on", 0, {}}}});
  TooltipResponse tooltip;
  tooltip.model.push_back({"Mode", "Run"});
  XYSeries series;
  series.seriesId = 2;
  series.seriesName = "Current";
  series.xValues = {1, 2};
  series.yValues = {-5, 7};
  Experiment experiment;
  experiment.name = "M4_CoreTrace";
  experiment.UUID = "u1";
  experiment.indexingStatus = "COMPLETED";
  experiment.end = 5;
  experiment.traces.push_back({"MTB", "/d/MTB", 0, 0, "", 0, "t1"});

  const std::pair<const char*, json> shapes[] = {
      {"style", style},
      {"table lines", lines},
      {"time graph entry", entry},
      {"states", states},
      {"tooltip", tooltip},
      {"xy series", series},
      {"experiment", experiment},
      {"provider", DataProvider{"Trace", "com.qx.vsk.vireo.TableDataProvider.1", "TABLE", ""}},
      {"empty table lines", TableLinesResponse{}},
      {"empty annotation categories", AnnotationCategoriesResponse{}},
      {"empty annotations", AnnotationsResponse{}},
      {"empty styles", StylesResponse{}},
      {"empty columns", ColumnsResponse{}},
      {"empty xy", XYResponse{}},
      {"empty time graph tree", TimeGraphTreeResponse{}},
      {"empty time graph row", TimeGraphRow{}},
      {"empty marker sets", MarkerSetsResponse{}},
  };
  std::string text;
  for (const auto& [name, value] : shapes) text += std::string(name) + ": " + value.dump() + "\n";
  EXPECT_TRUE(ostrand_test::matchesGolden(
      text, ostrand_test::sourcePath("tracemanager/tsp_server/models/tests/golden/responses.txt")));
}

}  // namespace
}  // namespace VSKTspServer
