// ColumnProcessing: how each output column of a trace table is made from
// the decoder's columns (source index, format, transform). Plain record,
// owned by its CloudOperation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct ColumnProcessing {
  uint32_t count = 0;
  std::vector<std::string> names;
  std::vector<uint32_t> indices;
  std::vector<uint32_t> dataTypes;
  std::vector<uint32_t> formats;
  std::vector<int32_t> transforms;
  std::vector<uint32_t> using_;  // source columns of all transforms, in order
};
