// ColumnInfo: the decoder's columns of one trace table, as the trace
// application reads them (names, byte sizes, string flags, offsets in a row,
// the library's ids). Plain record, owned by its CloudOperation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct ColumnInfo {
  uint32_t count = 0;
  std::vector<std::string> names;
  std::vector<uint32_t> sizes;
  std::vector<bool> isString;
  std::vector<uint32_t> offsets;
  std::vector<uint32_t> ids;
};
