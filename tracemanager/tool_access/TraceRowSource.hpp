// TraceRowSource: what the trace table readers need of one decoder instance.
//
// The readers ask for the column description, read blocks of rows in the
// decoder's row-block format (columns at their offsets, little-endian; the
// valid bits per row; 16 bytes of position per row), and take the block's
// strings before the next read replaces them. A failure of the decoder is a
// short read: DecodeTraceData gives fewer rows than asked, never throws.
//
// Threads: one caller at a time, as the decoder it stands for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "trace/CpuInfo.hpp"

class TraceRowSource {
 public:
  virtual ~TraceRowSource() = default;

  // 0 without a decoder.
  virtual uint32_t getColumnCount() = 0;
  // False without a decoder; the arrays then stay as they were.
  virtual bool readColumnInfo(std::vector<std::string>& names, std::vector<uint32_t>& sizes,
                              std::vector<bool>& isString, std::vector<uint32_t>& offsets,
                              std::vector<uint32_t>& ids) = 0;
  // Rows read into the three buffers, each sized for `numberOfSamples` rows.
  virtual uint32_t DecodeTraceData(uint32_t seekPosition, double percentage,
                                   const Qx::Nlv::Trace::TracePosition& position,
                                   uint32_t numberOfSamples, uint8_t* dataBuffer,
                                   uint8_t* validBuffer,
                                   Qx::Nlv::Trace::TracePosition* tracePositionBuffer) = 0;
  // The strings of the last block read.
  virtual const std::string& stringData() const = 0;
  // Trace timing clock in hertz, 0 if unknown.
  virtual double clockHz() const = 0;
};
