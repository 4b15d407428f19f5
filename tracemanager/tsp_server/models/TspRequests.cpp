#include "tsp_server/models/TspRequests.hpp"

#include <limits>

namespace VSKTspServer {

using nlohmann::json;

template <typename T>
T saturatingNumber(const json& value) {
  constexpr T lo = std::numeric_limits<T>::min();
  constexpr T hi = std::numeric_limits<T>::max();
  if (value.is_number_unsigned()) {
    const auto v = value.get<uint64_t>();
    return v > static_cast<uint64_t>(hi) ? hi : static_cast<T>(v);
  }
  if (value.is_number_integer()) {
    const auto v = value.get<int64_t>();
    return v < static_cast<int64_t>(lo) ? lo : v > static_cast<int64_t>(hi) ? hi : static_cast<T>(v);
  }
  if (value.is_number_float()) {
    // A cast of a double beyond T's range is undefined, so clamp first.
    const double v = value.get<double>();
    if (!(v > static_cast<double>(lo))) return lo;
    if (v >= static_cast<double>(hi)) return hi;
    return static_cast<T>(v);
  }
  return value.get<T>();  // the library's type error for every other kind
}

template <typename T>
std::vector<T> saturatingNumbers(const json& value) {
  if (!value.is_array()) return value.get<std::vector<T>>();  // type error
  std::vector<T> numbers;
  numbers.reserve(value.size());
  for (const auto& element : value) numbers.push_back(saturatingNumber<T>(element));
  return numbers;
}

template int32_t saturatingNumber<int32_t>(const json&);
template int64_t saturatingNumber<int64_t>(const json&);
template std::vector<int32_t> saturatingNumbers<int32_t>(const json&);
template std::vector<int64_t> saturatingNumbers<int64_t>(const json&);

namespace {

// Optional keys of the table and annotation requests: absent or null read
// as 0 (or an empty list).
template <typename T>
T optionalNumber(const json& j, const char* key) {
  auto it = j.find(key);
  return it == j.end() || it->is_null() ? T{0} : saturatingNumber<T>(*it);
}

template <typename T>
std::vector<T> optionalNumbers(const json& j, const char* key) {
  auto it = j.find(key);
  return it == j.end() || it->is_null() ? std::vector<T>() : saturatingNumbers<T>(*it);
}

}  // namespace

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
  r.start = saturatingNumber<int64_t>(j.at("start"));
  r.end = saturatingNumber<int64_t>(j.at("end"));
  r.nbTimes = saturatingNumber<int32_t>(j.at("nbTimes"));
}
void to_json(json& j, const TimeRange& r) {
  j = json{{"start", r.start}, {"end", r.end}, {"nbTimes", r.nbTimes}};
}
TimeRange readTimeRangeBounds(const json& j) {
  TimeRange r;
  r.start = saturatingNumber<int64_t>(j.at("start"));
  r.end = saturatingNumber<int64_t>(j.at("end"));
  return r;
}

void from_json(const json& j, AnnotationsRequest& r) {
  // `value` would swallow a partial range into the default; a present range
  // must be complete, so it is read through the strict reader.
  r.requested_timerange =
      j.contains("requested_timerange") ? j.at("requested_timerange").get<TimeRange>() : TimeRange{};
  r.requested_items = optionalNumbers<int32_t>(j, "requested_items");
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
  r.time = saturatingNumber<int64_t>(j.at("time"));
  r.elementType = j.at("elementType").get<std::string>();
  r.duration = saturatingNumber<int64_t>(j.at("duration"));
  r.entryId = saturatingNumber<int64_t>(j.at("entryId"));
  r.destinationId = saturatingNumber<int64_t>(j.at("destinationId"));
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
  r.requested_times = saturatingNumbers<int64_t>(j.at("requested_times"));
  r.requested_items = saturatingNumbers<int32_t>(j.at("requested_items"));
}
void to_json(json& j, const TooltipRequest& r) {
  j = json{{"requested_element", r.requested_element},
           {"requested_times", r.requested_times},
           {"requested_items", r.requested_items}};
}


void from_json(const json& j, TableLinesRequest& r) {
  r.requested_times = optionalNumbers<int64_t>(j, "requested_times");
  r.requested_table_index = optionalNumber<int64_t>(j, "requested_table_index");
  r.requested_table_count = optionalNumber<int32_t>(j, "requested_table_count");
  r.requested_table_column_ids = optionalNumbers<int64_t>(j, "requested_table_column_ids");
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
