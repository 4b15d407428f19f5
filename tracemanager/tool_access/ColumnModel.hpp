// The column model shared by the trace table readers: what the decoder says
// about its columns (ColumnInfo), what a caller wants out of them
// (ColumnProcessing), the row blocks read so far (TraceChunk), and the
// reading state of one operation record (TraceTableState).
//
// Rows are never read through a fixed layout: every value is found by the
// offset and size the decoder reported for its column, and whether it is
// there at all by the column's valid bit.
//
// Threads: a TraceTableState belongs to one operation record. `lock` guards
// the flags and `chunks`; `stopRequested` may be set from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct ColumnInfo {
  uint32_t count = 0;
  std::vector<std::string> names;
  std::vector<uint32_t> sizes;  // bytes of a value; 6 for a string reference
  std::vector<bool> isString;
  std::vector<uint32_t> offsets;  // byte offset of the value in a row
  std::vector<uint32_t> ids;

  // Bytes of one row: the end of the last column.
  uint32_t rowBytes() const { return count == 0 ? 0 : offsets.back() + sizes.back(); }
  uint32_t validBytes() const { return (count + 7) / 8; }
  // The position of the column titled `name`, or -1.
  int32_t find(const std::string& name) const;
};

// Output columns, in output order.
struct ColumnProcessing {
  uint32_t count = 0;
  std::vector<std::string> names;
  std::vector<uint32_t> indices;    // source column in ColumnInfo
  std::vector<uint32_t> dataTypes;  // held only
  std::vector<uint32_t> formats;    // a value of formatNames()
  std::vector<int32_t> transforms;  // a value of transformNames(); kTransformNone for none
  std::vector<uint32_t> usingColumns;  // source columns of all transforms, held only
};

// One block of rows as the decoder delivered it.
struct TraceChunk {
  uint64_t startIndex = 0;
  uint32_t rows = 0;
  std::vector<uint8_t> data;
  std::vector<uint8_t> valid;
  std::vector<uint8_t> positions;  // 16 bytes per row, never read
  std::string strings;             // the decoder's strings after this block
};

// The reading state of one operation record. One way only: no columns,
// columns known, processing set, running, done.
struct TraceTableState {
  static constexpr int32_t kChunkRows = 32768;

  std::unique_ptr<ColumnInfo> columnInfo;
  std::unique_ptr<ColumnProcessing> columnProcessing;
  int32_t chunkRows = kChunkRows;
  uint64_t nextIndex = 0;
  bool running = false;  // guarded by lock
  bool done = false;     // guarded by lock; never falls back
  std::atomic<bool> stopRequested{false};
  std::mutex lock;  // guards running, done and chunks
  std::vector<TraceChunk> chunks;
};

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
    return column >= 0 && column < columns_.count &&
           (valid_[column / 8] >> (column % 8) & 1) != 0;
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
