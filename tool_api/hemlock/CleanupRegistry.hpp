// The tool library's cleanup registry. A registered callback hears
// cleanup() when the tool side ends its connection (the debug session is
// torn down); after it the callback must hold no tool object any more.
//
// Ownership: the registry never owns a callback; a callback removes itself
// before it is destroyed. Threads: cleanup() comes on a thread of the tool
// library; add and remove may be called from any thread.
#pragma once

namespace Qx::Nlv::Hemlock {

class CleanupCallbackIF {
 public:
  virtual void cleanup() = 0;
  virtual ~CleanupCallbackIF() = default;
};

class ICleanupRegistry {
 public:
  // Adding a callback twice keeps one registration.
  virtual void add(CleanupCallbackIF* callback) = 0;
  virtual void remove(CleanupCallbackIF* callback) = 0;

 protected:
  ~ICleanupRegistry() = default;  // owned by the tool library
};

}  // namespace Qx::Nlv::Hemlock
