#include "experiments/ETBTable.hpp"

#include <algorithm>
#include <stdexcept>

#include "experiments/TableText.hpp"
#include "source_utilities/Logger.hpp"

namespace VSKTspServer {

namespace {

const std::string& field(const EtbRecordStore::Record& record, const char* key) {
  static const std::string kEmpty;
  auto it = record.find(key);
  return it == record.end() ? kEmpty : it->second;
}

}  // namespace

ETBTable::ETBTable(EtbRecordStore* store) : records(store) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ETBTable::ETBTable");
  const char* names[] = {"Seq.", "PC",     "Opcode", "Function", "File",
                         "Line", "Source", "Asm",    "Dir",      "Cycles"};
  for (int64_t id = 0; id < 10; ++id) {
    TableColumn column;
    column.id = id;
    column.name = names[id];
    columns.push_back(std::move(column));
  }
  setData();
}

void ETBTable::setData() {
  rows.clear();
  if (!expandRows) {
    rows.emplace_back(0, 0);
  } else {
    const size_t count = records ? records->size() : 0;
    rows.reserve(count);
    for (size_t j = 0; j < count; ++j) rows.emplace_back(0, static_cast<int64_t>(j));
  }
  if (reversed) std::reverse(rows.begin(), rows.end());
}

ColumnsResponse ETBTable::getColumns(std::string) {
  return table_text::completedColumns(columns);
}

TableLinesResponse ETBTable::getLines(TableLinesRequest request) {
  TableLinesResponse response;
  auto& model = response.model;
  // Plain variables, not a structured binding: the lambda below captures
  // them, which not every compiler of this project accepts for bindings.
  const auto range =
      table_text::frameLines(response, columns, request, static_cast<int64_t>(rows.size()));
  const int64_t low = range.first;
  const int64_t high = range.second;
  if (low == high) return response;

  static const std::vector<EtbRecordStore::Record> kNoRecords;
  auto build = [&](const std::vector<EtbRecordStore::Record>& store) {
    model.lines.reserve(static_cast<size_t>(high - low));
    for (int64_t k = low; k < high; ++k) {
      const int64_t j = rows[static_cast<size_t>(k)].second;
      if (j < 0 || static_cast<size_t>(j) >= store.size()) {
        throw std::out_of_range("invalid vector subscript");
      }
      const auto& record = store[static_cast<size_t>(j)];
      TableLine line;
      line.index = k;
      line.cells.resize(10);
      line.cells[0].content = std::to_string(k);
      line.cells[1].content = field(record, "addr");
      line.cells[2].content = field(record, "asm");
      line.cells[3].content = field(record, "function");
      line.cells[4].content = field(record, "file");
      line.cells[5].content = field(record, "lno");
      line.cells[6].content = table_text::trimLeft(field(record, "src"));
      line.cells[7].content = table_text::trimLeft(field(record, "dasm"));
      line.cells[8].content = field(record, "dir");
      line.cells[9].content = field(record, "cycles");
      model.lines.push_back(std::move(line));
    }
  };
  if (records) {
    records->read(build);
  } else {
    build(kNoRecords);
  }
  return response;
}

}  // namespace VSKTspServer
