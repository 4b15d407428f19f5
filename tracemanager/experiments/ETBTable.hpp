// ETBTable: the decoded ETB records of the broker's store as a virtual table.
//
// The rows are not copied: `rows` holds (0, record index) pairs, built by
// setData from the store's size at that moment, and getLines reads the
// records in place under the store's read lock. After a new decode the rows
// are stale until the next setData; a line whose record is gone throws
// std::out_of_range("invalid vector subscript"). As in MTBTable, the flags
// take effect at the next setData, not in the constructor.
//
// The store belongs to the router and outlives the table. Threads: table
// operations under the server's request lock; the store may be written
// concurrently by the decoder.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "experiments/EtbRecordStore.hpp"
#include "experiments/VSKDataProvider.hpp"

namespace VSKTspServer {

class ETBTable : public VSKTableProvider {
 public:
  explicit ETBTable(EtbRecordStore* store);

  void setData();

  ColumnsResponse getColumns(std::string parameters) override;
  TableLinesResponse getLines(TableLinesRequest request) override;

  bool expandRows = false;  // a line per record, else a single line
  bool reversed = false;    // last record first

  size_t lineCount() const { return rows.size(); }

 private:
  EtbRecordStore* records;
  std::vector<std::pair<int64_t, int64_t>> rows;
  std::vector<TableColumn> columns;
};

}  // namespace VSKTspServer
