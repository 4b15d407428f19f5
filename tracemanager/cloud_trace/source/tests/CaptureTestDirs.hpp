// A temporary user directory per test (USERPROFILE points at it) and file
// and JSON helpers, so nothing is ever written into a real home.
#pragma once

#include <json/json.h>

#include <string>

#include "TestSupport.hpp"

class TempUserDir : public ostrand_test::TempHome {
 public:
  std::string data() const { return path() + "/.QX-trace/data"; }
};

using ostrand_test::readFile;
using ostrand_test::writeFile;

// `text` as JSON; null when it is none.
inline Json::Value parse(const std::string& text) {
  Json::Value value;
  Json::Reader().parse(text, value);
  return value;
}
