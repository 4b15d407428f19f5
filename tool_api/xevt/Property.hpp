// A property of a tool operation: a named value (string, boolean, number,
// address) or a group, with children. Built by an operation server's make*
// calls and handed to IOperation6::setProperties.
//
// Ownership: reference counted. A make* call gives one reference; addChild
// takes one of its own on the child; release() drops one. Threads: one
// caller at a time.
#pragma once

namespace Qx::Nlv::Xevt {

class IProperty {
 public:
  virtual void addChild(IProperty* child) = 0;
  virtual void release() = 0;

 protected:
  ~IProperty() = default;
};

}  // namespace Qx::Nlv::Xevt
