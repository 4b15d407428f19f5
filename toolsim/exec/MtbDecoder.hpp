// MtbDecoder: turns the contents of a Micro Trace Buffer (the SRAM bytes
// with POSITION and WRAP) into rows of the column model.
//
// Packets are read oldest first: from POSITION to the end and then from 0
// when WRAP is set, else from 0 to POSITION. Each stretch of sequential code
// between two discontinuities becomes a run row: "Read Address" its first
// instruction (a branch destination), "Write Address" its last (the source
// of the next branch; for an exception entry, the instruction before the
// preempted one). A run whose end the buffer does not hold (the newest, and
// one cut by a trace restart) has no-address (0xFFFFFFFF) there; the oldest
// run, whose start lies before the buffer, has no-address as its first.
// With hierarchical decode each run row is followed by one instruction row
// per executed instruction ("Program Address", "Program Data": the opcode
// from the program image). At most `maxRows` rows.
//
// Pure function of its inputs; thread-safe.
#pragma once

#include <cstddef>
#include <vector>

#include "MtbEncoder.hpp"
#include "ProgramImage.hpp"
#include "RowTable.hpp"

namespace OstrandSim {

inline constexpr size_t kMtbMaxRows = 16384;

struct MtbDecodeOptions {
  bool hierarchical = true;
  size_t maxRows = kMtbMaxRows;
};

// Columns: Read Address, Write Address, Program Address, Program Data.
std::vector<Column> mtbColumns();

// `image` may be null: then runs ending at an exception entry have no last
// address, and no instruction rows are made.
RowTable decodeMtb(const MtbSnapshot& trace, const ProgramImage* image,
                   const MtbDecodeOptions& options = {});

}  // namespace OstrandSim
