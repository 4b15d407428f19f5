// WLTable: the "Records" output of a power capture, one line per record,
// cells made on demand from the node's columns (see WLViews.hpp for what
// all the views share).
#pragma once

#include "wattline/WLView.hpp"

namespace VSKTspServer {

class WLTable : public WLView<VSKTableProvider> {
 public:
  using WLView::WLView;

  ColumnsResponse getColumns(std::string parameters) override;
  TableLinesResponse getLines(TableLinesRequest request) override;

  // The CSV of the whole table, as exportCsv writes it, but read in
  // slices: a stream of hundreds of millions of records never has all
  // its lines in memory at once. 0 on success, -1 on failure (logged).
  int exportInSlices(const std::string& path, int32_t linesPerSlice = 65536);
};

}  // namespace VSKTspServer
