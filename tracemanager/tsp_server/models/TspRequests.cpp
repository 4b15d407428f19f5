#include "TspRequests.hpp"

#include <limits>

namespace VSKTspServer {

using nlohmann::json;

void from_json(const json& j, OpenTraceRequest& r) {
  r.name = j.value("name", std::string());
  r.typeID = j.value("typeID", std::string());
  r.uri = j.value("uri", std::string());
}
void to_json(json& j, const OpenTraceRequest& r) {
  j = json{{"name", r.name}, {"typeID", r.typeID}, {"uri", r.uri}};
}

void from_json(const json& j, ExperimentRequest& r) {
  r.name = j.at("name").get<std::string>();
  r.traces = j.at("traces").get<std::vector<std::string>>();
}
void to_json(json& j, const ExperimentRequest& r) {
  j = json{{"name", r.name}, {"traces", r.traces}};
}

void from_json(const json& j, TimeRange& r) {
  r.start = j.at("start").get<int64_t>();
  r.end = j.at("end").get<int64_t>();
  r.nbTimes = j.at("nbTimes").get<int32_t>();
}
void to_json(json& j, const TimeRange& r) {
  j = json{{"start", r.start}, {"end", r.end}, {"nbTimes", r.nbTimes}};
}
TimeRange readTimeRangeBounds(const json& j) {
  TimeRange r;
  r.start = j.at("start").get<int64_t>();
  r.end = j.at("end").get<int64_t>();
  return r;
}

void from_json(const json& j, AnnotationsRequest& r) {
  // `value` would swallow a partial range into the default; a present range
  // must be complete, so it is read through the strict reader.
  r.requested_timerange =
      j.contains("requested_timerange") ? j.at("requested_timerange").get<TimeRange>() : TimeRange{};
  r.requested_items = j.value("requested_items", std::vector<int32_t>());
  r.requested_marker_set = j.value("requested_marker_set", std::string());
  r.requested_marker_categories =
      j.value("requested_marker_categories", std::vector<std::string>());
}
void to_json(json& j, const AnnotationsRequest& r) {
  j = json{{"requested_timerange", r.requested_timerange},
           {"requested_items", r.requested_items},
           {"requested_marker_set", r.requested_marker_set},
           {"requested_marker_categories", r.requested_marker_categories}};
}

void from_json(const json& j, TooltipElement& r) {
  r.time = j.at("time").get<int64_t>();
  r.elementType = j.at("elementType").get<std::string>();
  r.duration = j.at("duration").get<int64_t>();
  r.entryId = j.at("entryId").get<int64_t>();
  r.destinationId = j.at("destinationId").get<int64_t>();
}
void to_json(json& j, const TooltipElement& r) {
  j = json{{"time", r.time},
           {"elementType", r.elementType},
           {"duration", r.duration},
           {"entryId", r.entryId},
           {"destinationId", r.destinationId}};
}

void from_json(const json& j, TooltipRequest& r) {
  r.requested_element = j.at("requested_element").get<TooltipElement>();
  r.requested_times = j.at("requested_times").get<std::vector<int64_t>>();
  r.requested_items = j.at("requested_items").get<std::vector<int32_t>>();
}
void to_json(json& j, const TooltipRequest& r) {
  j = json{{"requested_element", r.requested_element},
           {"requested_times", r.requested_times},
           {"requested_items", r.requested_items}};
}

namespace {

// An integer key that saturates at the bounds of T instead of wrapping: a
// client's 2^64 or 1e30 reads as the largest value, never as a negative
// one. Non-numbers still fail with the library's type error.
template <typename T>
T saturatingValue(const json& j, const char* key) {
  auto it = j.find(key);
  if (it == j.end() || it->is_null()) return T{0};
  constexpr auto lo = std::numeric_limits<T>::min();
  constexpr auto hi = std::numeric_limits<T>::max();
  if (it->is_number_unsigned()) {
    const auto v = it->get<uint64_t>();
    return v > static_cast<uint64_t>(hi) ? hi : static_cast<T>(v);
  }
  if (it->is_number_integer()) {
    const auto v = it->get<int64_t>();
    return v < static_cast<int64_t>(lo) ? lo : v > static_cast<int64_t>(hi) ? hi : static_cast<T>(v);
  }
  if (it->is_number_float()) {
    const double v = it->get<double>();
    if (!(v > static_cast<double>(lo))) return lo;  // NaN too
    if (v >= static_cast<double>(hi)) return hi;
    return static_cast<T>(v);
  }
  return it->get<T>();  // type error for strings, arrays, objects, booleans
}

}  // namespace

void from_json(const json& j, TableLinesRequest& r) {
  r.requested_times = j.value("requested_times", std::vector<int64_t>());
  r.requested_table_index = saturatingValue<int64_t>(j, "requested_table_index");
  r.requested_table_count = saturatingValue<int32_t>(j, "requested_table_count");
  r.requested_table_column_ids = j.value("requested_table_column_ids", std::vector<int64_t>());
  r.table_search_expressions =
      j.value("table_search_expressions", std::map<std::string, std::string>());
  r.table_search_direction = j.value("table_search_direction", std::string());
}
void to_json(json& j, const TableLinesRequest& r) {
  j = json{{"requested_times", r.requested_times},
           {"requested_table_index", r.requested_table_index},
           {"requested_table_count", r.requested_table_count},
           {"requested_table_column_ids", r.requested_table_column_ids},
           {"table_search_expressions", r.table_search_expressions},
           {"table_search_direction", r.table_search_direction}};
}

void from_json(const json& j, StringRequest& r) {
  r.parameters = j.value("parameters", std::string());
}
void to_json(json& j, const StringRequest& r) { j = json{{"parameters", r.parameters}}; }

}  // namespace VSKTspServer
