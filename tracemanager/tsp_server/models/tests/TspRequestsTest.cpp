#include "tsp_server/models/TspRequests.hpp"

#include <gtest/gtest.h>

namespace VSKTspServer {
namespace {

using nlohmann::json;

TEST(TspRequests, OptionalKeysFallBackToDefaults) {
  auto open = json::object().get<OpenTraceRequest>();
  EXPECT_EQ(open.name, "");
  EXPECT_EQ(open.typeID, "");
  EXPECT_EQ(open.uri, "");

  auto lines = json::object().get<TableLinesRequest>();
  EXPECT_EQ(lines.requested_table_index, 0);
  EXPECT_EQ(lines.requested_table_count, 0);
  EXPECT_TRUE(lines.requested_times.empty());
  EXPECT_TRUE(lines.table_search_expressions.empty());

  auto annotations = json::object().get<AnnotationsRequest>();
  EXPECT_EQ(annotations.requested_timerange.start, 0);
  EXPECT_EQ(annotations.requested_timerange.nbTimes, 0);

  EXPECT_EQ(json::object().get<StringRequest>().parameters, "");
}

TEST(TspRequests, TableLinesReadsEveryKey) {
  auto r = json::parse(R"({"requested_table_index":5,"requested_table_count":200,
      "requested_table_column_ids":[0,3],"requested_times":[7],
      "table_search_expressions":{"1":"main"},"table_search_direction":"NEXT"})")
               .get<TableLinesRequest>();
  EXPECT_EQ(r.requested_table_index, 5);
  EXPECT_EQ(r.requested_table_count, 200);
  EXPECT_EQ(r.requested_table_column_ids, (std::vector<int64_t>{0, 3}));
  EXPECT_EQ(r.requested_times, (std::vector<int64_t>{7}));
  EXPECT_EQ(r.table_search_expressions.at("1"), "main");
  EXPECT_EQ(r.table_search_direction, "NEXT");
}

TEST(TspRequests, WrongTypeThrowsEvenForOptionalKeys) {
  EXPECT_THROW(json::parse(R"({"uri":5})").get<OpenTraceRequest>(), json::type_error);
  EXPECT_THROW(json::parse(R"({"requested_table_index":"3"})").get<TableLinesRequest>(),
               json::type_error);
  EXPECT_THROW(json::parse(R"({"parameters":{}})").get<StringRequest>(), json::type_error);
  // A non-object body where an object is expected.
  EXPECT_THROW(json::parse("[1]").get<TableLinesRequest>(), json::type_error);
}

TEST(TspRequests, RequiredKeysThrowOutOfRange) {
  EXPECT_THROW(json::parse(R"({"name":"x"})").get<ExperimentRequest>(), json::out_of_range);
  EXPECT_THROW(json::parse(R"({"traces":[]})").get<ExperimentRequest>(), json::out_of_range);
  EXPECT_THROW(json::parse(R"({"name":"x","traces":[1]})").get<ExperimentRequest>(),
               json::type_error);
  auto ok = json::parse(R"({"name":"LiveTarget","traces":["a","b"]})").get<ExperimentRequest>();
  EXPECT_EQ(ok.traces.size(), 2u);

  EXPECT_THROW(json::parse(R"({"start":1,"end":2})").get<TimeRange>(), json::out_of_range);
  auto bounds = readTimeRangeBounds(json::parse(R"({"start":1,"end":2})"));
  EXPECT_EQ(bounds.start, 1);
  EXPECT_EQ(bounds.end, 2);
  EXPECT_THROW(readTimeRangeBounds(json::parse(R"({"start":1})")), json::out_of_range);
}

TEST(TspRequests, PresentTimeRangeInAnnotationsMustBeComplete) {
  EXPECT_THROW(
      json::parse(R"({"requested_timerange":{"start":1,"end":2}})").get<AnnotationsRequest>(),
      json::out_of_range);
  auto r = json::parse(R"({"requested_timerange":{"start":1,"end":2,"nbTimes":3},
      "requested_items":[4],"requested_marker_set":"m","requested_marker_categories":["c"]})")
               .get<AnnotationsRequest>();
  EXPECT_EQ(r.requested_timerange.end, 2);
  EXPECT_EQ(r.requested_timerange.nbTimes, 3);
  EXPECT_EQ(r.requested_items, (std::vector<int32_t>{4}));
  EXPECT_EQ(r.requested_marker_set, "m");
}

TEST(TspRequests, TooltipNeedsEveryKey) {
  auto full = json::parse(R"({"requested_element":{"time":1,"elementType":"state","duration":2,
      "entryId":3,"destinationId":4},"requested_times":[1],"requested_items":[3]})");
  auto r = full.get<TooltipRequest>();
  EXPECT_EQ(r.requested_element.elementType, "state");
  EXPECT_EQ(r.requested_element.destinationId, 4);
  for (const char* key : {"requested_element", "requested_times", "requested_items"}) {
    json partial = full;
    partial.erase(key);
    EXPECT_THROW(partial.get<TooltipRequest>(), json::out_of_range) << key;
  }
  json noDestination = full;
  noDestination["requested_element"].erase("destinationId");
  EXPECT_THROW(noDestination.get<TooltipRequest>(), json::out_of_range);
}

TEST(TspRequests, WrittenRequestsReadBackUnchanged) {
  TableLinesRequest lines;
  lines.requested_table_index = 10;
  lines.requested_table_count = 20;
  lines.requested_table_column_ids = {1, 2};
  lines.table_search_expressions = {{"0", "x"}};
  auto back = json(lines).get<TableLinesRequest>();
  EXPECT_EQ(back.requested_table_index, 10);
  EXPECT_EQ(back.requested_table_count, 20);
  EXPECT_EQ(back.requested_table_column_ids, lines.requested_table_column_ids);
  EXPECT_EQ(back.table_search_expressions, lines.table_search_expressions);

  ExperimentRequest experiment{"LiveTarget/p", {"u"}};
  EXPECT_EQ(json(experiment).dump(), R"({"name":"LiveTarget/p","traces":["u"]})");
}

}  // namespace
}  // namespace VSKTspServer
