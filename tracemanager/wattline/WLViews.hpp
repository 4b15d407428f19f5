// The views of a power capture, each an output of WLExperiment over the
// experiment's WLDataNode:
//
//   WLTable       "Records": one line per record, cells made on demand.
//   WLLineGraph   "Current": the current over a range, thinned by a fixed
//                 stride to about 2000 real samples.
//   WLSummary     "Summary": duration, energy, power, voltage, current and
//                 coin-cell life over a selected range, as a data tree.
//   WLStateGraph  "States": power modes and peripherals as time spans, with
//                 arrows that follow the order of the modes (only for
//                 streams with state words); see WLStateGraph.hpp.
//
// A view never owns the node and never copies its columns: every request
// reads just the records it answers for, so its cost does not grow with
// the stream. The pointer is set before the view is reachable and again
// after each reload; a view without a node answers empty.
//
// Threads: called under the trace server's request lock only; no lock of
// their own. WLSummary::getXYTree writes the statistics into the shared
// node, which the next reader then sees.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "experiments/VSKDataProvider.hpp"
#include "wattline/WLDataNode.hpp"

namespace VSKTspServer {

class WLTable : public VSKTableProvider {
 public:
  explicit WLTable(WLDataNode* node = nullptr) : node_(node) {}
  void setData(WLDataNode* node) { node_ = node; }

  ColumnsResponse getColumns(std::string parameters) override;
  TableLinesResponse getLines(TableLinesRequest request) override;

  // The CSV of the whole table, as exportCsv writes it, but read in
  // slices: a stream of hundreds of millions of records never has all
  // its lines in memory at once. 0 on success, -1 on failure (logged).
  int exportInSlices(const std::string& path, int32_t linesPerSlice = 65536);

 private:
  WLDataNode* node_;
};

class WLLineGraph : public VSKTreeTimeXYProvider {
 public:
  static constexpr const char* kHistogramId =
      "org.eclipse.tracecompass.internal.tmf.core.histogram.HistogramDataProvider";
  static constexpr uint64_t kPointBudget = 2000;

  explicit WLLineGraph(WLDataNode* node = nullptr) : node_(node) {}
  void setData(WLDataNode* node) { node_ = node; }

  XYResponse getXY(TimeRange range, std::vector<int32_t> requestedItems) override;
  XYTreeResponse getXYTree(int64_t start, int64_t end) override;

 private:
  WLDataNode* node_;
};

class WLSummary : public VSKDataTreeProvider {
 public:
  explicit WLSummary(WLDataNode* node = nullptr) : node_(node) {}
  void setData(WLDataNode* node) { node_ = node; }

  XYResponse getXY(TimeRange range, std::vector<int32_t> requestedItems) override;
  XYTreeResponse getXYTree(int64_t start, int64_t end) override;

  // Writes the summary of the whole stream as CSV (Name, Value); the
  // node's statistics then stay those of the whole stream. 0 or -1.
  int exportCsv(const std::string& path);

  // Seconds a 220 mAh, 3 V coin cell lasts at the mean power of
  // `energyMilliJoule` over `durationSeconds`; 0 when the rate is not a
  // finite positive number, wrapping at 32 bits.
  static uint32_t coinCellSeconds(double energyMilliJoule, double durationSeconds);

 private:
  WLDataNode* node_;
};

}  // namespace VSKTspServer
