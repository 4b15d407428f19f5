// RowTable: the neutral row model every decoder of the simulation fills and
// the channel layer hands out: columns with a name, a bit width and a string
// flag, and rows in which each column has a value or none.
//
// A numeric value is up to 64 bits; a string column's value is text.
// packBlock() lays rows out in the row block form the module reads: per row
// the columns in order at their byte offsets, little-endian (a string as a
// 32-bit offset into the block's string data and a 16-bit length), then per
// row (columns + 7) / 8 valid bytes, bit (index % 8) of byte (index / 8).
//
// Not thread-safe; filled by one decoder, then read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace OstrandSim {

// Titles the module's readers act on.
inline constexpr const char* kReadAddress = "Read Address";
inline constexpr const char* kWriteAddress = "Write Address";
inline constexpr const char* kProgramAddress = "Program Address";
inline constexpr const char* kProgramData = "Program Data";
inline constexpr const char* kCycles = "Cycles";
inline constexpr const char* kTraceStatus = "Trace Status";

// Address values with a meaning of their own.
inline constexpr uint32_t kNoAddress = 0xFFFFFFFFu;
inline constexpr uint32_t kSecureAddress = 0xFFFFBAD1u;

struct Column {
  std::string name;
  uint32_t bitWidth = 32;  // 48 for a string column
  bool isString = false;
};

// Bytes a value of `bitWidth` takes in a row: 1, 2, 4 or 8; 6 for a string.
uint32_t columnBytes(const Column& column);

class RowTable {
 public:
  explicit RowTable(std::vector<Column> columns);

  const std::vector<Column>& columns() const { return columns_; }
  // Index of the column titled `name`, or -1.
  int columnIndex(const std::string& name) const;
  size_t rowCount() const { return rowCount_; }
  uint32_t rowBytes() const { return rowBytes_; }
  const std::vector<uint32_t>& offsets() const { return offsets_; }

  // Appends a row with no values; returns its index.
  size_t addRow();
  void set(size_t row, int column, uint64_t value);
  void setText(size_t row, int column, const std::string& text);
  bool has(size_t row, int column) const;
  std::optional<uint64_t> value(size_t row, int column) const;
  std::string text(size_t row, int column) const;

  // Rows [first, first + count) (cut at the end) as a row block; returns
  // the number of rows laid out. `strings` is replaced.
  size_t packBlock(size_t first, size_t count, std::vector<uint8_t>& data,
                   std::vector<uint8_t>& valid, std::string& strings) const;

 private:
  std::vector<Column> columns_;
  std::vector<uint32_t> offsets_;
  uint32_t rowBytes_ = 0;
  size_t rowCount_ = 0;
  std::vector<uint64_t> values_;   // rowCount_ x columns
  std::vector<uint64_t> validBits_;  // one word per row (at most 64 columns)
  std::vector<std::string> texts_;  // string values, indexed by the cell's value
};

}  // namespace OstrandSim
