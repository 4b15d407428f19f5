#include <array>

#include "source_utilities/Logger.hpp"
#include "tool_access/CTRACE.hpp"
#include "tool_access/InstructionTraceDecoder.hpp"

namespace {

using Qx::Nlv::Trace::TracePosition;

constexpr const char* kBlocked = "SECURE, BLOCKED";
constexpr const char* kBranchToMarker = "Dst Address (Branch To)";
constexpr const char* kBranchFromMarker = "Src Address (Branch From)";
constexpr size_t kMaxAsmLength = 200;

std::string fieldOr(const std::string& text, const char* fallback) {
  return text.empty() ? fallback : text;
}

// The walk over one block: the document being built and its counters.
class MtbWalk {
 public:
  MtbWalk(TraceReadContext& context, const InstructionColumns& columns, Json::Value& data,
          bool compact)
      : context(context), columns(columns), data(data), compact(compact) {}

  void row(const RowView& row) {
    if (row.has(columns.readAddress) || row.has(columns.writeAddress))
      runRow(row);
    else
      instructionRow(row);
  }
  uint32_t runs() const { return dataIndex; }

 private:
  ObjectFileInfo* objectInfo() const { return context.record.objectInfo.get(); }
  Json::Value& code() { return data["code"]; }

  void instructionRow(const RowView& row);
  void runRow(const RowView& row);
  // Reads one end of a run; gives the address and whether it is blocked.
  void runEnd(const RowView& row, int32_t column, const char* key, Json::Value& entry,
              uint32_t& address, bool& blocked, bool lookup);
  void marker(const char* text);
  void disassembleRun(uint32_t from, uint32_t to);

  TraceReadContext& context;
  const InstructionColumns& columns;
  Json::Value& data;
  const bool compact;
  uint32_t dataIndex = 0, run = 0, line = 0, seq = 0;
  FunctionInfo names;  // of the run row being read
  bool found = false;
};

void MtbWalk::instructionRow(const RowView& row) {
  Json::Value entry(Json::objectValue);
  const bool hasAddress = row.has(columns.programAddress);
  const uint32_t address =
      hasAddress ? static_cast<uint32_t>(row.value(columns.programAddress)) : 0;
  if (row.has(columns.programData)) {
    std::string text;
    bool decoded = false;
    if (context.record.disassembler) {
      const auto& disassembly =
          context.caches.disassembleOne(address, *context.record.disassembler);
      decoded = disassembly.size > 0;
      if (decoded) text = disassembly.text.substr(0, kMaxAsmLength);
    }
    if (!decoded)
      text = opcodeBySize(row.value(columns.programData), columns.info.sizes[columns.programData]);
    entry["asm"] = text;
  }
  if (hasAddress) {
    entry["addr"] = hex8(address);
    const LineInfo& source = context.caches.lookupLine(address, objectInfo());
    if (source.found && objectInfo() != nullptr) {
      entry["lno"] = source.line;
      entry["src"] = source.text;
    } else {
      entry["lno"] = "";
      entry["src"] = "";
    }
  } else {
    entry["addr"] = "";
    entry["lno"] = "";
  }
  code()[run][line] = std::move(entry);
  // Compact: every later row replaces line 1, so a run keeps its first and
  // its last instruction row.
  line = compact ? 1 : line + 1;
}

void MtbWalk::runEnd(const RowView& row, int32_t column, const char* key, Json::Value& entry,
                     uint32_t& address, bool& blocked, bool lookup) {
  if (!row.has(column)) return;
  address = static_cast<uint32_t>(row.value(column));
  if (address == kNoAddress) {
    entry[key] = "";
  } else if (address == kSecureAddress) {
    blocked = true;
    entry[key] = kBlocked;
  } else {
    entry[key] = hex8(address);
    if (lookup && objectInfo() != nullptr) {
      try {
        found = objectInfo()->lookupFunction(address, names.function, names.file, names.directory);
      } catch (const std::exception& error) {
        context.lastError = error.what();
      }
    }
  }
}

void MtbWalk::marker(const char* text) {
  Json::Value entry(Json::objectValue);
  entry["seq"] = seq++;
  entry["addr"] = kBlocked;
  entry["asm"] = text;
  entry["lno"] = "";
  entry["src"] = "";
  code()[run].append(std::move(entry));
}

void MtbWalk::runRow(const RowView& row) {
  Json::Value& entry = data["data"][dataIndex];
  entry = Json::Value(Json::objectValue);
  entry["seq"] = dataIndex;
  uint32_t from = kNoAddress, to = kNoAddress;
  bool blockedFrom = false, blockedTo = false;
  names = FunctionInfo{};
  found = false;
  runEnd(row, columns.readAddress, "first", entry, from, blockedFrom, true);
  runEnd(row, columns.writeAddress, "last", entry, to, blockedTo, names.function.empty());
  entry["function"] = found ? names.function : "n/a";
  entry["file"] = found ? names.file : "n/a";
  entry["dir"] = found ? names.directory : "n/a";

  run = dataIndex;
  line = 0;
  ++dataIndex;
  code()[run] = Json::Value(Json::arrayValue);
  if (to == kNoAddress)
    to = from;
  else if (from == kNoAddress)
    from = to;

  if (blockedFrom && blockedTo) {
    marker(kBranchToMarker);
    marker(kBranchFromMarker);
    line = 2;
    Json::Value& next = data["data"][dataIndex];
    next["function"] = "";
    next["file"] = "";
    next["dir"] = "";
    return;
  }
  if (blockedFrom) {
    from = to;
    marker(kBranchToMarker);
    line = 1;
  } else if (blockedTo) {
    to = from;
  }
  disassembleRun(from, to);
  if (blockedTo) marker(kBranchFromMarker);
}

void MtbWalk::disassembleRun(uint32_t from, uint32_t to) {
  if (!context.record.disassembler) return;
  for (const auto& disassembly :
       context.record.disassembler->Disassemble(Debugger::Address{from}, Debugger::Address{to})) {
    const auto address = static_cast<uint32_t>(disassembly.address);
    Json::Value entry(Json::objectValue);
    entry["seq"] = seq++;
    entry["addr"] = hex8(address);
    entry["asm"] = mtbInstructionText(disassembly.text);
    const LineInfo& source = context.caches.lookupLine(address, objectInfo());
    if (source.found) {
      entry["lno"] = source.line;
      entry["src"] = source.text;
    } else {
      entry["lno"] = "n/a";
      entry["src"] = "n/a";
    }
    code()[run].append(std::move(entry));
    const FunctionInfo& info = context.caches.lookupFunctionInfo(address, objectInfo());
    Json::Value& next = data["data"][dataIndex];
    next["function"] = fieldOr(info.function, "n/a");
    next["file"] = fieldOr(info.file, "n/a");
    next["dir"] = fieldOr(info.directory, "n/a");
    ++line;
  }
}

}  // namespace

