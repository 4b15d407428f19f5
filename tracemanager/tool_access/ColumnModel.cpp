#include "tool_access/ColumnModel.hpp"

#include <charconv>

namespace {

constexpr char kUpperDigits[] = "0123456789ABCDEF";
constexpr char kLowerDigits[] = "0123456789abcdef";

std::string hexDigits(uint64_t value, int digits, const char* alphabet) {
  std::string text(static_cast<size_t>(digits), '0');
  for (int i = digits - 1; i >= 0; --i, value >>= 4) text[i] = alphabet[value & 0xF];
  return text;
}

int digitsOfSize(uint32_t size) {
  switch (size) {
    case 1:
      return 2;
    case 2:
      return 4;
    case 4:
      return 8;
    case 8:
      return 16;
    default:
      return 0;
  }
}

}  // namespace

int32_t findColumn(const ColumnInfo& columns, const std::string& name) {
  for (uint32_t i = 0; i < columns.count; ++i)
    if (columns.names[i] == name) return static_cast<int32_t>(i);
  return -1;
}

const std::map<std::string, uint32_t>& formatNames() {
  static const std::map<std::string, uint32_t> names{
      {"unsigned", kFormatUnsigned}, {"hex", kFormatHex}, {"default", kFormatDefault}};
  return names;
}

const std::map<std::string, uint32_t>& dataTypeNames() {
  static const std::map<std::string, uint32_t> names{{"Number", 0}, {"String", 1}};
  return names;
}

const std::map<std::string, int32_t>& transformNames() {
  static const std::map<std::string, int32_t> names{
      {"functionInfoIndex", kTransformFunctionInfoIndex},
      {"functionName", kTransformFunctionName},
      {"fileName", kTransformFileName},
      {"directoryName", kTransformDirectoryName},
      {"disassemble", kTransformDisassemble},
      {"lineNumber", kTransformLineNumber},
      {"rowNumber", kTransformRowNumber},
      {"timeMs", kTransformTimeMs},
      {"none", kTransformNone}};
  return names;
}

uint64_t RowView::readColumnValue(const uint8_t* bytes, uint32_t size) {
  // Byte by byte, so neither the host's byte order nor the alignment of the
  // value inside the row matters.
  if (size != 1 && size != 2 && size != 4 && size != 6 && size != 8) return 0;
  uint64_t value = 0;
  for (uint32_t i = size; i-- > 0;) value = value << 8 | bytes[i];
  return value;
}

std::string hexBySize(uint64_t value, uint32_t size) {
  const int digits = digitsOfSize(size);
  if (digits == 0) return "Illegal width";
  return hexDigits(value, digits, kUpperDigits);
}

std::string unsignedBySize(uint64_t value, uint32_t size) {
  if (digitsOfSize(size) == 0) return "Illegal width";
  char text[24];
  auto end = std::to_chars(text, text + sizeof text, value).ptr;
  return std::string(text, end);
}

std::string opcodeBySize(uint64_t value, uint32_t size) {
  const int digits = digitsOfSize(size);
  if (digits == 0) return "n/a";
  return hexDigits(value, digits, size == 8 ? kLowerDigits : kUpperDigits);
}

std::string hex8(uint32_t value) { return hexDigits(value, 8, kUpperDigits); }
