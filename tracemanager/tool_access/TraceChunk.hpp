// TraceChunk: one block of decoded rows as the decoder handed it out (row
// data, valid bits, positions) with a copy of its strings. Plain record,
// owned by its CloudOperation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct TraceChunk {
  uint64_t startIndex = 0;
  uint32_t rows = 0;
  std::vector<uint8_t> data;
  std::vector<uint8_t> valid;
  std::vector<uint8_t> positions;  // 16 bytes per row, kept unread
  std::string strings;
};
