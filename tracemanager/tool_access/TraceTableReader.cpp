#include "tool_access/TraceTableReader.hpp"

#include <algorithm>
#include <cctype>
#include <new>

#include "source_utilities/Logger.hpp"
#include "tool_access/CTRACE.hpp"

namespace {

using Qx::Nlv::Trace::TracePosition;

int fail(std::string& lastError, int code, std::string text) {
  lastError = std::move(text);
  return code;
}

// A string cell: a 32-bit offset into the block's strings and a 16-bit
// length. The text ends at the strings' end or at a NUL, whichever comes
// first.
Json::Value stringCell(const uint8_t* bytes, const std::string& strings, bool lowerCase) {
  const uint32_t offset = static_cast<uint32_t>(RowView::readColumnValue(bytes, 4));
  const uint32_t length = static_cast<uint32_t>(RowView::readColumnValue(bytes + 4, 2));
  if (offset >= strings.size() || length == 0) return Json::Value(Json::nullValue);
  const size_t available = std::min<size_t>(length, strings.size() - offset);
  const char* start = strings.data() + offset;
  const size_t end = std::find(start, start + available, '\0') - start;
  std::string text(start, end);
  if (lowerCase)
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return Json::Value(text);
}

// One block's buffers, owned until they are handed to a chunk.
struct BlockBuffers {
  std::vector<uint8_t> data, valid, positions;

  bool allocate(size_t rows, size_t rowBytes, size_t validBytes) {
    try {
      data.resize(rows * rowBytes);
      positions.resize(rows * sizeof(TracePosition));
      valid.resize(rows * validBytes);
      return true;
    } catch (const std::bad_alloc&) {
      *this = BlockBuffers{};
      return false;
    }
  }
  void shrink(size_t rows, size_t rowBytes, size_t validBytes) {
    data.resize(rows * rowBytes);
    data.shrink_to_fit();
    positions.resize(rows * sizeof(TracePosition));
    positions.shrink_to_fit();
    valid.resize(rows * validBytes);
    valid.shrink_to_fit();
  }
};

uint32_t readBlock(CTRACE& trace, uint32_t seek, uint32_t rows, BlockBuffers& buffers) {
  try {
    return trace.DecodeTraceData(seek, 0.0, TracePosition{}, rows, buffers.data.data(),
                                 buffers.valid.data(),
                                 reinterpret_cast<TracePosition*>(buffers.positions.data()));
  } catch (...) {
    // The decoder's failures are short reads; one that escapes its wrapper
    // ends the table the same way.
    return 0;
  }
}

}  // namespace

int readTraceColumnNames(CloudOperation& table, CTRACE& trace, std::string& lastError) {
  QX_TRACE_NAME("%s(...)\n", "CloudHemlock::readTraceColumnNames");
  if (table.columnInfo) return 0;
  const uint32_t count = trace.getColumnCount();
  if (count == 0) return fail(lastError, -3, "Invalid column info error");
  auto info = std::make_unique<ColumnInfo>();
  if (!trace.readColumnInfo(info->names, info->sizes, info->isString, info->offsets, info->ids) ||
      info->names.size() != count || info->sizes.size() != count ||
      info->isString.size() != count || info->offsets.size() != count)
    return fail(lastError, -3, "Invalid column info error");
  info->count = count;
  table.columnInfo = std::move(info);
  return 0;
}

