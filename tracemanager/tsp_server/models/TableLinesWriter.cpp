#include "tsp_server/models/TableLinesWriter.hpp"

#include <charconv>
#include <string_view>

namespace VSKTspServer {

namespace {

using namespace std::string_view_literals;

template <typename Int>
void appendInt(std::string& out, Int value) {
  char digits[24];
  auto [end, ec] = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, end);
}

// Text that needs no escape and no UTF-8 check: printable ASCII without the
// quote and the backslash.
bool isPlain(const std::string& text) {
  for (unsigned char c : text) {
    if (c < 0x20 || c >= 0x80 || c == '"' || c == '\\') return false;
  }
  return true;
}

}  // namespace

void appendJsonString(std::string& out, const std::string& text) {
  if (isPlain(text)) {
    out += '"';
    out += text;
    out += '"';
    return;
  }
  // Escapes and UTF-8 validation exactly as the JSON library does them,
  // including its exception for invalid bytes.
  out += nlohmann::json(text).dump();
}

void appendJsonInt(std::string& out, int64_t value) { appendInt(out, value); }

void appendTableLinesHead(std::string& out, const std::vector<int64_t>& columnIds) {
  out += R"({"model":{"columnIds":[)"sv;
  for (size_t i = 0; i < columnIds.size(); ++i) {
    if (i) out += ',';
    appendInt(out, columnIds[i]);
  }
  out += R"(],"lines":[)"sv;
}

void appendTableLinesTail(std::string& out, int64_t lowIndex, int64_t size,
                          const std::string& status, const std::string& statusMessage) {
  out += R"(],"lowIndex":)"sv;
  appendInt(out, lowIndex);
  out += R"(,"size":)"sv;
  appendInt(out, size);
  out += R"(},"status":)"sv;
  appendJsonString(out, status);
  out += R"(,"statusMessage":)"sv;
  appendJsonString(out, statusMessage);
  out += '}';
}

std::string writeTableLinesResponse(const TableLinesResponse& response) {
  const TableLinesModel& model = response.model;
  std::string out;
  size_t cellCount = 0;
  for (const auto& line : model.lines) cellCount += line.cells.size();
  out.reserve(128 + model.columnIds.size() * 4 + model.lines.size() * 40 + cellCount * 32);

  appendTableLinesHead(out, model.columnIds);
  for (size_t l = 0; l < model.lines.size(); ++l) {
    const TableLine& line = model.lines[l];
    if (l) out += ',';
    out += R"({"cells":[)"sv;
    for (size_t c = 0; c < line.cells.size(); ++c) {
      if (c) out += ',';
      out += R"({"content":)"sv;
      appendJsonString(out, line.cells[c].content);
      out += R"(,"tags":)"sv;
      appendInt(out, line.cells[c].tags);
      out += '}';
    }
    out += R"(],"index":)"sv;
    appendInt(out, line.index);
    out += R"(,"tags":)"sv;
    appendInt(out, line.tags);
    out += '}';
  }
  appendTableLinesTail(out, model.lowIndex, model.size, response.status,
                       response.statusMessage);
  return out;
}

}  // namespace VSKTspServer
