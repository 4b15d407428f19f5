#include "wattline/WLSummary.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>

#include "experiments/CsvWriter.hpp"
#include "source_utilities/Logger.hpp"

namespace VSKTspServer {

namespace {

std::string format(const char* pattern, double value) {
  char text[64];
  const int n = std::snprintf(text, sizeof text, pattern, value);
  return std::string(text, static_cast<size_t>(std::clamp(n, 0, 63)));
}

uint64_t clampTime(int64_t t) { return t < 0 ? 0 : static_cast<uint64_t>(t); }

}  // namespace

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
