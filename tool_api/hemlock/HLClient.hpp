// The tool's job manager and manager, and the client interface they call
// back. A client registered for a target id hears onJobEvent (0 run setup,
// 3 session changed, 4 and 5 job hooks) and onClientEvent for it.
//
// Ownership: the client belongs to its maker; it unregisters every id before
// it is destroyed. The managers belong to the tool library. Threads:
// onJobEvent and onClientEvent come on threads of the tool library; the
// manager's operations may be called from any thread.
#pragma once

#include <cstdint>

namespace Qx::Nlv::Hemlock {

class IHemlockManager;
class IHemlockJobManager;

// Slot order is fixed (the library calls by slot); the reserved and hook
// slots exist so that later tool versions can call them.
class HLClientBaseIF {
 public:
  virtual bool isSameClient(HLClientBaseIF* other) = 0;
  virtual bool init(const char* name, uint32_t mode) = 0;
  virtual bool attachTarget(const char* target, bool primary) = 0;
  virtual int32_t reregister() = 0;
  virtual bool onJobEvent(uint32_t kind, uint64_t id) = 0;
  virtual bool onClientEvent(uint32_t kind, uint64_t argument) = 0;
  virtual int32_t reservedA() = 0;
  virtual void jobHookFive() = 0;
  virtual void jobHookFour() = 0;
  virtual int32_t clientHookA() = 0;
  virtual int32_t clientHookB() = 0;
  virtual int32_t reservedB() = 0;
  virtual int32_t reservedC() = 0;
  virtual const char* getName() = 0;
  virtual ~HLClientBaseIF() = default;
  virtual bool init(const char* name, uint32_t mode, IHemlockManager* manager,
                    IHemlockJobManager* jobManager) = 0;
  virtual bool detachTarget(const char* target) = 0;
  virtual int32_t reservedD() = 0;
};

// Job event kinds of onJobEvent.
inline constexpr uint32_t kJobRunSetup = 0;
inline constexpr uint32_t kJobSessionChanged = 3;

class IHemlockJobManager {
 public:
  // The id of a target; throws hemlockErrorIF for an unknown target.
  virtual int32_t getTargetId(const char* name, bool primary) = 0;

 protected:
  ~IHemlockJobManager() = default;
};

class IHemlockManager {
 public:
  // After registerClient the client hears the events of `id` until
  // unregisterClient. Registering the same pair twice keeps one entry.
  virtual int32_t registerClient(HLClientBaseIF* client, int32_t id) = 0;
  virtual int32_t unregisterClient(HLClientBaseIF* client, int32_t id) = 0;

 protected:
  ~IHemlockManager() = default;
};

}  // namespace Qx::Nlv::Hemlock