std::string mtbInstructionText(const std::string& text) {
  const size_t start = text.find("    ");
  return start == std::string::npos ? text : text.substr(start);
}

bool InstructionColumns::read(CTRACE& trace) {
  const uint32_t count = trace.getColumnCount();
  if (count == 0 ||
      !trace.readColumnInfo(info.names, info.sizes, info.isString, info.offsets, info.ids) ||
      info.names.size() != count || info.sizes.size() != count || info.offsets.size() != count)
    return false;
  info.count = count;
  readAddress = findColumn(info, kReadAddressColumn);
  writeAddress = findColumn(info, kWriteAddressColumn);
  programAddress = findColumn(info, kProgramAddressColumn);
  programData = findColumn(info, kProgramDataColumn);
  cycles = findColumn(info, kCyclesColumn);
  return true;
}

int decodeMTBTrace(TraceReadContext& context, uint32_t& count, Json::Value& data, bool compact) {
  QX_TRACE_NAME("%s(...)\n", "CloudHemlock::decodeMTBTrace");
  context.caches.clear();
  count = 0;
  data = Json::Value(Json::objectValue);
  InstructionColumns columns;
  Json::Value& header = data["header"] = Json::Value(Json::arrayValue);
  if (context.trace == nullptr || !columns.read(*context.trace)) {
    data["data"] = Json::Value(Json::arrayValue);
    data["code"] = Json::Value(Json::arrayValue);
    return 0;
  }
  for (const auto& name : columns.info.names) header.append(name);

  const size_t rowBytes = columnRowBytes(columns.info);
  const size_t validBytes = columnValidBytes(columns.info);
  std::vector<uint8_t> rows(rowBytes * kMtbBufferRows), valid(validBytes * kMtbBufferRows);
  std::vector<TracePosition> positions(kMtbBufferRows);
  uint32_t read = 0;
  try {
    read =
        context.trace->DecodeTraceData(Qx::Nlv::Trace::kSeekStart, 0.0, TracePosition{},
                                       kMtbBufferRows, rows.data(), valid.data(), positions.data());
  } catch (...) {
    read = 0;  // a failed read is an empty buffer
  }
  data["data"] = Json::Value(Json::arrayValue);
  data["code"] = Json::Value(Json::arrayValue);
  MtbWalk walk(context, columns, data, compact);
  for (uint32_t r = 0; r < std::min(read, kMtbBufferRows); ++r)
    walk.row(RowView(columns.info, rows.data() + r * rowBytes, valid.data() + r * validBytes));
  count = walk.runs();
  return 0;
}
