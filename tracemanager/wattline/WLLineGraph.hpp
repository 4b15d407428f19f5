// WLLineGraph: the "Current" output of a power capture, the current over a
// range thinned by a fixed stride to about kPointBudget real samples (see
// WLViews.hpp for what all the views share).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "experiments/VSKDataProvider.hpp"
#include "wattline/WLDataNode.hpp"

namespace VSKTspServer {

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

}  // namespace VSKTspServer
