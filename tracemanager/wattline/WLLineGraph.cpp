#include "wattline/WLLineGraph.hpp"

#include <algorithm>

#include "source_utilities/Logger.hpp"

namespace VSKTspServer {

namespace {

OutputElementStyle connectedLine() {
  OutputElementStyle style;
  style.values["series-type"] = "connected-line";
  return style;
}

uint64_t clampTime(int64_t t) { return t < 0 ? 0 : static_cast<uint64_t>(t); }

}  // namespace

XYTreeResponse WLLineGraph::getXYTree(int64_t, int64_t) {
  QX_TRACE_FUNCTION("VSKTspServer::WLLineGraph::getXYTree");
  XYTreeResponse response;
  TreeEntry entry;
  entry.id = 1;
  entry.parentId = 0;
  entry.labels = {"Current (nA)"};
  entry.hasData = true;
  entry.style = connectedLine();
  response.model.entries.push_back(std::move(entry));
  response.status = kStatusCompleted;
  return response;
}

XYResponse WLLineGraph::getXY(TimeRange range, std::vector<int32_t>) {
  QX_TRACE_FUNCTION("VSKTspServer::WLLineGraph::getXY");
  XYResponse response;
  response.status = kStatusCompleted;
  response.model.title = "Current";
  XYSeries series;
  series.seriesId = 1;
  series.seriesName = "Current (nA)";
  series.style = connectedLine();
  if (node_ != nullptr) {
    const WLDataNode& node = *node_;
    const uint64_t first = std::min(node.indexOfTime(clampTime(range.start)), node.recordCount);
    const uint64_t last = std::min(node.indexOfTime(clampTime(range.end)), node.recordCount);
    const uint64_t step = std::max<uint64_t>((last > first ? last - first : 0) / kPointBudget, 1);
    if (node.currents.exists() && first < last) {
      const uint64_t end = std::min<uint64_t>(last, node.currents.size());
      const size_t points = first < end ? (end - first + step - 1) / step : 0;
      series.xValues.reserve(points);
      series.yValues.reserve(points);
      for (uint64_t i = first; i < end; i += step) {
        series.xValues.push_back(static_cast<int64_t>(i));
        series.yValues.push_back(node.currents[i]);
      }
    }
  }
  response.model.series.push_back(std::move(series));
  return response;
}

}  // namespace VSKTspServer
