#include "experiments/GenericTable.hpp"

#include "experiments/TableText.hpp"
#include "source_utilities/Logger.hpp"
#include "tsp_server/models/TableLinesWriter.hpp"

namespace VSKTspServer {

using nlohmann::json;
using table_text::memberOrNull;

GenericTable::GenericTable() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::GenericTable::GenericTable");
}

void GenericTable::setData(json* document) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::GenericTable::setData");
  data = document;
  columns.clear();
  if (!data) return;
  const json& names = memberOrNull(*data, "Columns");
  if (!names.is_array()) return;
  for (size_t c = 0; c < names.size(); ++c) {
    TableColumn column;
    column.id = static_cast<int64_t>(c);
    column.name = memberOrNull(names[c], "name").get<std::string>();
    columns.push_back(std::move(column));
  }
}

ColumnsResponse GenericTable::getColumns(std::string) {
  return table_text::completedColumns(columns);
}

TableLinesResponse GenericTable::getLines(TableLinesRequest request) {
  TableLinesResponse response;
  auto& model = response.model;

  static const json kNoDocument;
  const json& rows = memberOrNull(data ? *data : kNoDocument, "Rows");
  if (rows.is_null()) {
    table_text::frameLines(response, columns, request, 0);
    model.lowIndex = request.requested_table_index;  // echoed as asked when there is no data
    return response;
  }
  const auto [low, high] =
      table_text::frameLines(response, columns, request, static_cast<int64_t>(rows.size()));
  model.lines.reserve(static_cast<size_t>(high - low));
  for (int64_t i = low; i < high; ++i) {
    // Indexing a non-array with a number throws type error 305, which is
    // the error for `Rows` or a row of the wrong shape.
    const json& row = rows[static_cast<size_t>(i)];
    if (!row.is_array()) (void)row[0];
    TableLine line;
    line.index = i;
    line.cells.reserve(columns.size());
    for (size_t c = 0; c < columns.size(); ++c) {
      TableCell cell;
      if (c < row.size() && !row[c].is_null()) cell.content = row[c].get<std::string>();
      line.cells.push_back(std::move(cell));
    }
    model.lines.push_back(std::move(line));
  }
  return response;
}

bool GenericTable::writeLines(const TableLinesRequest& request, std::string& out) {
  if (!data) return false;
  const json& rows = memberOrNull(*data, "Rows");
  if (!rows.is_array()) return false;
  const int64_t total = static_cast<int64_t>(rows.size());
  const auto [low, high] = table_text::lineRange(request.requested_table_index,
                                                 request.requested_table_count, total);
  const size_t start = out.size();
  out.reserve(start + 128 + static_cast<size_t>(high - low) * (40 + columns.size() * 40));
  try {
    std::vector<int64_t> columnIds;
    columnIds.reserve(columns.size());
    for (const auto& column : columns) columnIds.push_back(column.id);
    appendTableLinesHead(out, columnIds);
    for (int64_t i = low; i < high; ++i) {
      const json& row = rows[static_cast<size_t>(i)];
      if (!row.is_array()) {
        out.resize(start);
        return false;
      }
      if (i != low) out += ',';
      out += R"({"cells":[)";
      for (size_t c = 0; c < columns.size(); ++c) {
        if (c) out += ',';
        out += R"({"content":)";
        if (c < row.size() && !row[c].is_null()) {
          if (!row[c].is_string()) {
            out.resize(start);
            return false;
          }
          appendJsonString(out, row[c].get_ref<const std::string&>());
        } else {
          out += R"("")";
        }
        out += R"(,"tags":0})";
      }
      out += R"(],"index":)";
      appendJsonInt(out, i);
      out += R"(,"tags":0})";
    }
    appendTableLinesTail(out, low, total, kStatusCompleted, std::string());
  } catch (const json::exception&) {
    // Text that is not UTF-8: getLines and the writer raise the error, after
    // any error of an earlier line, as they always have.
    out.resize(start);
    return false;
  }
  return true;
}

}  // namespace VSKTspServer