int setupColumnProcessing(CloudOperation& table, const Json::Value& columns,
                          std::string& lastError) {
  QX_TRACE_NAME("%s(...)\n", "CloudHemlock::setupColumnProcessing");
  if (!columns.isArray()) return fail(lastError, -3, "Column info parameter is not a JSON array");
  auto processing = std::make_unique<ColumnProcessing>();
  processing->count = columns.size();
  for (const Json::Value& column : columns) {
    if (!column.isObject()) return fail(lastError, -3, "Column info parameter is not a JSON array");
    processing->names.push_back(column.get("name", "").asString());
    const auto index = static_cast<uint32_t>(column.get("index", 0).asInt());
    processing->indices.push_back(index);

    const std::string format = column.get("format", "").asString();
    auto known = formatNames().find(format);
    if (known == formatNames().end())
      return fail(lastError, -4, "Illegal format specified '" + format + "'");
    processing->formats.push_back(known->second);
    uint32_t dataType = kDataTypeDefault;
    if (column.isMember("datatype")) {
      auto type = dataTypeNames().find(column["datatype"].asString());
      if (type != dataTypeNames().end()) dataType = type->second;
    }
    processing->dataTypes.push_back(dataType);

    int32_t transform = kTransformNone;
    if (column.isMember("transform")) {
      const Json::Value& spec = column["transform"];
      const std::string type = spec.isObject() ? spec.get("type", "").asString() : "";
      auto word = transformNames().find(type);
      if (word == transformNames().end())
        return fail(lastError, -4, "Illegal transform specified '" + type + "'");
      if (spec.isMember("using")) {
        for (const Json::Value& source : spec["using"])
          processing->using_.push_back(static_cast<uint32_t>(source.asInt()));
      } else {
        processing->using_.push_back(index);
      }
      transform = word->second;
    }
    processing->transforms.push_back(transform);
  }
  table.columnProcessing = std::move(processing);
  return 0;
}

int fetchTraceData(TraceReadContext& context) {
  QX_TRACE_NAME("%s(...)\n", "CloudHemlock::fetchTraceData");
  {
    std::lock_guard guard(context.record.lock);
    if (context.record.done || context.record.running) return 0;
  }
  return readRows(context);
}

int readRows(TraceReadContext& context) {
  CloudOperation& table = context.record;
  if (!table.columnInfo) return fail(context.lastError, -1, "Missing column information");
  if (context.trace == nullptr) return fail(context.lastError, -2, "Trace index is -1");
  {
    std::lock_guard guard(table.lock);
    if (table.running || table.done) return 0;
    table.running = true;
  }
  const size_t rowBytes = columnRowBytes(*table.columnInfo);
  const size_t validBytes = columnValidBytes(*table.columnInfo);
  const auto chunkRows = static_cast<uint32_t>(std::max(table.chunkRows, 1));
  uint32_t seek = Qx::Nlv::Trace::kSeekStart;
  bool more = true;
  while (more) {
    BlockBuffers buffers;
    if (!buffers.allocate(chunkRows, rowBytes, validBytes)) {
      QX_LOG_ERROR("%s: %s\n", "CloudHemlock::readRows", "row buffers could not be allocated");
      break;
    }
    const uint32_t rows = std::min(readBlock(*context.trace, seek, chunkRows, buffers), chunkRows);
    // A short read is the only end mark the decoder gives.
    more = rows == chunkRows && !table.stopRequested;
    if (rows > 0) {
      if (rows < chunkRows) buffers.shrink(rows, rowBytes, validBytes);
      TraceChunk chunk{table.nextIndex,
                       rows,
                       std::move(buffers.data),
                       std::move(buffers.valid),
                       std::move(buffers.positions),
                       context.trace->stringData};
      std::lock_guard guard(table.lock);
      table.chunks.push_back(std::move(chunk));
      table.nextIndex += rows;
    }
    seek = Qx::Nlv::Trace::kSeekContinue;
  }
  std::lock_guard guard(table.lock);
  table.running = false;
  table.done = true;
  return 0;
}

int getReducedGraphData(TraceReadContext& context, Json::Value& rows) {
  QX_TRACE_NAME("%s(...)\n", "CloudHemlock::getReducedGraphData");
  {
    std::lock_guard guard(context.record.lock);
    if (!context.record.done) return fail(context.lastError, -3, "Trace data reading not done");
  }
  // `chunks` no longer changes once `done` is set.
  Json::Value all(Json::arrayValue);
  for (const TraceChunk& chunk : context.record.chunks) convertRows(all, context, chunk);
  rows = std::move(all);
  return 0;
}

