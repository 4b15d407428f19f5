#include "tool_access/TdfTableReader.hpp"

#include <stdexcept>

#include "source_utilities/Logger.hpp"
#include "tool_access/CTRACE.hpp"

namespace {

constexpr const char* kAddedColumns[] = {"Function", "File", "Dir"};

void check(int result, const char* step, const std::string& lastError) {
  if (result != 0) throw std::runtime_error(std::string(step) + " failed: " + lastError);
}

// Function, file and directory of the row's program address.
void addSymbolCells(Json::Value& row, uint32_t programColumn, Json::ArrayIndex firstAdded,
                    TraceReadContext& context) {
  const Json::Value& cell = row[programColumn];
  std::string text = cell.isString() ? cell.asString() : "";
  FunctionInfo names;
  if (!text.empty()) {
    if (text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0) text.erase(0, 2);
    try {
      // Parsed as a signed 32-bit number: an address at 0x80000000 or above
      // raises std::out_of_range, which ends the table.
      const int address = std::stoi(text, nullptr, 16);
      if (context.record.objectInfo)
        names = context.caches.lookupFunctionInfo(static_cast<uint32_t>(address),
                                                  context.record.objectInfo.get());
    } catch (const std::runtime_error&) {
      return;  // the row stays as it is
    }
  }
  row[firstAdded] = names.function;
  row[firstAdded + 1] = names.file;
  row[firstAdded + 2] = names.directory;
}

}  // namespace

int readTdfTable(TraceReadContext& context, Json::Value& data,
                 const std::function<void()>& findProgram) {
  QX_TRACE_NAME("%s(...)\n", "CloudHemlock::readTdfTable");
  if (context.trace == nullptr) {
    context.lastError = "Trace operation not created";
    check(-2, "readTraceColumnNames", context.lastError);
  }
  if (readTraceColumnNames(context.record, *context.trace, context.lastError) != 0) {
    context.lastError = "Failed to get column information";
    check(-3, "readTraceColumnNames", context.lastError);
  }
  // A copy: the processing set below replaces the one these may come from.
  const std::vector<std::string> names = context.record.columnProcessing
                                             ? context.record.columnProcessing->names
                                             : context.record.columnInfo->names;
  Json::Value columns(Json::arrayValue);
  Json::Value spec(Json::arrayValue);
  int32_t programColumn = -1;
  for (uint32_t i = 0; i < names.size(); ++i) {
    Json::Value column(Json::objectValue);
    column["name"] = names[i];
    column["format"] = "default";
    columns.append(column);
    column["index"] = i;
    spec.append(std::move(column));
    if (names[i] == kProgramAddressColumn) programColumn = static_cast<int32_t>(i);
  }
  if (programColumn >= 0) {
    if (findProgram) findProgram();
    context.caches.clear();
    for (const char* name : kAddedColumns) {
      Json::Value column(Json::objectValue);
      column["name"] = name;
      column["format"] = "default";
      columns.append(std::move(column));
    }
  }
  data["Columns"] = std::move(columns);

  check(setupColumnProcessing(context.record, spec, context.lastError), "setupColumnProcessing",
        context.lastError);
  check(fetchTraceData(context), "fetchTraceData", context.lastError);
  Json::Value& rows = data["Rows"];
  check(getReducedGraphData(context, rows), "getReducedGraphData", context.lastError);
  if (programColumn >= 0) {
    const auto firstAdded = static_cast<Json::ArrayIndex>(names.size());
    for (Json::Value& row : rows)
      addSymbolCells(row, static_cast<uint32_t>(programColumn), firstAdded, context);
  }
  return 0;
}
