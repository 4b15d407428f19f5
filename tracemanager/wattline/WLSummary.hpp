// WLSummary: the "Summary" output of a power capture: duration, energy,
// power, voltage, current and coin-cell life over a selected range, as a
// data tree (see WLViews.hpp for what all the views share).
#pragma once

#include "wattline/WLView.hpp"

namespace VSKTspServer {

class WLSummary : public WLView<VSKDataTreeProvider> {
 public:
  using WLView::WLView;

  XYResponse getXY(TimeRange range, std::vector<int32_t> requestedItems) override;
  XYTreeResponse getXYTree(int64_t start, int64_t end) override;

  // Writes the summary of the whole stream as CSV (Name, Value); the
  // node's statistics then stay those of the whole stream. 0 or -1.
  int exportCsv(const std::string& path);

  // Seconds a 220 mAh, 3 V coin cell lasts at the mean power of
  // `energyMilliJoule` over `durationSeconds`; 0 when the rate is not a
  // finite positive number, wrapping at 32 bits.
  static uint32_t coinCellSeconds(double energyMilliJoule, double durationSeconds);
};

}  // namespace VSKTspServer
