#include "wattline/WLViews.hpp"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <exception>

#include "experiments/CsvWriter.hpp"
#include "source_utilities/Logger.hpp"

namespace VSKTspServer {

namespace {

std::string decimal(uint64_t value) {
  char text[24];
  const int n = std::snprintf(text, sizeof text, "%" PRIu64, value);
  return std::string(text, static_cast<size_t>(n));
}

std::string upperHex(uint32_t value) {
  char text[12];
  const int n = std::snprintf(text, sizeof text, "%" PRIX32, value);
  return std::string(text, static_cast<size_t>(n));
}

std::string format(const char* pattern, double value) {
  char text[64];
  const int n = std::snprintf(text, sizeof text, pattern, value);
  return std::string(text, static_cast<size_t>(std::clamp(n, 0, 63)));
}

uint64_t clampTime(int64_t t) { return t < 0 ? 0 : static_cast<uint64_t>(t); }

}  // namespace

// ---- WLTable -------------------------------------------------------------

ColumnsResponse WLTable::getColumns(std::string) {
  QX_TRACE_FUNCTION("VSKTspServer::WLTable::getColumns");
  ColumnsResponse response;
  response.status = kStatusCompleted;
  if (node_ == nullptr) return response;
  auto add = [&](int64_t id, const char* name, bool exists) {
    if (exists) response.model.push_back(TableColumn{id, name, "", ""});
  };
  add(0, "Time", node_->times.exists());
  add(1, "Energy", node_->energies.exists());
  add(2, "Current", node_->currents.exists());
  add(3, "Voltage", node_->voltages.exists());
  const size_t words = node_->stateWords.size();
  add(4, "DSR1", words >= 2 && node_->stateWords[1].exists());
  add(5, "DSR0", words >= 1 && node_->stateWords[0].exists());
  return response;
}

TableLinesResponse WLTable::getLines(TableLinesRequest request) {
  QX_TRACE_FUNCTION("VSKTspServer::WLTable::getLines");
  TableLinesResponse response;
  response.status = kStatusCompleted;
  const int64_t start = request.requested_table_index;
  const int64_t count = request.requested_table_count;
  response.model.lowIndex = start;
  if (node_ == nullptr) return response;
  const WLDataNode& node = *node_;
  response.model.size = static_cast<int64_t>(node.recordCount);
  response.model.columnIds = node.recordType == WLDataNode::kTypePlain
                                 ? std::vector<int64_t>{0, 1, 2, 3}
                                 : std::vector<int64_t>{0, 1, 2, 3, 4, 5};

  const size_t words = std::min<size_t>(node.stateWordCount, node.stateWords.size());
  const WLColumn<uint32_t>* dsr1 = words >= 2 ? &node.stateWords[1] : nullptr;
  const WLColumn<uint32_t>* dsr0 = words >= 1 ? &node.stateWords[0] : nullptr;
  if (!node.times.exists() || count <= 0 || start < 0) return response;
  const uint64_t first = static_cast<uint64_t>(start);
  const uint64_t end = std::min<uint64_t>(first + static_cast<uint64_t>(count), node.times.size());
  if (first >= end) return response;

  auto& lines = response.model.lines;
  lines.reserve(end - first);
  for (uint64_t i = first; i < end; ++i) {
    TableLine line;
    line.index = static_cast<int64_t>(i);
    line.cells.reserve(6);
    line.cells.push_back({decimal(node.times[i]), 0});
    if (node.energies.exists()) line.cells.push_back({decimal(node.energies[i]), 0});
    if (node.currents.exists()) line.cells.push_back({decimal(node.currents[i]), 0});
    if (node.voltages.exists()) line.cells.push_back({decimal(node.voltages[i]), 0});
    if (dsr1 != nullptr && dsr1->exists()) line.cells.push_back({upperHex((*dsr1)[i]), 0});
    if (dsr0 != nullptr && dsr0->exists()) line.cells.push_back({upperHex((*dsr0)[i]), 0});
    lines.push_back(std::move(line));
  }
  return response;
}

int WLTable::exportInSlices(const std::string& path, int32_t linesPerSlice) {
  QX_TRACE_FUNCTION("VSKTspServer::WLTable::exportInSlices");
  QX_TRACE_ARG("path", path.c_str());
  try {
    std::vector<std::string> names;
    for (const auto& column : getColumns("").model) names.push_back(column.name);
    CsvWriter writer(path, names);
    TableLinesRequest request;
    request.requested_table_count = std::max(linesPerSlice, 1);
    for (int64_t at = 0;; at += request.requested_table_count) {
      request.requested_table_index = at;
      const TableLinesResponse slice = getLines(request);
      for (const auto& line : slice.model.lines) {
        for (const auto& cell : line.cells) writer.writeCell(cell.content);
      }
      if (slice.model.lines.size() < static_cast<size_t>(request.requested_table_count)) break;
    }
    return 0;
  } catch (const std::exception& e) {
    QX_LOG_ERROR("CSV export of '%s' to '%s' failed: %s\n", name.c_str(), path.c_str(), e.what());
    return -1;
  }
}

// ---- WLLineGraph -----------------------------------------------------------

namespace {

OutputElementStyle connectedLine() {
  OutputElementStyle style;
  style.values["series-type"] = "connected-line";
  return style;
}

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

// ---- WLSummary -------------------------------------------------------------

XYResponse WLSummary::getXY(TimeRange, std::vector<int32_t>) {
  QX_TRACE_FUNCTION("VSKTspServer::WLSummary::getXY");
  XYResponse response;
  response.status = kStatusCompleted;
  return response;
}

uint32_t WLSummary::coinCellSeconds(double energyMilliJoule, double durationSeconds) {
  const double seconds = (220.0 * 3.0 * 3600.0) / (energyMilliJoule / durationSeconds);
  if (!std::isfinite(seconds)) return 0;
  const double whole = std::trunc(seconds);
  // Beyond 32 bits the life wraps, as a 32-bit counter of seconds would.
  const double wrapped = std::fmod(whole, 4294967296.0);
  return static_cast<uint32_t>(static_cast<int64_t>(wrapped));
}

XYTreeResponse WLSummary::getXYTree(int64_t start, int64_t end) {
  QX_TRACE_FUNCTION("VSKTspServer::WLSummary::getXYTree");
  XYTreeResponse response;
  response.status = kStatusCompleted;
  response.model.headers = {{"Name", ""}, {"Value", "Energy usage"}};
  WLDataNode empty;
  WLDataNode& node = node_ != nullptr ? *node_ : empty;
  if (end > start && node_ != nullptr) {
    const uint64_t first = nearestIndex(node.times, clampTime(start));
    const uint64_t last = nearestIndex(node.times, clampTime(end));
    node.computeStats(first, last);
  }
  auto& entries = response.model.entries;
  auto group = [&](int64_t id, int64_t parent, const char* name) {
    TreeEntry e;
    e.id = id;
    e.parentId = parent;
    e.labels = {name};
    entries.push_back(std::move(e));
  };
  auto row = [&](int64_t id, int64_t parent, const char* name, std::string value) {
    TreeEntry e;
    e.id = id;
    e.parentId = parent;
    e.labels = {name, std::move(value)};
    e.hasData = true;
    entries.push_back(std::move(e));
  };
  group(1, 0, "System");
  row(11, 1, "Time", format("%.2f sec", node.duration));
  row(12, 1, "Energy", format("%.3f mJ", node.energyUsed));
  group(13, 1, "Power");
  row(131, 13, "Mean", format("%.3f mW", node.powerStats.mean));
  row(132, 13, "Min", format("%.3f mW", node.powerStats.min));
  row(133, 13, "Max", format("%.3f mW", node.powerStats.max));
  group(14, 1, "Voltage");
  row(141, 14, "Mean", format("%.3f V", node.voltageStats.mean));
  group(15, 1, "Current");
  row(151, 15, "Mean", format("%.3f mA", node.currentStats.mean));
  row(152, 15, "Min", format("%.3f mA", node.currentStats.min));
  row(153, 15, "Max", format("%.3f mA", node.currentStats.max));
  const uint32_t s = coinCellSeconds(node.energyUsed, node.duration);
  char life[64];
  std::snprintf(life, sizeof life, "%u day, %u hour, %u min", s / 86400, (s % 86400) / 3600,
                (s % 3600) / 60);
  row(16, 1, "CR2032 (220mAh) Life", life);
  return response;
}

int WLSummary::exportCsv(const std::string& path) {
  QX_TRACE_FUNCTION("VSKTspServer::WLSummary::exportCsv");
  QX_TRACE_ARG("path", path.c_str());
  try {
    const XYTreeResponse tree = getXYTree(0, 0x7FFFFFFFFFFFFFFF);
    std::vector<std::string> names;
    for (const auto& header : tree.model.headers) names.push_back(header.name);
    CsvWriter writer(path, names);
    for (const auto& entry : tree.model.entries) {
      for (const auto& label : entry.labels) writer.writeCell(label);
      for (size_t i = entry.labels.size(); i < names.size(); ++i) writer.writeCell("");
    }
    return 0;
  } catch (const std::exception& e) {
    QX_LOG_ERROR("CSV export of '%s' to '%s' failed: %s\n", name.c_str(), path.c_str(), e.what());
    return -1;
  }
}

}  // namespace VSKTspServer
