// Small helpers shared by the table providers of this folder: reading keys of
// decoded documents and shaping cell text. Not a public interface.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "experiments/VSKDataProvider.hpp"

namespace VSKTspServer::table_text {

// The member `key` of `object`, or a JSON null when `object` is not an
// object or has no such member. Never inserts, unlike operator[].
inline const nlohmann::json& memberOrNull(const nlohmann::json& object, const char* key) {
  static const nlohmann::json kNull;
  if (!object.is_object()) return kNull;
  auto it = object.find(key);
  return it == object.end() ? kNull : *it;
}

// A string member, empty when absent or null; another type throws type
// error 302.
inline std::string optionalString(const nlohmann::json& object, const char* key) {
  const nlohmann::json& value = memberOrNull(object, key);
  return value.is_null() ? std::string() : value.get<std::string>();
}

inline std::string trimLeft(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r\n\f\v");
  return first == std::string_view::npos ? std::string() : std::string(text.substr(first));
}

// The line range [low, high) of a request over `total` lines. A negative
// index or count is taken as 0, and the end saturates instead of overflowing.
inline std::pair<int64_t, int64_t> lineRange(int64_t index, int32_t count, int64_t total) {
  index = std::max<int64_t>(index, 0);
  const int64_t low = std::min(index, total);
  const int64_t span = std::max<int32_t>(count, 0);
  const int64_t high = index > total - span ? total : std::min(index + span, total);
  return {low, high};
}

// The answer of a table's columns.
inline ColumnsResponse completedColumns(const std::vector<TableColumn>& columns) {
  ColumnsResponse response;
  response.status = kStatusCompleted;
  response.model = columns;
  return response;
}

// Frames a lines answer over `total` lines: status, column ids, size and low
// index. Gives the range [low, high) of lines the table must add.
inline std::pair<int64_t, int64_t> frameLines(TableLinesResponse& response,
                                              const std::vector<TableColumn>& columns,
                                              const TableLinesRequest& request, int64_t total) {
  response.status = kStatusCompleted;
  auto& model = response.model;
  for (const auto& column : columns) model.columnIds.push_back(column.id);
  const auto range = lineRange(request.requested_table_index, request.requested_table_count, total);
  model.size = total;
  model.lowIndex = range.first;
  return range;
}

}  // namespace VSKTspServer::table_text
