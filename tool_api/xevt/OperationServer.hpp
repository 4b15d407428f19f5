// The operation server of one target: makes its trace operation and the
// properties that configure it. Kind 1 servers (sub-operations of a live
// target, e.g. the ETB's trace-on, range and trigger units) and kind 2
// servers (live operations) have the same interface.
//
// Ownership: a server belongs to the session that gave it until release();
// it outlives the session's release (the module caches it). make* give one
// property reference each, or null for a name or value the server cannot
// take. Threads: one caller at a time.
#pragma once

#include <cstdint>

#include "xevt/Operation.hpp"
#include "xevt/Property.hpp"

namespace Qx::Nlv::Xevt {

class IOperationServer {
 public:
  // A new operation on each call, or null: one target carries several
  // operations at once (a trace unit and a power probe; an ETB's trace-on,
  // range and trigger units), each configured, enabled and released on its
  // own.
  virtual TargetOperations::IOperation* getOperation() = 0;
  virtual IProperty* makeAddress64(const char* name, uint64_t address, uint32_t page) = 0;
  virtual IProperty* makeAddress(const char* name, uint32_t address, uint32_t page) = 0;
  virtual IProperty* makeString(const char* name, const char* value) = 0;
  virtual IProperty* makeNumber(const char* name, uint64_t value) = 0;
  virtual IProperty* makeBoolean(const char* name, bool value) = 0;
  virtual IProperty* makeGroup(const char* name) = 0;
  virtual void release() = 0;

 protected:
  ~IOperationServer() = default;
};

}  // namespace Qx::Nlv::Xevt
