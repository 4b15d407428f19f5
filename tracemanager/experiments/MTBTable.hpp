// MTBTable: the runs of code of an MTB capture (`mtb_data.json`) as a flat
// table, one line per instruction or per run.
//
// `rows` holds one (run, instruction) index pair per line and is the only
// thing built ahead of time; cell text is made per requested line, so a
// large capture costs its parsed document and the index pairs. The flags are
// read by setData only: a table made with the constructor builds its rows
// with both flags false, and changing a flag shows at the next setData.
//
// Missing keys: `first`, `last`, `function`, `file` and `dir` of a run, and
// `seq`, `addr`, `src`, `asm` and `lno` of an instruction, read as empty. A
// key that is present must have its type (strings; `seq` a number), else
// type error 302. `data` shorter than `code` throws out_of_range.
//
// The document is held by the experiment (not owned). Threads: under the
// server's request lock only.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "VSKDataProvider.hpp"

namespace VSKTspServer {

class MTBTable : public VSKTableProvider {
 public:
  explicit MTBTable(nlohmann::json* document);

  // Stores the document and rebuilds `rows` from its `code` array.
  void setData(nlohmann::json* document);

  ColumnsResponse getColumns(std::string parameters) override;
  TableLinesResponse getLines(TableLinesRequest request) override;

  bool expandRuns = false;  // a line per instruction, else per run
  bool reversed = false;    // newest run first

  // Number of lines, for tests and the export.
  size_t lineCount() const { return rows.size(); }

 private:
  TableLine makeLine(int64_t index, int64_t run, int64_t instruction) const;

  nlohmann::json* data = nullptr;
  std::vector<std::pair<int64_t, int64_t>> rows;
  std::vector<TableColumn> columns;
};

}  // namespace VSKTspServer
