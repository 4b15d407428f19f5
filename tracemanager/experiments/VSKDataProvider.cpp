#include "experiments/VSKDataProvider.hpp"

#include <atomic>
#include <exception>

#include "experiments/CsvWriter.hpp"
#include "source_utilities/Logger.hpp"

namespace VSKTspServer {

namespace {

std::string nextId(std::atomic<int32_t>& counter, const char* stem) {
  return std::string(stem) + "." + std::to_string(counter.fetch_add(1) + 1);
}

std::atomic<int32_t> tableCounter{0};
std::atomic<int32_t> timeGraphCounter{0};
std::atomic<int32_t> treeTimeXYCounter{0};
std::atomic<int32_t> dataTreeCounter{0};

}  // namespace

AnnotationCategoriesResponse VSKDataProvider::getAnnotationCategories(AnnotationsRequest) {
  return {};
}

AnnotationsResponse VSKDataProvider::getAnnotations(AnnotationsRequest) { return {}; }

VSKTableProvider::VSKTableProvider() {
  type = "TABLE";
  id = nextId(tableCounter, kIdStem);
}

VSKTimeGraphProvider::VSKTimeGraphProvider() {
  type = "TIME_GRAPH";
  id = nextId(timeGraphCounter, kIdStem);
}

VSKTreeTimeXYProvider::VSKTreeTimeXYProvider() {
  type = "TREE_TIME_XY";
  id = nextId(treeTimeXYCounter, kIdStem);
}

VSKDataTreeProvider::VSKDataTreeProvider() {
  type = "DATA_TREE";
  id = nextId(dataTreeCounter, kIdStem);
}

bool VSKTableProvider::writeLines(const TableLinesRequest&, std::string&) { return false; }

int VSKTableProvider::exportCsv(std::string path) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::VSKTableProvider::exportCsv");
  QX_TRACE_ARG("path", path.c_str());
  try {
    const ColumnsResponse columns = getColumns("");
    std::vector<std::string> names;
    TableLinesRequest request;
    request.requested_table_index = 0;
    request.requested_table_count = 0x7fffffff;
    for (const auto& column : columns.model) {
      names.push_back(column.name);
      request.requested_table_column_ids.push_back(column.id);
    }
    CsvWriter writer(path, names);
    const TableLinesResponse lines = getLines(std::move(request));
    for (const auto& line : lines.model.lines) {
      for (const auto& cell : line.cells) writer.writeCell(cell.content);
    }
    return 0;
  } catch (const std::exception& e) {
    QX_LOG_ERROR("CSV export of '%s' to '%s' failed: %s\n", name.c_str(), path.c_str(), e.what());
    return -1;
  }
}

}  // namespace VSKTspServer
