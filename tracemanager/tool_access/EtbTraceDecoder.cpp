#include <cinttypes>
#include <cstdio>

#include "source_utilities/Logger.hpp"
#include "tool_access/CTRACE.hpp"
#include "tool_access/InstructionTraceDecoder.hpp"

namespace {

using Qx::Nlv::Trace::TracePosition;
using Record = VSKTspServer::EtbRecordStore::Record;

const std::string& fieldOr(const std::string& text) {
  static const std::string kUnknown = "n/a";
  return text.empty() ? kUnknown : text;
}

// Drops the first blank-separated field; a text without a blank stays.
void dropField(std::string& text) {
  const size_t blank = text.find(' ');
  if (blank != std::string::npos) text.erase(0, blank + 1);
}

class EtbWalk {
 public:
  EtbWalk(TraceReadContext& context, const InstructionColumns& columns, Json::Value& data)
      : context(context), columns(columns), data(data) {}

  void row(const RowView& row, std::vector<Record>& batch) {
    if (row.has(columns.readAddress) || row.has(columns.writeAddress))
      runRow(row);
    else
      batch.push_back(instructionRecord(row));
  }
  uint32_t runs() const { return n; }

 private:
  ObjectFileInfo* objectInfo() const { return context.record.objectInfo.get(); }
  void runRow(const RowView& row);
  Record instructionRecord(const RowView& row);

  TraceReadContext& context;
  const InstructionColumns& columns;
  Json::Value& data;
  uint32_t n = 0;
};

void EtbWalk::runRow(const RowView& row) {
  Json::Value& entry = data["data"][n];
  entry = Json::Value(Json::objectValue);
  entry["seq"] = n;
  const FunctionInfo* names = nullptr;
  auto end = [&](int32_t column, const char* key) {
    if (!row.has(column)) return;
    const auto address = static_cast<uint32_t>(row.value(column));
    if (address == kNoAddress) {
      entry[key] = "";
      return;
    }
    // No secure form here: every other value is an address.
    entry[key] = hex8(address);
    if (objectInfo() != nullptr && (names == nullptr || names->function.empty()))
      names = &context.caches.lookupFunctionInfo(address, objectInfo());
  };
  end(columns.readAddress, "first");
  end(columns.writeAddress, "last");
  static const FunctionInfo kNone;
  if (names == nullptr) names = &kNone;
  entry["function"] = fieldOr(names->function);
  entry["file"] = fieldOr(names->file);
  entry["dir"] = fieldOr(names->directory);
  data["code"][n] = Json::Value(Json::arrayValue);
  ++n;
}

Record EtbWalk::instructionRecord(const RowView& row) {
  Record record;
  if (row.has(columns.programData))
    record["asm"] =
        opcodeBySize(row.value(columns.programData), columns.info.sizes[columns.programData]);
  if (row.has(columns.cycles)) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", static_cast<int32_t>(row.value(columns.cycles)));
    record["cycles"] = text;
  }
  static const FunctionInfo kNone;
  const FunctionInfo* names = &kNone;
  if (!row.has(columns.programAddress)) {
    record["addr"] = "";
    record["lno"] = "";
  } else {
    const auto address = static_cast<uint32_t>(row.value(columns.programAddress));
    record["addr"] = hex8(address);
    names = &context.caches.lookupFunctionInfo(address, objectInfo());
    const LineInfo& line = context.caches.lookupLine(address, objectInfo());
    if (objectInfo() != nullptr && line.found) {
      record["lno"] = std::to_string(line.line);
      record["src"] = line.text;
    } else {
      record["lno"] = "";
      record["src"] = "";
    }
    std::string dasm;
    if (context.record.disassembler && objectInfo() != nullptr) {
      const auto& disassembly =
          context.caches.disassembleOne(address, *context.record.disassembler);
      if (disassembly.size > 0) {
        // Address and opcode fields go; the instruction stays.
        dasm = disassembly.text;
        dropField(dasm);
        dropField(dasm);
      }
      if (names->function.empty())
        names = &context.caches.lookupFunctionInfo(address, objectInfo());
    }
    record["dasm"] = std::move(dasm);
  }
  record["function"] = fieldOr(names->function);
  record["file"] = fieldOr(names->file);
  record["dir"] = fieldOr(names->directory);
  return record;
}

}  // namespace

int decodeETBTrace(TraceReadContext& context, uint32_t& count, Json::Value& data,
                   VSKTspServer::EtbRecordStore& store) {
  QX_TRACE_NAME("%s(...)\n", "CloudHemlock::decodeETBTrace");
  context.caches.clear();
  count = 0;
  store.clear();
  InstructionColumns columns;
  if (context.trace == nullptr || !columns.read(*context.trace)) return 0;

  const uint32_t blockRows = kTraceChunkRows;
  const size_t rowBytes = columnRowBytes(columns.info);
  const size_t validBytes = columnValidBytes(columns.info);
  // One set of buffers for every block.
  std::vector<uint8_t> rows(rowBytes * blockRows), valid(validBytes * blockRows);
  std::vector<TracePosition> positions(blockRows);
  EtbWalk walk(context, columns, data);
  uint32_t seek = Qx::Nlv::Trace::kSeekStart;
  for (;;) {
    uint32_t read = 0;
    try {
      read = context.trace->DecodeTraceData(seek, 0.0, TracePosition{}, blockRows, rows.data(),
                                            valid.data(), positions.data());
    } catch (...) {
      read = 0;  // a failed read ends the trace
    }
    read = std::min(read, blockRows);
    std::vector<Record> batch;
    batch.reserve(read);
    for (uint32_t r = 0; r < read; ++r)
      walk.row(RowView(columns.info, rows.data() + r * rowBytes, valid.data() + r * validBytes),
               batch);
    store.append(std::move(batch));
    if (read < blockRows) break;
    seek = Qx::Nlv::Trace::kSeekContinue;
  }
  count = walk.runs();
  return 0;
}
