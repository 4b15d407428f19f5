#include "experiments/MTBTable.hpp"

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "experiments/TableText.hpp"
#include "source_utilities/Logger.hpp"
#include "tsp_server/models/TableLinesWriter.hpp"

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

// The cells of one run and of one instruction, read once for both the
// model's lines and the written text, so the two cannot drift apart. Keys
// are read in a fixed order, so a document with several bad keys fails on
// the same one either way.
struct RunCells {
  std::string function, file, dir;
  bool arrow = false;  // a non-empty `first`: the run's first line shows "=>"
};

RunCells readRun(const json& d) {
  RunCells cells;
  cells.dir = optionalString(d, "dir");
  cells.function = optionalString(d, "function");
  cells.file = optionalString(d, "file");
  cells.arrow = !optionalString(d, "first").empty();
  (void)optionalString(d, "last");  // type-checked, shown nowhere
  return cells;
}

struct RowCells {
  std::string seq, addr, lno, src, assembly;
};

RowCells readRow(const json& c) {
  RowCells cells;
  cells.seq = seqText(memberOrNull(c, "seq"));
  cells.addr = optionalString(c, "addr");
  cells.src = trimLeft(optionalString(c, "src"));
  cells.assembly = trimLeft(optionalString(c, "asm"));
  // The line number as compact JSON text, whatever its type: strings keep
  // their quotes, so an unknown line shows "n/a" with them.
  const json& lno = memberOrNull(c, "lno");
  if (!lno.is_null() || c.contains("lno")) cells.lno = lno.dump();
  return cells;
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
  text.clear();
  text.shrink_to_fit();
  runText.clear();
  runText.shrink_to_fit();
  rowText.clear();
  rowText.shrink_to_fit();
  textCode = nullptr;
  if (!data) return;
  const json& code = memberOrNull(*data, "code");
  if (code.is_null()) return;
  if (!code.is_array()) throw std::runtime_error("MTB document: \"code\" is not an array");
  for (size_t i = 0; i < code.size(); ++i) {
    const auto run = static_cast<int64_t>(i);
    if (!expandRows) {
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
  writeText();
}

namespace {

// Appends each text escaped as a JSON string and records its length; false
// (with `out` as it was) when a text is not UTF-8 or too long to record.
template <size_t N>
bool appendEscaped(std::string& out, uint16_t (&length)[N],
                   std::initializer_list<const std::string*> texts) {
  const size_t start = out.size();
  size_t i = 0;
  try {
    for (const std::string* t : texts) {
      const size_t before = out.size();
      appendJsonString(out, *t);
      const size_t n = out.size() - before;
      if (n > std::numeric_limits<uint16_t>::max()) {
        out.resize(start);
        return false;
      }
      length[i++] = static_cast<uint16_t>(n);
    }
  } catch (const json::exception&) {
    out.resize(start);
    return false;
  }
  return true;
}

}  // namespace

// Every line gets the text that makeLine and the writer would give it, made
// by the same readers; a line where they would throw gets none.
void MTBTable::writeText() {
  const json& runs = memberOrNull(*data, "data");
  const json& code = memberOrNull(*data, "code");
  if (!runs.is_array() || !code.is_array()) return;
  textCode = &code;
  textCodeSize = code.size();
  textRunsSize = runs.size();

  runText.resize(code.size());
  for (size_t r = 0; r < code.size() && r < runs.size(); ++r) {
    const json& d = runs[r];
    if (!d.is_object()) continue;
    RunText entry;
    try {
      const RunCells cells = readRun(d);
      entry.at = text.size();
      if (!appendEscaped(text, entry.length, {&cells.function, &cells.file, &cells.dir})) continue;
      entry.arrow = cells.arrow;
    } catch (const json::exception&) {
      continue;
    }
    runText[r] = entry;
  }

  rowText.resize(rows.size());
  for (size_t k = 0; k < rows.size(); ++k) {
    const auto [run, instruction] = rows[k];
    if (runText[static_cast<size_t>(run)].at == kNoText) continue;
    const json& instructions = code[static_cast<size_t>(run)];
    if (!instructions.is_array() || static_cast<size_t>(instruction) >= instructions.size())
      continue;
    const json& c = instructions[static_cast<size_t>(instruction)];
    if (!c.is_object()) continue;
    RowText entry;
    try {
      const RowCells cells = readRow(c);
      entry.at = text.size();
      if (!appendEscaped(text, entry.length,
                         {&cells.seq, &cells.addr, &cells.lno, &cells.src, &cells.assembly}))
        continue;
    } catch (const json::exception&) {
      continue;
    }
    rowText[k] = entry;
  }
  text.shrink_to_fit();
}

bool MTBTable::textIsCurrent() const {
  if (!data || !textCode) return false;
  const json& runs = memberOrNull(*data, "data");
  const json& code = memberOrNull(*data, "code");
  return &code == textCode && code.is_array() && code.size() == textCodeSize &&
         runs.is_array() && runs.size() == textRunsSize;
}

ColumnsResponse MTBTable::getColumns(std::string) {
  return table_text::completedColumns(columns);
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

  RunCells r = readRun(d);
  RowCells row = readRow(c);

  TableLine line;
  line.index = index;
  line.cells.resize(9);
  line.cells[0].content = std::move(row.seq);
  if (instruction == 0 && r.arrow) line.cells[1].content = "=>";
  line.cells[2].content = std::move(row.addr);
  line.cells[3].content = std::move(r.function);
  line.cells[4].content = std::move(r.file);
  line.cells[5].content = std::move(row.lno);
  line.cells[6].content = std::move(row.src);
  line.cells[7].content = std::move(row.assembly);
  line.cells[8].content = std::move(r.dir);
  return line;
}

TableLinesResponse MTBTable::getLines(TableLinesRequest request) {
  TableLinesResponse response;
  auto& model = response.model;
  const auto [low, high] =
      table_text::frameLines(response, columns, request, static_cast<int64_t>(rows.size()));
  model.lines.reserve(static_cast<size_t>(high - low));
  for (int64_t k = low; k < high; ++k) {
    const auto& [run, instruction] = rows[static_cast<size_t>(k)];
    model.lines.push_back(makeLine(k, run, instruction));
  }
  return response;
}

bool MTBTable::writeLines(const TableLinesRequest& request, std::string& out) {
  const auto total = static_cast<int64_t>(rows.size());
  const auto [low, high] = table_text::lineRange(request.requested_table_index,
                                                 request.requested_table_count, total);
  if (high > low && !textIsCurrent()) return false;
  for (int64_t k = low; k < high; ++k) {
    const auto run = static_cast<size_t>(rows[static_cast<size_t>(k)].first);
    if (rowText[static_cast<size_t>(k)].at == kNoText || runText[run].at == kNoText) return false;
  }

  using namespace std::string_view_literals;
  constexpr std::string_view kNext = R"(,"tags":0},{"content":)"sv;
  out.reserve(out.size() + 160 + static_cast<size_t>(high - low) * 420);
  std::vector<int64_t> columnIds;
  for (const auto& column : columns) columnIds.push_back(column.id);
  appendTableLinesHead(out, columnIds);
  for (int64_t k = low; k < high; ++k) {
    const auto& [run, instruction] = rows[static_cast<size_t>(k)];
    const RowText& row = rowText[static_cast<size_t>(k)];
    const RunText& r = runText[static_cast<size_t>(run)];
    const char* rowAt = text.data() + row.at;
    const char* runAt = text.data() + r.at;
    const std::string_view seq(rowAt, row.length[0]);
    const std::string_view addr(seq.data() + seq.size(), row.length[1]);
    const std::string_view lno(addr.data() + addr.size(), row.length[2]);
    const std::string_view src(lno.data() + lno.size(), row.length[3]);
    const std::string_view assembly(src.data() + src.size(), row.length[4]);
    const std::string_view function(runAt, r.length[0]);
    const std::string_view file(function.data() + function.size(), r.length[1]);
    const std::string_view dir(file.data() + file.size(), r.length[2]);

    if (k != low) out += ',';
    out += R"({"cells":[{"content":)"sv;
    out += seq;
    out += kNext;
    out += instruction == 0 && r.arrow ? R"("=>")"sv : R"("")"sv;
    for (std::string_view cell : {addr, function, file, lno, src, assembly, dir}) {
      out += kNext;
      out += cell;
    }
    out += R"(,"tags":0}],"index":)"sv;
    appendJsonInt(out, k);
    out += R"(,"tags":0})"sv;
  }
  appendTableLinesTail(out, low, total, kStatusCompleted, std::string());
  return true;
}

}  // namespace VSKTspServer