namespace {

// The transforms' view of one conversion call: the three name transforms
// reuse the strings of the last lookup while the value repeats.
// The remembered value starts at 1 with no strings, so a first value of 1
// answers empty names without asking.
const FunctionInfo kNoNames;
struct TransformState {
  uint64_t lastValue = 1;
  const FunctionInfo* lastInfo = &kNoNames;
};

Json::Value transformedCell(int32_t transform, uint64_t value, uint64_t rowNumber,
                            TraceReadContext& context, TransformState& state) {
  ObjectFileInfo* objectInfo = context.record.objectInfo.get();
  switch (transform) {
    case kTransformFunctionInfoIndex: {
      uint32_t index = 0;
      if (objectInfo == nullptr || !objectInfo->lookupRange(value, &index)) index = 0;
      return Json::Value(index);
    }
    case kTransformFunctionName:
    case kTransformFileName:
    case kTransformDirectoryName: {
      if (objectInfo == nullptr) return Json::Value("n/a");
      if (value != state.lastValue) {
        state.lastInfo =
            &context.caches.lookupFunctionInfo(static_cast<uint32_t>(value), objectInfo);
        state.lastValue = value;
      }
      const FunctionInfo& info = *state.lastInfo;
      return Json::Value(transform == kTransformFunctionName ? info.function
                         : transform == kTransformFileName   ? info.file
                                                             : info.directory);
    }
    case kTransformLineNumber: {
      const LineInfo& line = context.caches.lookupLine(static_cast<uint32_t>(value), objectInfo);
      if (objectInfo == nullptr || !line.found) return Json::Value(Json::nullValue);
      return Json::Value(line.line);
    }
    case kTransformRowNumber:
      return Json::Value(Json::UInt64{rowNumber});
    case kTransformTimeMs: {
      const double clockHz = context.trace != nullptr ? context.trace->clockHz : 0.0;
      if (clockHz == 0.0) return Json::Value(0.0);
      return Json::Value(static_cast<double>(value * 1000ULL) / clockHz);
    }
    default:  // disassemble: the tables disassemble themselves
      return Json::Value(Json::nullValue);
  }
}

}  // namespace

void convertRows(Json::Value& rows, TraceReadContext& context, const TraceChunk& chunk) {
  const ColumnInfo* columns = context.record.columnInfo.get();
  const ColumnProcessing* processing = context.record.columnProcessing.get();
  const uint32_t outputs = columns != nullptr && processing != nullptr ? processing->count : 0;
  const size_t rowBytes = columns != nullptr ? columnRowBytes(*columns) : 0;
  const size_t validBytes = columns != nullptr ? columnValidBytes(*columns) : 0;
  const int32_t statusColumn = columns != nullptr ? findColumn(*columns, kTraceStatusColumn) : -1;
  static const ColumnInfo kNoColumns;
  TransformState state;
  for (uint32_t r = 0; r < chunk.rows; ++r) {
    RowView row(columns != nullptr ? *columns : kNoColumns, chunk.data.data() + r * rowBytes,
                chunk.valid.data() + r * validBytes);
    Json::Value& out = rows.append(Json::Value(Json::arrayValue));
    for (uint32_t c = 0; c < outputs; ++c) {
      const uint32_t source = processing->indices[c];
      const int32_t transform = processing->transforms[c];
      if (!row.has(source)) {
        out.append(Json::Value(Json::nullValue));
      } else if (transform == kTransformNone) {
        if (columns->isString[source]) {
          out.append(stringCell(row.bytes(source), chunk.strings,
                                static_cast<int32_t>(source) == statusColumn));
        } else {
          const uint64_t value = row.value(source);
          const uint32_t size = columns->sizes[source];
          out.append(processing->formats[c] == kFormatUnsigned ? unsignedBySize(value, size)
                                                               : hexBySize(value, size));
        }
      } else {
        // Column 0 stands for "no source" in a transform: its value is 0.
        const uint64_t value = source == 0 ? 0 : row.value(source);
        out.append(transformedCell(transform, value, chunk.startIndex + r, context, state));
      }
    }
  }
}
