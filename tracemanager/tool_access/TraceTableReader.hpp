// The generic reading of a decoded trace table: the column description, the
// choice of output columns, the read of all rows by blocks, and their
// conversion to JSON cells.
//
// These are operations of the tool gate on one operation record; the gate
// finds the record and hands its parts in as a TraceReadContext. Each
// answers 0 or a negative code with the reason in `lastError`.
//
// Threads: the caller holds the tool mutex; the read runs on the caller's
// thread. `stopRequested` of the state, set from elsewhere, ends a read
// after the block under way.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <string>

#include "tool_access/CloudOperation.hpp"
#include "tool_access/ColumnModel.hpp"
#include "tool_access/TraceLookupCaches.hpp"

class CTRACE;

// One operation record with its decoder (the trace application in the
// record's slot; null while it has none), and the gate's caches and error
// text.
struct TraceReadContext {
  CloudOperation& record;
  CTRACE* trace;
  TraceLookupCaches& caches;
  std::string& lastError;
};

// 0, or -3 "Invalid column info error" when the decoder has no columns.
int readTraceColumnNames(CloudOperation& record, CTRACE& trace, std::string& lastError);

// 0; -3 when `columns` is not an array; -4 for an unknown format or
// transform word. On failure the state keeps its earlier processing.
int setupColumnProcessing(CloudOperation& record, const Json::Value& columns,
                          std::string& lastError);

// Reads every row, unless a read is under way or has ended.
int fetchTraceData(TraceReadContext& context);

// The read itself: 0; -1 without column information; -2 without a trace
// application. Ends with `done` set, also after a failed allocation.
int readRows(TraceReadContext& context);

// All rows read, as one array of arrays of cells. -3 "Trace data reading
// not done" before the read has ended; `rows` is then untouched.
int getReducedGraphData(TraceReadContext& context, Json::Value& rows);

// Appends the rows of one block to `rows`, one array per row with one cell
// per output column.
void convertRows(Json::Value& rows, TraceReadContext& context, const TraceChunk& chunk);
