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
// setData also writes the cell text of every line once, escaped as the
// answer carries it, so that writeLines copies bytes only. A line whose
// text getLines would refuse (a wrong type, bytes that are not UTF-8, a
// missing run) is left out of that text, and a range holding one is answered
// by getLines instead, with its error. That text costs 24 bytes a line plus
// the escaped strings of its own cells (those of its run are shared).
//
// The document is held by the experiment (not owned) and must not change
// without a setData. Threads: under the server's request lock only.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "experiments/VSKDataProvider.hpp"

namespace VSKTspServer {

class MTBTable : public VSKTableProvider {
 public:
  explicit MTBTable(nlohmann::json* document);

  // Stores the document and rebuilds `rows` from its `code` array.
  void setData(nlohmann::json* document);

  ColumnsResponse getColumns(std::string parameters) override;
  TableLinesResponse getLines(TableLinesRequest request) override;
  bool writeLines(const TableLinesRequest& request, std::string& out) override;

  bool expandRows = false;  // a line per instruction, else one per run
  bool reversed = false;    // newest run first

  // Number of lines, for tests and the export.
  size_t lineCount() const { return rows.size(); }

 private:
  TableLine makeLine(int64_t index, int64_t run, int64_t instruction) const;
  void writeText();
  bool textIsCurrent() const;

  nlohmann::json* data = nullptr;
  std::vector<std::pair<int64_t, int64_t>> rows;
  std::vector<TableColumn> columns;

  // The escaped cell strings (quotes included) in one buffer. A span is an
  // offset into `text` and the lengths of its strings, one after another.
  static constexpr uint64_t kNoText = UINT64_MAX;
  struct RunText {  // Function, File, Dir
    uint64_t at = kNoText;
    uint16_t length[3] = {};
    bool arrow = false;  // a non-empty `first`: its first line shows "=>"
  };
  struct RowText {  // Seq., PC, Line, Source, Asm
    uint64_t at = kNoText;
    uint16_t length[5] = {};
  };
  std::string text;
  std::vector<RunText> runText;
  std::vector<RowText> rowText;  // one per row, in `rows` order
  // What the text was written from, to notice a document replaced without
  // a setData (a refresh that failed halfway).
  const nlohmann::json* textCode = nullptr;
  size_t textCodeSize = 0;
  size_t textRunsSize = 0;
};

}  // namespace VSKTspServer
