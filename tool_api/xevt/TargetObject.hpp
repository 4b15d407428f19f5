// The object of a target that describes its power-state word (the JState of
// the power stream): name, version and bit fields with their enumerations.
//
// Ownership: the description's strings and arrays are allocated by the
// library with malloc and freed by the caller with free(), each string, each
// enumeration array and the field array; freeStateDescription() in this
// header does exactly that. Threads: one caller at a time.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace Qx::Nlv::Xevt {

struct StateEnum {
  char* choice = nullptr;
  char* description = nullptr;
  int64_t value = 0;
};

struct StateBitField {
  char* name = nullptr;
  char* description = nullptr;
  int32_t start = 0;
  int32_t end = 0;
  int32_t width = 0;
  StateEnum* enums = nullptr;
  uint32_t enumCount = 0;
};

struct StateDescription {
  char* name = nullptr;
  int32_t version = 0;
  StateBitField* bitFields = nullptr;
  uint32_t bitFieldCount = 0;
};

class ITargetObject {
 public:
  // false: the target has no state word description.
  virtual bool getStateDescription(StateDescription& description, const char* target) = 0;

 protected:
  ~ITargetObject() = default;
};

inline void freeStateDescription(StateDescription& d) {
  for (uint32_t f = 0; f < d.bitFieldCount; ++f) {
    StateBitField& field = d.bitFields[f];
    for (uint32_t e = 0; e < field.enumCount; ++e) {
      std::free(field.enums[e].choice);
      std::free(field.enums[e].description);
    }
    std::free(field.enums);
    std::free(field.name);
    std::free(field.description);
  }
  std::free(d.bitFields);
  std::free(d.name);
  d = StateDescription{};
}

}  // namespace Qx::Nlv::Xevt
