// readTdfTable: any decoded trace table as a document of text cells, the
// `Columns` and `Rows` of a generic table.
//
// Every column of the decoder (or of the processing already set) comes out
// with the format "default". A table with a "Program Address" column gets
// three more columns, "Function", "File" and "Dir", from the symbols of the
// program; `findProgram` is then called first, so that the gate can attach
// the program of the trace's device to the record when it has none.
//
// Failures after the record was found are thrown as std::runtime_error
// ("readTraceColumnNames failed: ", "setupColumnProcessing failed: ",
// "fetchTraceData failed: ", "getReducedGraphData failed: " with the last
// error). A program address of 0x80000000 or above does not fit the signed
// number the address is parsed into and ends the call with
// std::out_of_range.
//
// Threads: the caller holds the tool mutex.
#pragma once

#include <json/json.h>

#include <functional>

#include "tool_access/TraceTableReader.hpp"

int readTdfTable(TraceReadContext& context, Json::Value& data,
                 const std::function<void()>& findProgram);
