#include "MTBTable.hpp"

#include <algorithm>
#include <stdexcept>

#include "Logger.hpp"
#include "TableText.hpp"

namespace VSKTspServer {

using nlohmann::json;
using table_text::memberOrNull;
using table_text::optionalString;
using table_text::trimLeft;

namespace {

// The instruction's sequence number in decimal. A float is truncated to an
// unsigned integer; a negative float (never written) gives 0.
std::string seqText(const json& seq) {
  if (seq.is_null()) return {};
  if (seq.is_number_unsigned()) return std::to_string(seq.get<uint64_t>());
  if (seq.is_number_integer()) return std::to_string(seq.get<int64_t>());
  if (seq.is_number_float()) {
    const double value = seq.get<double>();
    return std::to_string(value <= 0 ? uint64_t{0} : static_cast<uint64_t>(value));
  }
  // Not a number: the library's own type error 302.
  return std::to_string(seq.get<int64_t>());
}

}  // namespace

MTBTable::MTBTable(json* document) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::MTBTable::MTBTable");
  const char* names[] = {"Seq.", "Discontinuity", "PC",  "Function", "File",
                         "Line", "Source",        "Asm", "Dir"};
  for (int64_t id = 0; id < 9; ++id) {
    TableColumn column;
    column.id = id;
    column.name = names[id];
    columns.push_back(std::move(column));
  }
  setData(document);
}

void MTBTable::setData(json* document) {
  data = document;
  rows.clear();
  if (!data) return;
  const json& code = memberOrNull(*data, "code");
  if (code.is_null()) return;
  if (!code.is_array()) throw std::runtime_error("MTB document: \"code\" is not an array");
  for (size_t i = 0; i < code.size(); ++i) {
    const auto run = static_cast<int64_t>(i);
    if (!expandRuns) {
      rows.emplace_back(run, 0);
      continue;
    }
    const json& instructions = code[i];
    if (!instructions.is_array()) (void)instructions[0];  // type error 305
    for (size_t j = 0; j < instructions.size(); ++j) {
      rows.emplace_back(run, static_cast<int64_t>(j));
    }
  }
  if (reversed) std::reverse(rows.begin(), rows.end());
}

ColumnsResponse MTBTable::getColumns(std::string) {
  ColumnsResponse response;
  response.status = kStatusCompleted;
  response.model = columns;
  return response;
}

TableLine MTBTable::makeLine(int64_t index, int64_t run, int64_t instruction) const {
  const json& doc = *data;
  // const operator[] on a non-array throws type error 305; at() guards the
  // bounds, so a `data` shorter than `code` fails cleanly.
  const json& runs = memberOrNull(doc, "data");
  const json& code = memberOrNull(doc, "code");
  if (!runs.is_array()) (void)runs[0];
  if (!code.is_array()) (void)code[0];
  const json& d = runs.at(static_cast<size_t>(run));
  const json& c = code.at(static_cast<size_t>(run)).at(static_cast<size_t>(instruction));
  if (!d.is_object()) (void)d["dir"];  // type error 305
  if (!c.is_object()) (void)c["seq"];

  const std::string dir = optionalString(d, "dir");
  const std::string function = optionalString(d, "function");
  const std::string file = optionalString(d, "file");
  const std::string first = optionalString(d, "first");
  (void)optionalString(d, "last");  // type-checked, shown nowhere
  const std::string seq = seqText(memberOrNull(c, "seq"));
  const std::string addr = optionalString(c, "addr");
  const std::string src = optionalString(c, "src");
  const std::string assembly = optionalString(c, "asm");
  const json& lno = memberOrNull(c, "lno");

  TableLine line;
  line.index = index;
  line.cells.resize(9);
  line.cells[0].content = seq;
  if (instruction == 0 && !first.empty()) line.cells[1].content = "=>";
  line.cells[2].content = addr;
  line.cells[3].content = function;
  line.cells[4].content = file;
  // The line number as compact JSON text, whatever its type: strings keep
  // their quotes, so an unknown line shows "n/a" with them.
  if (!lno.is_null() || c.contains("lno")) line.cells[5].content = lno.dump();
  line.cells[6].content = trimLeft(src);
  line.cells[7].content = trimLeft(assembly);
  line.cells[8].content = dir;
  return line;
}

TableLinesResponse MTBTable::getLines(TableLinesRequest request) {
  TableLinesResponse response;
  response.status = kStatusCompleted;
  auto& model = response.model;
  for (const auto& column : columns) model.columnIds.push_back(column.id);
  const auto total = static_cast<int64_t>(rows.size());
  const auto [low, high] = table_text::lineRange(request.requested_table_index,
                                                 request.requested_table_count, total);
  model.size = total;
  model.lowIndex = low;
  model.lines.reserve(static_cast<size_t>(high - low));
  for (int64_t k = low; k < high; ++k) {
    const auto& [run, instruction] = rows[static_cast<size_t>(k)];
    model.lines.push_back(makeLine(k, run, instruction));
  }
  return response;
}

}  // namespace VSKTspServer
