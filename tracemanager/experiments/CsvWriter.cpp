#include "experiments/CsvWriter.hpp"

#include <stdexcept>

namespace VSKTspServer {

CsvWriter::CsvWriter(const std::string& path, const std::vector<std::string>& header)
    : stream(path, std::ios::out | std::ios::binary | std::ios::trunc),
      columnCount(static_cast<uint32_t>(header.size())) {
  if (!stream) throw std::runtime_error("Failed to create file '" + path + "'");
  for (const auto& name : header) writeCell(name);
}

void CsvWriter::writeCell(const char* text, size_t length) {
  const std::string_view cell(text, length);
  if (!cell.empty() && cell.find_first_of(",\"\r\n") != std::string_view::npos) {
    stream.put('"');
    size_t begin = 0;
    for (size_t quote = cell.find('"'); quote != std::string_view::npos;
         quote = cell.find('"', begin)) {
      stream.write(cell.data() + begin, static_cast<std::streamsize>(quote + 1 - begin));
      stream.put('"');
      begin = quote + 1;
    }
    stream.write(cell.data() + begin, static_cast<std::streamsize>(cell.size() - begin));
    stream.put('"');
  } else {
    stream.write(cell.data(), static_cast<std::streamsize>(cell.size()));
  }
  if (++column != columnCount) {
    stream.put(',');
  } else {
    column = 0;
    stream.write("\r\n", 2);
  }
}

}  // namespace VSKTspServer
