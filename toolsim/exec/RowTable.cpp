#include "RowTable.hpp"

#include <stdexcept>

namespace OstrandSim {

uint32_t columnBytes(const Column& column) {
  if (column.isString) return 6;
  if (column.bitWidth <= 8) return 1;
  if (column.bitWidth <= 16) return 2;
  if (column.bitWidth <= 32) return 4;
  return 8;
}

RowTable::RowTable(std::vector<Column> columns) : columns_(std::move(columns)) {
  if (columns_.size() > 64) throw std::invalid_argument("a row table has at most 64 columns");
  for (const Column& c : columns_) {
    offsets_.push_back(rowBytes_);
    rowBytes_ += columnBytes(c);
  }
}

int RowTable::columnIndex(const std::string& name) const {
  for (size_t i = 0; i < columns_.size(); ++i) {
    if (columns_[i].name == name) return static_cast<int>(i);
  }
  return -1;
}

size_t RowTable::addRow() {
  values_.resize(values_.size() + columns_.size());
  validBits_.push_back(0);
  return rowCount_++;
}

void RowTable::set(size_t row, int column, uint64_t value) {
  values_[row * columns_.size() + static_cast<size_t>(column)] = value;
  validBits_[row] |= uint64_t{1} << column;
}

void RowTable::setText(size_t row, int column, const std::string& text) {
  texts_.push_back(text);
  set(row, column, texts_.size() - 1);
}

bool RowTable::has(size_t row, int column) const {
  return column >= 0 && row < rowCount_ && (validBits_[row] >> column & 1u) != 0;
}

std::optional<uint64_t> RowTable::value(size_t row, int column) const {
  if (!has(row, column)) return std::nullopt;
  return values_[row * columns_.size() + static_cast<size_t>(column)];
}

std::string RowTable::text(size_t row, int column) const {
  const auto v = value(row, column);
  return v && columns_[static_cast<size_t>(column)].isString ? texts_[*v] : std::string();
}

size_t RowTable::packBlock(size_t first, size_t count, std::vector<uint8_t>& data,
                           std::vector<uint8_t>& valid, std::string& strings) const {
  const size_t rows = first >= rowCount_ ? 0 : std::min(count, rowCount_ - first);
  const size_t validBytes = (columns_.size() + 7) / 8;
  data.assign(rows * rowBytes_, 0);
  valid.assign(rows * validBytes, 0);
  strings.clear();
  for (size_t r = 0; r < rows; ++r) {
    const size_t row = first + r;
    uint8_t* out = data.data() + r * rowBytes_;
    for (size_t c = 0; c < columns_.size(); ++c) {
      if (!(validBits_[row] >> c & 1u)) continue;
      valid[r * validBytes + c / 8] |= static_cast<uint8_t>(1u << (c % 8));
      uint64_t v = values_[row * columns_.size() + c];
      uint32_t bytes = columnBytes(columns_[c]);
      if (columns_[c].isString) {
        const std::string& t = texts_[v];
        const uint64_t length = std::min<size_t>(t.size(), 0xFFFF);
        v = static_cast<uint64_t>(strings.size()) | length << 32;
        strings.append(t, 0, length);
      }
      for (uint32_t b = 0; b < bytes; ++b) out[offsets_[c] + b] = static_cast<uint8_t>(v >> (8 * b));
    }
  }
  return rows;
}

}  // namespace OstrandSim
