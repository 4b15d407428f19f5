// ColumnRecord: the description of one decoded column as CTRACE keeps it:
// the library's id and width, where the value stands in a row, and which
// valid bit says that it has one.
#pragma once

#include <cstdint>
#include <string>

struct ColumnRecord {
  uint32_t id = 0;
  uint32_t bitWidth = 0;  // 48 for a string column
  std::string name;
  uint32_t offset = 0;  // byte offset in a row
  uint32_t size = 0;    // bytes of the value; 6 for a string column
  uint64_t valueMask = 0;
  uint32_t validByte = 0;
  uint8_t validBit = 0;
  bool isString = false;  // the cell refers into the strings of the row block
  std::string text1;      // held only
  std::string text2;      // held only
  std::string sizeText;   // "Size = %d"
};
