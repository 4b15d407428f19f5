// EtmDecoder: decodes an ETMv4 instruction trace stream with OpenCSD, the
// program image given to it from the ELF's loadable segments, into rows of
// the column model.
//
// Rows: per stretch of sequential execution, a run row ("Read Address" its
// first instruction, "Write Address" its last), then one instruction row
// per instruction ("Program Address", "Program Data": the opcode, "Cycles":
// the cycle count the trace gives for the stretch that ends there). A
// stretch ends at every discontinuity: a taken branch, an exception, a gap
// in the trace. Decoding starts at the first sync in the bytes.
//
// Pure function of its inputs; thread-safe (one OpenCSD tree per call).
// Throws std::runtime_error with OpenCSD's text when the library refuses
// the configuration; damaged trace ends the rows where it lies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "EtmEncoder.hpp"
#include "ProgramImage.hpp"
#include "RowTable.hpp"

namespace OstrandSim {

// Columns: Read Address, Write Address, Program Address, Program Data, Cycles.
std::vector<Column> etmColumns();

struct EtmDecodeStats {
  uint64_t instructions = 0;
  uint64_t ranges = 0;
  uint64_t exceptions = 0;
  uint64_t cycleCounts = 0;
};

RowTable decodeEtm(const EtmSnapshot& trace, const ProgramImage& image,
                   EtmDecodeStats* stats = nullptr, size_t maxRows = SIZE_MAX);

// Only OpenCSD's decode: the number of instruction ranges it reports, no
// rows (the baseline of the decoder's benchmark).
uint64_t decodeEtmRangesOnly(const EtmSnapshot& trace, const ProgramImage& image);

}  // namespace OstrandSim
