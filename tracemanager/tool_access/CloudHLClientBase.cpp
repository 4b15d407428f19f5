#include "tool_access/CloudHLClientBase.hpp"

#include <cstring>

#include "source_utilities/Logger.hpp"
#include "tool_access/CloudHLError.hpp"

using Qx::Nlv::Hemlock::hemlockErrorIF;

bool CloudHLClientBase::isSameClient(Qx::Nlv::Hemlock::HLClientBaseIF* other) {
  if (other == nullptr) return false;
  const char* otherName = other->getName();
  return std::string(otherName != nullptr ? otherName : "") == name;
}

bool CloudHLClientBase::init(const char* clientName, uint32_t clientMode) {
  name = clientName != nullptr ? clientName : "";
  mode = clientMode;
  return true;
}

bool CloudHLClientBase::init(const char* clientName, uint32_t clientMode,
                             Qx::Nlv::Hemlock::IHemlockManager* hemlockManager,
                             Qx::Nlv::Hemlock::IHemlockJobManager* hemlockJobManager) {
  init(clientName, clientMode);
  manager = hemlockManager;
  jobManager = hemlockJobManager;
  return true;
}

void CloudHLClientBase::requireInterfaces() const {
  if (jobManager == nullptr || manager == nullptr) {
    throw CloudHLError("XEV not available", hemlockErrorIF::Error);
  }
}

bool CloudHLClientBase::attachTarget(const char* target, bool primary) {
  QX_TRACE_FUNCTION("CloudHLClientBase::attachTarget");
  requireInterfaces();
  std::string targetName = target != nullptr ? target : "";
  int32_t id = 0;
  try {
    id = jobManager->getTargetId(targetName.c_str(), primary);
  } catch (...) {
    // A target the tool does not know stays unattached; the caller learns
    // nothing, as the tool has no way to say more.
    return false;
  }
  idToName.emplace(id, targetName);
  if (attached.count(id) != 0) return true;
  if (primary) {
    currentName = targetName;
    currentId = id;
  }
  manager->registerClient(this, id);
  attached.insert(id);
  active = true;
  return true;
}

bool CloudHLClientBase::detachTarget(const char* target) {
  QX_TRACE_FUNCTION("CloudHLClientBase::detachTarget");
  requireInterfaces();
  int32_t id = jobManager->getTargetId(target != nullptr ? target : "", false);
  idToName.erase(id);
  attached.erase(id);
  if (currentId == id) {
    currentId = -1;
    currentName.clear();
  }
  manager->unregisterClient(this, id);
  active = !attached.empty();
  return active;
}

int32_t CloudHLClientBase::reregister() {
  requireInterfaces();
  int32_t result = manager->registerClient(this, currentId);
  reregistered = true;
  return result;
}

const std::string& CloudHLClientBase::nameOf(uint64_t id) {
  // An unknown id gets an empty name, which then stays in the map.
  return idToName[static_cast<int32_t>(id)];
}

bool CloudHLClientBase::onJobEvent(uint32_t kind, uint64_t id) {
  switch (kind) {
    case Qx::Nlv::Hemlock::kJobRunSetup:
      if (events != nullptr) events->onRunSetup(nameOf(id).c_str());
      break;
    case Qx::Nlv::Hemlock::kJobSessionChanged:
      if (events != nullptr) events->onSessionChanged(nameOf(id).c_str());
      break;
    case 4:
      jobHookFour();
      break;
    case 5:
      jobHookFive();
      break;
    default:
      break;
  }
  return true;
}

bool CloudHLClientBase::onClientEvent(uint32_t kind, uint64_t argument) {
  lastKind = kind;
  lastArg = argument;
  if (kind >= 1 && kind <= 4) {
    clientHookA();
  } else if (kind == 5) {
    clientHookB();
  }
  return true;
}

const char* CloudHLClientBase::getName() { return name.empty() ? nullptr : name.c_str(); }

CloudHLClientBase::~CloudHLClientBase() {
  if (manager == nullptr) return;
  for (int32_t id : attached) {
    try {
      manager->unregisterClient(this, id);
    } catch (...) {
      // A destructor must not throw; the tool drops the registration with
      // its session anyway.
    }
  }
}
