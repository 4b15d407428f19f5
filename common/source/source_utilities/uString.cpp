#include "source_utilities/uString.hpp"

#include <cstring>

namespace QX_NLV {

std::string& uString::replaceAll(std::string& text, const char* from, const char* to) {
  if (from == nullptr) throw error("unable to perform string replacement from null original text");
  if (to == nullptr) throw error("unable to perform string replacement with null replacement text");
  size_t fromLength = std::strlen(from);
  if (fromLength == 0) return text;  // nothing to find; must not loop
  size_t toLength = std::strlen(to);
  for (size_t pos = text.find(from); pos != std::string::npos;
       pos = text.find(from, pos + toLength)) {
    text.replace(pos, fromLength, to);
  }
  return text;
}

int uString::split(const char* text, std::string& left, std::string& right,
                   const char* delimiter) {
  if (text == nullptr) throw error("unable to split null string");
  if (delimiter == nullptr) throw error("unable to split with null delimeter");
  std::string whole(text);
  right.clear();
  size_t pos = *delimiter != '\0' ? whole.find(delimiter) : std::string::npos;
  if (pos == std::string::npos) {
    left = whole;
    return whole.empty() ? 0 : 1;
  }
  left = whole.substr(0, pos);
  right = whole.substr(pos + std::strlen(delimiter));
  return 2;
}

uint64_t uString::toNumber(const char* text) {
  if (text == nullptr) throw error("unable to convert null string to numeric");
  if (*text == '\0') throw error("unable to convert empty string to numeric");
  int base = 10;
  const char* digits = text;
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    digits = text + 2;
  } else if (text[0] == '0' && text[1] != '\0') {
    base = 8;
    digits = text + 1;
  }
  if (*digits == '\0') return 0;  // "0x" alone
  return std::strtoull(digits, nullptr, base);
}

}  // namespace QX_NLV
