// A tool operation: one trace feature of one target (an MTB or ETB unit, a
// power probe channel), configured by a property array and switched on and
// off. An operation server hands it out as an IOperation; the module uses it
// only after a dynamic_cast to IOperation6.
//
// Ownership: the module gives an operation back with release(); no call
// after that. Threads: one caller at a time (the module holds its tool lock).
#pragma once

#include <cstdint>

namespace Qx::Nlv::Xevt {
class IProperty;
}

namespace TargetOperations {

class IOperation {
 public:
  // The receiver kind the operation drives, for diagnostics ("MTB", "ETB",
  // "WL").
  virtual const char* getKindName() = 0;

 protected:
  virtual ~IOperation() = default;
};

class IOperation6 : public IOperation {
 public:
  // Replaces the operation's settings by the given properties (roots of
  // trees). The operation keeps its own references; the caller releases its
  // own afterwards. Throws hemlockErrorIF on a setting it cannot take.
  virtual void setProperties(Qx::Nlv::Xevt::IProperty* const* properties, uint32_t count) = 0;
  // true on success; on false getErrorText() says why (may be empty).
  virtual bool enable(bool on) = 0;
  virtual const char* getErrorText() = 0;
  virtual void release() = 0;
};

}  // namespace TargetOperations
