// The column model shared by the trace table readers, around the records
// ColumnInfo, ColumnProcessing and TraceChunk: the words of formats and
// transforms, the roles' column titles, the reading of one row by the
// column layout and the text forms of values.
//
// Rows are never read through a fixed layout: every value is found by the
// offset and size the decoder reported for its column, and whether it is
// there at all by the column's valid bit.
//
// Threads: none of its own; plain functions and constant tables.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tool_access/ColumnInfo.hpp"
#include "tool_access/ColumnProcessing.hpp"
#include "tool_access/TraceChunk.hpp"

inline constexpr int32_t kTraceChunkRows = 32768;

// Bytes of one row: the end of the last column.
inline uint32_t columnRowBytes(const ColumnInfo& columns) {
  return columns.count == 0 ? 0 : columns.offsets.back() + columns.sizes.back();
}
inline uint32_t columnValidBytes(const ColumnInfo& columns) { return (columns.count + 7) / 8; }
// The position of the column titled `name`, or -1.
int32_t findColumn(const ColumnInfo& columns, const std::string& name);

enum ColumnFormat : uint32_t { kFormatUnsigned = 0, kFormatHex = 1, kFormatDefault = 2 };
enum ColumnTransform : int32_t {
  kTransformFunctionInfoIndex = 0,
  kTransformFunctionName = 1,
  kTransformFileName = 2,
  kTransformDirectoryName = 3,
  kTransformDisassemble = 4,
  kTransformLineNumber = 5,
  kTransformRowNumber = 6,
  kTransformTimeMs = 7,
  kTransformNone = 8,
};
inline constexpr uint32_t kDataTypeDefault = 2;

const std::map<std::string, uint32_t>& formatNames();
const std::map<std::string, uint32_t>& dataTypeNames();
const std::map<std::string, int32_t>& transformNames();

// Address values with a meaning of their own in branch and instruction
// trace rows.
inline constexpr uint32_t kNoAddress = 0xFFFFFFFF;
inline constexpr uint32_t kSecureAddress = 0xFFFFBAD1;

// The column titles the readers act on, compared exactly.
inline constexpr const char* kReadAddressColumn = "Read Address";
inline constexpr const char* kWriteAddressColumn = "Write Address";
inline constexpr const char* kProgramAddressColumn = "Program Address";
inline constexpr const char* kProgramDataColumn = "Program Data";
inline constexpr const char* kCyclesColumn = "Cycles";
inline constexpr const char* kTraceStatusColumn = "Trace Status";

// One row of a block, read by the column layout.
class RowView {
 public:
  RowView(const ColumnInfo& columns, const uint8_t* data, const uint8_t* valid)
      : columns_(columns), data_(data), valid_(valid) {}

  // A column that does not exist (index -1 or past the end) has no value.
  bool has(int64_t column) const {
    return column >= 0 && column < columns_.count && (valid_[column / 8] >> (column % 8) & 1) != 0;
  }
  // The little-endian value of the column's size (see readColumnValue).
  uint64_t value(uint32_t column) const {
    return readColumnValue(data_ + columns_.offsets[column], columns_.sizes[column]);
  }
  const uint8_t* bytes(uint32_t column) const { return data_ + columns_.offsets[column]; }

  // Sizes 1, 2, 4 and 8 are plain little-endian numbers, and so is a
  // 6-byte value (48 bits); any other size reads as 0.
  static uint64_t readColumnValue(const uint8_t* bytes, uint32_t size);

 private:
  const ColumnInfo& columns_;
  const uint8_t* data_;
  const uint8_t* valid_;
};

// Text forms of a value by its size: upper-case hexadecimal of 2, 4, 8 or
// 16 digits ("Illegal width" for other sizes), unsigned decimal, and the
// raw opcode form of the instruction readers (16 digits in lower case,
// "n/a" for other sizes).
std::string hexBySize(uint64_t value, uint32_t size);
std::string unsignedBySize(uint64_t value, uint32_t size);
std::string opcodeBySize(uint64_t value, uint32_t size);
// "%08X".
std::string hex8(uint32_t value);
