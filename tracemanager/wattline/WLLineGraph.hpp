// WLLineGraph: the "Current" output of a power capture, the current over a
// range thinned by a fixed stride to about kPointBudget real samples (see
// WLViews.hpp for what all the views share).
#pragma once

#include "wattline/WLView.hpp"

namespace VSKTspServer {

class WLLineGraph : public WLView<VSKTreeTimeXYProvider> {
 public:
  static constexpr const char* kHistogramId =
      "org.eclipse.tracecompass.internal.tmf.core.histogram.HistogramDataProvider";
  static constexpr uint64_t kPointBudget = 2000;

  using WLView::WLView;

  XYResponse getXY(TimeRange range, std::vector<int32_t> requestedItems) override;
  XYTreeResponse getXYTree(int64_t start, int64_t end) override;
};

}  // namespace VSKTspServer
