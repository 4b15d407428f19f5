#include "wattline/WLTable.hpp"

#include <algorithm>
#include <cinttypes>
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

}  // namespace

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

}  // namespace VSKTspServer
