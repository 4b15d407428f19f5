// The two instruction trace readers: branch trace (MTB) into runs of code,
// and instruction trace (ETB) into one record per instruction.
//
// decodeMTBTrace: one read of up to 16384 rows. A row with a "Read Address"
// or a "Write Address" opens a run, filled in by disassembling its address
// range; any other row is an instruction of the current run. `compact`
// keeps only the first and last instruction row of a run. The document has
// `header`, `data` (one object per run) and `code` (the run's lines).
//
// decodeETBTrace: all rows by blocks of 32768. Run rows go to `data` with an
// empty `code` entry each; every instruction row becomes one record in
// `store`, which is emptied first.
//
// Both empty the lookup caches first and answer 0; failures of single
// lookups are not fatal.
//
// Threads: the caller holds the tool mutex; the store guards itself.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>

#include "experiments/EtbRecordStore.hpp"
#include "tool_access/TraceTableReader.hpp"

inline constexpr uint32_t kMtbBufferRows = 16384;

// The columns both readers act on, found by their titles; -1 for a column
// the table does not have, which then has no value in any row.
struct InstructionColumns {
  ColumnInfo info;
  int32_t readAddress = -1;
  int32_t writeAddress = -1;
  int32_t programAddress = -1;
  int32_t programData = -1;
  int32_t cycles = -1;

  // The decoder's column description; false when it has none.
  bool read(CTRACE& trace);
};

// The instruction part of a disassembled line: from its first run of four
// blanks (which follows the address and opcode fields) to its end. A line
// without such a run is kept whole.
std::string mtbInstructionText(const std::string& text);

int decodeMTBTrace(TraceReadContext& context, uint32_t& count, Json::Value& data, bool compact);
int decodeETBTrace(TraceReadContext& context, uint32_t& count, Json::Value& data,
                   VSKTspServer::EtbRecordStore& store);
