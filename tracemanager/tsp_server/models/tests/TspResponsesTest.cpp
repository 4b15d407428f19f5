#include "tsp_server/models/TspResponses.hpp"

#include <gtest/gtest.h>

#include "tsp_server/models/TspObjects.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;

TEST(OutputElementStyle, NumericKeysAreWrittenAsWidenedFloats) {
  OutputElementStyle style;
  style.parentKey = "L0";
  style.values = {{"opacity", "0.5"},
                  {"height", "0.1"},
                  {"border-radius", "2"},
                  {"-factor", " 1.5"},
                  {"background-color", "0.25"},
                  {"style-name", "Run"}};
  EXPECT_EQ(json(style).dump(),
            R"({"parentKey":"L0","values":{"-factor":1.5,"background-color":"0.25",)"
            R"("border-radius":2.0,"height":0.10000000149011612,"opacity":0.5,)"
            R"("style-name":"Run"}})");
}

TEST(OutputElementStyle, UnparsableNumericValueThrowsWithFixedText) {
  OutputElementStyle bad{"", {{"height", "tall"}}};
  try {
    (void)json(bad);
    FAIL() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "invalid stof argument");
  }
  OutputElementStyle huge{"", {{"opacity", "1e300"}}};
  try {
    (void)json(huge);
    FAIL() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "stof argument out of range");
  }
  // Not one of the four keys: any text is fine.
  OutputElementStyle free{"", {{"heights", "tall"}}};
  EXPECT_NO_THROW((void)json(free));
}

TEST(OutputElementStyle, ReadBackKeepsNumbersAsTheirText) {
  auto style = json::parse(R"({"parentKey":"P","values":{"opacity":0.5,"height":"3",
      "color":"#fff"}})")
                   .get<OutputElementStyle>();
  EXPECT_EQ(style.parentKey, "P");
  EXPECT_EQ(style.values.at("opacity"), "0.5");
  EXPECT_EQ(style.values.at("height"), "3");
  EXPECT_EQ(style.values.at("color"), "#fff");
  // A number under any other key is a type error.
  EXPECT_THROW(json::parse(R"({"parentKey":"","values":{"width":2}})").get<OutputElementStyle>(),
               json::type_error);
  EXPECT_THROW(json::parse(R"({"parentKey":1,"values":{}})").get<OutputElementStyle>(),
               json::type_error);
  // What is read back writes out again as a number.
  EXPECT_EQ(json(style)["values"]["opacity"], json(0.5));
}

TEST(TspResponses, TableLinesFrameIsCompactAndSorted) {
  TableLinesResponse r;
  r.status = "COMPLETED";
  r.model.size = 1200;
  r.model.columnIds = {0, 1};
  r.model.lines.push_back({0, 0, {{"0", 0}, {"=>", 0}}});
  EXPECT_EQ(json(r).dump(),
            R"({"model":{"columnIds":[0,1],"lines":[{"cells":[{"content":"0","tags":0},)"
            R"({"content":"=>","tags":0}],"index":0,"tags":0}],"lowIndex":0,"size":1200},)"
            R"("status":"COMPLETED","statusMessage":""})");
}

TEST(TspResponses, EmptyResponsesKeepEveryKey) {
  EXPECT_EQ(json(TableLinesResponse{}).dump(),
            R"({"model":{"columnIds":[],"lines":[],"lowIndex":0,"size":0},)"
            R"("status":"","statusMessage":""})");
  EXPECT_EQ(json(AnnotationCategoriesResponse{}).dump(),
            R"({"model":{"annotationCategories":[]},"status":"","statusMessage":""})");
  EXPECT_EQ(json(AnnotationsResponse{}).dump(),
            R"({"model":{"annotations":{}},"status":"","statusMessage":""})");
  EXPECT_EQ(json(StylesResponse{}).dump(),
            R"({"model":{"styles":{}},"status":"","statusMessage":""})");
  EXPECT_EQ(json(ColumnsResponse{}).dump(), R"({"model":[],"status":"","statusMessage":""})");
  EXPECT_EQ(json(XYResponse{}).dump(),
            R"({"model":{"series":[],"title":""},"status":"","statusMessage":""})");
  EXPECT_EQ(json(TimeGraphTreeResponse{}).dump(),
            R"({"model":{"entries":[],"headers":[]},"status":"","statusMessage":""})");
  EXPECT_EQ(json(TimeGraphRow{}).dump(), R"({"entryId":0,"states":[]})");
  EXPECT_EQ(json(MarkerSetsResponse{}).dump(), R"({"model":[]})");
}

TEST(TspResponses, TimeGraphShapes) {
  TimeGraphEntry entry;
  entry.id = 3;
  entry.parentId = -1;
  entry.labels = {"PowerMode"};
  entry.hasData = true;
  entry.style.parentKey = "L0";
  entry.start = 10;
  entry.end = 20;
  EXPECT_EQ(json(entry).dump(),
            R"({"end":20,"hasData":true,"id":3,"labels":["PowerMode"],"metadata":{},)"
            R"("parentId":-1,"start":10,"style":{"parentKey":"L0","values":{}}})");

  StatesResponse states;
  states.status = "COMPLETED";
  states.model.rows.push_back({1, {{10, 20, "on", 0, {}}}});
  EXPECT_EQ(json(states).dump(),
            R"({"model":{"rows":[{"entryId":1,"states":[{"end":20,"label":"on","start":10,)"
            R"("style":{"parentKey":"","values":{}},"tags":0}]}]},"status":"COMPLETED",)"
            R"("statusMessage":""})");

  TooltipResponse tooltip;
  tooltip.model.push_back({"Mode", "Run"});
  EXPECT_EQ(json(tooltip)["model"].dump(), R"([{"key":"Mode","value":"Run"}])");
}

TEST(TspResponses, XYSeriesValuesAreIntegers) {
  XYSeries s;
  s.seriesId = 2;
  s.seriesName = "Current";
  s.xValues = {1, 2};
  s.yValues = {-5, 7};
  EXPECT_EQ(json(s).dump(),
            R"({"seriesId":2,"seriesName":"Current","style":{"parentKey":"","values":{}},)"
            R"("xValues":[1,2],"yValues":[-5,7]})");
}

TEST(TspObjects, ExperimentNestsItsTraces) {
  Experiment e;
  e.name = "M4_CoreTrace";
  e.UUID = "u1";
  e.indexingStatus = "COMPLETED";
  e.end = 5;
  e.traces.push_back({"MTB", "/d/MTB", 0, 0, "", 0, "t1"});
  EXPECT_EQ(json(e).dump(),
            R"({"UUID":"u1","end":5,"indexingStatus":"COMPLETED","name":"M4_CoreTrace",)"
            R"("nbEvents":0,"start":0,"traces":[{"UUID":"t1","end":0,"indexingStatus":"",)"
            R"("name":"MTB","nbEvents":0,"path":"/d/MTB","start":0}]})");
  DataProvider d{"Trace", "com.qx.vsk.vireo.TableDataProvider.1", "TABLE", ""};
  EXPECT_EQ(json(d).dump(),
            R"({"description":"","id":"com.qx.vsk.vireo.TableDataProvider.1","name":"Trace",)"
            R"("type":"TABLE"})");
}

}  // namespace
}  // namespace VSKTspServer
