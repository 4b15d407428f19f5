// QX_NLV::uString: small string helpers. Stateless and thread-safe; each
// raises uString::error with a fixed text on a null argument.
#pragma once

#include <cstdint>
#include <ios>
#include <string>

#include "source_utilities/SourceUtilitiesError.hpp"

namespace QX_NLV {

class uString {
 public:
  class error : public source_utilities_error {
   public:
    explicit error(const std::string& text) : source_utilities_error(text) {}
  };

  // Left to right, never rescanning inserted text. An empty `from` changes
  // nothing.
  static std::string& replaceAll(std::string& text, const char* from, const char* to);
  // Splits at the first delimiter: 2 when found; else `left` is the whole
  // text and the result is 1, or 0 for an empty text.
  static int split(const char* text, std::string& left, std::string& right, const char* delimiter);
  // "0x"/"0X" hexadecimal, a leading "0" octal, else decimal.
  static uint64_t toNumber(const char* text);
  // Appends through a string stream; flags, precision, width and fill apply
  // only when not 0.
  template <typename Number>
  static std::string& appendNumber(std::string& text, Number number, std::ios::fmtflags flags = {},
                                   int precision = 0, int width = 0, char fill = 0);
};

}  // namespace QX_NLV

#include <sstream>

template <typename Number>
std::string& QX_NLV::uString::appendNumber(std::string& text, Number number,
                                           std::ios::fmtflags flags, int precision, int width,
                                           char fill) {
  std::ostringstream out;
  if (flags != std::ios::fmtflags{}) out.flags(flags);
  if (precision != 0) out.precision(precision);
  if (width != 0) out.width(width);
  if (fill != 0) out.fill(fill);
  out << number;
  text += out.str();
  return text;
}
