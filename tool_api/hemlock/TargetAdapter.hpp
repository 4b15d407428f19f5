// The target adapter library: one adapter per CPU of the debug session (or
// per subordinate target below a CPU), and the two kinds of listener it
// calls.
//
// Ownership: adapters belong to the library (NewTargetAdapter gives a
// borrowed pointer that stays valid until FreeTargetAdapter or the end of
// the session); listeners belong to their registrant, who removes them
// before destroying them. Threads: listeners are called on threads of the
// simulation or tool library, in no given order relative to commands.
#pragma once

#include <cstdint>

namespace Qx::Nlv::Hemlock {

class ITargetAdapter {
 public:
  virtual bool isConnected() = 0;
  // A subordinate target by name, or null. May throw hemlockErrorIF.
  virtual ITargetAdapter* findTarget(const char* name) = 0;

 protected:
  ~ITargetAdapter() = default;
};

// Hears CPUs appear in and leave the debug session. `name` is the CPU.
class PBATargetAdapterEventListener {
 public:
  virtual void adapterAdded(const char* name) = 0;
  virtual void adapterRemoved(const char* name) = 0;

 protected:
  ~PBATargetAdapterEventListener() = default;
};

}  // namespace Qx::Nlv::Hemlock

namespace Qx::Nlv::Trace {

// Target state numbers of OnTargetStateChanged.
enum TargetState : int32_t {
  kStatePreConnect = 1,
  kStateConnected = 2,
  kStatePreDisconnect = 3,
  kStateDisconnected = 4,
  kStateRunning = 6,
  kStateHalted = 7,
  kStateBreakpointHit = 8,
  kStatePcChanged = 9,
};

// Hears the state of targets. Slot order: state change, a reserved slot the
// library never calls, list change.
class CTargetStateNotification {
 public:
  virtual void OnTargetStateChanged(const char* target, int32_t state) = 0;
  virtual void reservedTargetSlot() = 0;
  virtual void OnTargetListChanged() = 0;

 protected:
  ~CTargetStateNotification() = default;
};

}  // namespace Qx::Nlv::Trace
