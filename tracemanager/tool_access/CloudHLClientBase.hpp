// CloudHLClientBase: the client object the tool's manager and job manager
// know. It registers for targets by the tool's id and turns the job events
// of those targets into calls of its CloudHLClientEventIf.
//
// Ownership: made and owned by the event handler; `events`, `manager` and
// `jobManager` are borrowed. Destruction unregisters every attached id.
// Threads: no lock of its own; the event handler calls it under its
// eventLock, the tool library calls onJobEvent/onClientEvent on threads of
// its own. Errors: attachTarget, detachTarget and reregister throw
// CloudHLError "XEV not available" (severity 2) without the tool's
// interfaces; a failing getTargetId ends attachTarget silently.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "hemlock/HLClient.hpp"
#include "tool_access/CloudHLClientEventIf.hpp"

class CloudHLClientBase : public Qx::Nlv::Hemlock::HLClientBaseIF {
 public:
  explicit CloudHLClientBase(CloudHLClientEventIf* events) : events(events) {}
  CloudHLClientBase(const CloudHLClientBase&) = delete;
  CloudHLClientBase& operator=(const CloudHLClientBase&) = delete;

  bool isSameClient(Qx::Nlv::Hemlock::HLClientBaseIF* other) override;
  bool init(const char* name, uint32_t mode) override;
  bool attachTarget(const char* target, bool primary) override;
  int32_t reregister() override;
  bool onJobEvent(uint32_t kind, uint64_t id) override;
  bool onClientEvent(uint32_t kind, uint64_t argument) override;
  int32_t reservedA() override { return 0; }
  void jobHookFive() override {}
  void jobHookFour() override {}
  int32_t clientHookA() override { return 0; }
  int32_t clientHookB() override { return 0; }
  int32_t reservedB() override { return 0; }
  int32_t reservedC() override { return -1; }
  const char* getName() override;
  ~CloudHLClientBase() override;
  bool init(const char* name, uint32_t mode, Qx::Nlv::Hemlock::IHemlockManager* manager,
            Qx::Nlv::Hemlock::IHemlockJobManager* jobManager) override;
  bool detachTarget(const char* target) override;
  int32_t reservedD() override { return 0; }

  const std::string& currentTarget() const { return currentName; }
  int32_t currentTargetId() const { return currentId; }
  const std::set<int32_t>& attachedIds() const { return attached; }
  bool isActive() const { return active; }
  bool isReregistered() const { return reregistered; }
  uint32_t lastClientEventKind() const { return lastKind; }
  uint64_t lastClientEventArgument() const { return lastArg; }
  uint32_t clientMode() const { return mode; }

 private:
  void requireInterfaces() const;
  const std::string& nameOf(uint64_t id);

  CloudHLClientEventIf* events = nullptr;
  std::map<int32_t, std::string> idToName;
  Qx::Nlv::Hemlock::IHemlockManager* manager = nullptr;
  Qx::Nlv::Hemlock::IHemlockJobManager* jobManager = nullptr;
  std::string name;
  uint32_t lastKind = 0;
  uint64_t lastArg = 0;
  uint32_t mode = 0;
  std::string currentName;
  int32_t currentId = -1;
  std::set<int32_t> attached;
  bool active = false;
  bool reregistered = false;
};
