// The request models of the trace protocol: what the route handlers read from
// request bodies.
//
// Reading follows one rule: a required key is looked up with `at` (missing:
// nlohmann's out_of_range 403), an optional key with `value` and its default.
// A key of the wrong JSON type throws the library's type error in both cases.
// Integers saturate at the bounds of their field: a client's 2^64 or 1e30
// reads as the largest value, never as a wrapped negative one.
// Exceptions travel unchanged to the caller. The to_json functions write the
// same shape back, for clients and tests that build bodies.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace VSKTspServer {

// A JSON number as T (int32_t or int64_t), clamped to T's range; non-numbers
// throw the library's type error. The list form reads an array of them.
template <typename T>
T saturatingNumber(const nlohmann::json& value);
template <typename T>
std::vector<T> saturatingNumbers(const nlohmann::json& value);

// Body of POST /traces (unwrapped). All keys optional, default empty.
struct OpenTraceRequest {
  std::string name;
  std::string typeID;
  std::string uri;
};
void from_json(const nlohmann::json& j, OpenTraceRequest& r);
void to_json(nlohmann::json& j, const OpenTraceRequest& r);

// Body of POST /experiments (unwrapped). Both keys required.
struct ExperimentRequest {
  std::string name;
  std::vector<std::string> traces;  // trace UUIDs
};
void from_json(const nlohmann::json& j, ExperimentRequest& r);
void to_json(nlohmann::json& j, const ExperimentRequest& r);

// Value of `requested_timerange`. from_json requires all three keys; the tree
// routes, which do not read `nbTimes`, use readTimeRangeBounds instead.
struct TimeRange {
  int64_t start = 0;
  int64_t end = 0;
  int32_t nbTimes = 0;
};
void from_json(const nlohmann::json& j, TimeRange& r);
void to_json(nlohmann::json& j, const TimeRange& r);
// `start` and `end` required, `nbTimes` not read (left 0).
TimeRange readTimeRangeBounds(const nlohmann::json& j);

// Value of `parameters` on the annotation routes. When `requested_timerange`
// is present all three of its keys are required.
struct AnnotationsRequest {
  TimeRange requested_timerange;
  std::vector<int32_t> requested_items;
  std::string requested_marker_set;
  std::vector<std::string> requested_marker_categories;
};
void from_json(const nlohmann::json& j, AnnotationsRequest& r);
void to_json(nlohmann::json& j, const AnnotationsRequest& r);

struct TooltipElement {
  int64_t time = 0;
  std::string elementType;
  int64_t duration = 0;
  int64_t entryId = 0;
  int64_t destinationId = 0;
};
void from_json(const nlohmann::json& j, TooltipElement& r);
void to_json(nlohmann::json& j, const TooltipElement& r);

// Value of `parameters` on the tooltip route; every key required.
struct TooltipRequest {
  TooltipElement requested_element;
  std::vector<int64_t> requested_times;
  std::vector<int32_t> requested_items;
};
void from_json(const nlohmann::json& j, TooltipRequest& r);
void to_json(nlohmann::json& j, const TooltipRequest& r);

// Value of `parameters` on the table lines route; every key optional.
struct TableLinesRequest {
  std::vector<int64_t> requested_times;
  int64_t requested_table_index = 0;
  int32_t requested_table_count = 0;
  std::vector<int64_t> requested_table_column_ids;
  std::map<std::string, std::string> table_search_expressions;
  std::string table_search_direction;
};
void from_json(const nlohmann::json& j, TableLinesRequest& r);
void to_json(nlohmann::json& j, const TableLinesRequest& r);

// Body of the style and columns routes (unwrapped): an optional string
// `parameters`, default empty. No provider looks at it.
struct StringRequest {
  std::string parameters;
};
void from_json(const nlohmann::json& j, StringRequest& r);
void to_json(nlohmann::json& j, const StringRequest& r);

}  // namespace VSKTspServer
