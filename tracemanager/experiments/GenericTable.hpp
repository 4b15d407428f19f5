// GenericTable: a document of column names and rows of text, shown as a
// virtual table (the form of `tdf_data.json`).
//
// The document has `Columns`, an array of objects whose `name` is the header
// text, and `Rows`, an array of arrays of strings or nulls. Lines are made on
// request, for the range asked for only; the document stays in its parsed
// form, held by the experiment (`data` is not owned).
//
// A row shorter than the column list gives empty cells for the missing
// entries; entries beyond the column list are not shown.
//
// Threads: under the server's request lock only. Errors: a column without a
// string `name` throws type error 302 from setData; a cell that is neither a
// string nor null throws type error 302, and `Rows` or a row that is not an
// array type error 305, from getLines.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "experiments/VSKDataProvider.hpp"

namespace VSKTspServer {

class GenericTable : public VSKTableProvider {
 public:
  GenericTable();

  // Stores the document and rebuilds the columns from it.
  void setData(nlohmann::json* document);

  ColumnsResponse getColumns(std::string parameters) override;
  TableLinesResponse getLines(TableLinesRequest request) override;
  // Straight from the document; declines a range with a cell that is not a
  // string or null, a row that is not an array, or text that is not UTF-8.
  bool writeLines(const TableLinesRequest& request, std::string& out) override;

 private:
  nlohmann::json* data = nullptr;
  std::vector<TableColumn> columns;
};

}  // namespace VSKTspServer
