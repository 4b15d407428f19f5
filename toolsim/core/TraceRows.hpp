// The rows a decoder hands out, before they are laid out in the column
// model: a fixed list of columns, and per row a value or nothing for each.
//
// RowSource is the plug-in point of the decoders: whatever turns a run's
// trace into rows (a recorder of the simulation, a decoder of a trace
// buffer) implements it. A source is immutable once handed out, so any
// thread may read it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace OstrandSim {

struct ColumnDef {
  std::string name;
  uint32_t bits = 32;     // value width; ignored for strings
  bool isString = false;
};

class RowSink {
 public:
  virtual ~RowSink() = default;
  virtual void value(uint32_t column, uint64_t v) = 0;
  virtual void text(uint32_t column, std::string_view text) = 0;
};

class RowSource {
 public:
  virtual ~RowSource() = default;
  virtual const std::vector<ColumnDef>& columns() const = 0;
  virtual uint64_t rowCount() const = 0;
  // Tells `sink` the cells of row `index` (< rowCount()) that have a value.
  virtual void readRow(uint64_t index, RowSink& sink) const = 0;
};

// Rows kept as cells: what the recorders of the simulation produce.
class TableRows final : public RowSource {
 public:
  explicit TableRows(std::vector<ColumnDef> columns) : columns_(std::move(columns)) {}

  struct Cell {
    uint32_t column;
    uint64_t value;
    std::string text;  // used by string columns
  };
  void addRow(std::vector<Cell> cells) { rows_.push_back(std::move(cells)); }
  void clear() { rows_.clear(); }

  const std::vector<ColumnDef>& columns() const override { return columns_; }
  uint64_t rowCount() const override { return rows_.size(); }
  void readRow(uint64_t index, RowSink& sink) const override {
    for (const Cell& c : rows_[index]) {
      if (columns_[c.column].isString) {
        sink.text(c.column, c.text);
      } else {
        sink.value(c.column, c.value);
      }
    }
  }

 private:
  std::vector<ColumnDef> columns_;
  std::vector<std::vector<Cell>> rows_;
};

}  // namespace OstrandSim
