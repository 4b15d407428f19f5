// CsvWriter: the one writer of comma-separated files.
//
// Every row, the header included, has exactly `columnCount` cells separated
// by "," and ends in CR LF, also the last one. Rows end by count: there is no
// end-of-row call, so a caller must give exactly `columnCount` cells per row.
// A cell that holds a comma, a double quote, CR or LF is quoted, with inner
// quotes doubled; every other cell, the empty one included, is written as
// is. Bytes go out unchanged: no byte order mark, no conversion.
//
// Owned by one thread, its caller. The constructor throws std::runtime_error
// when the file cannot be created; a write error later on puts the stream
// into its failed state and the remaining writes do nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace VSKTspServer {

class CsvWriter {
 public:
  CsvWriter(const std::string& path, const std::vector<std::string>& header);
  CsvWriter(const CsvWriter&) = delete;
  CsvWriter& operator=(const CsvWriter&) = delete;
  ~CsvWriter() = default;  // closes the file

  void writeCell(const char* text, size_t length);
  void writeCell(std::string_view text) { writeCell(text.data(), text.size()); }

 private:
  std::ofstream stream;
  uint32_t columnCount = 0;
  uint32_t column = 0;
};

}  // namespace VSKTspServer
