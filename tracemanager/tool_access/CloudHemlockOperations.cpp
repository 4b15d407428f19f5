// CloudHemlock: tool operations and their records, the trace application of
// a record (its slot in the trace table, its decoder, its program's object
// file information and disassembler), and the cleanup the tool side asks
// for when its connection ends.

#include <cstdio>
#include <exception>
#include <vector>

#include "hemlock/hemlockErrorIF.hpp"
#include "source_utilities/HostApis.hpp"
#include "source_utilities/Logger.hpp"
#include "source_utilities/SourceUtilitiesError.hpp"
#include "symbols/CloudDisasm.hpp"
#include "symbols/ObjectFileInfo.hpp"
#include "tool_access/CTRACE.hpp"
#include "tool_access/CTraceApp.hpp"
#include "tool_access/CloudHemlock.hpp"
#include "tool_access/CloudHemlockSession.hpp"
#include "tool_access/CloudOperation.hpp"

using Qx::Nlv::Hemlock::hemlockErrorIF;
using Qx::Nlv::Xevt::IOperationServer;
using Qx::Nlv::Xevt::IProperty;
using Qx::Nlv::Xevt::ISession;
using Qx::Nlv::Xevt::ISessionManager;

namespace {

bool fileOpens(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  std::fclose(file);
  return true;
}

// Drops a property reference, ignoring what the tool might throw: the
// properties are being given back either way.
void dropReference(IProperty* property) {
  if (property == nullptr) return;
  try {
    property->release();
  } catch (...) {
  }
}

// One property (with its children) from an element of a property tree. A
// non-object element gives null. Throws CloudHemlockException when the
// server makes no property; the reference of a half-built one is dropped
// first.
IProperty* makeProperty(IOperationServer* server, const Json::Value& element) {
  if (!element.isObject()) return nullptr;
  const Json::Value& nameValue = element["name"];
  std::string name = nameValue.isConvertibleTo(Json::stringValue) ? nameValue.asString() : "";
  IProperty* property = nullptr;
  if (!element.isMember("type") || !element.isMember("value")) {
    property = server->makeGroup(name.c_str());
  } else {
    std::string type = element["type"].isString() ? element["type"].asString() : "";
    const Json::Value& value = element["value"];
    if (type == "String") {
      property = server->makeString(name.c_str(), value.asString().c_str());
    } else if (type == "Boolean") {
      property = server->makeBoolean(name.c_str(), value.asBool());
    } else if (type == "Number") {
      property = server->makeNumber(name.c_str(), value.asUInt64());
    } else if (type == "Address" || type == "Location") {
      property =
          server->makeAddress(name.c_str(), value["address"].asUInt(), value["page"].asUInt());
    } else if (type == "Address64" || type == "Location2") {
      property = server->makeAddress64(name.c_str(), value["address"].asUInt64(),
                                       value["page"].asUInt());
    }
  }
  if (property == nullptr) throw CloudHemlockException("Unable to create property for: " + name);
  const Json::Value& children = element["sub_properties"];
  if (!children.isArray()) return property;
  try {
    for (const auto& childElement : children) {
      IProperty* child = makeProperty(server, childElement);
      if (child == nullptr) continue;
      property->addChild(child);
      // The parent holds its own reference now.
      dropReference(child);
    }
  } catch (...) {
    dropReference(property);
    throw;
  }
  return property;
}

}  // namespace

CloudOperation* CloudHemlock::record(uint32_t handle) { return CloudOperation::findOperation(handle); }

IOperationServer* CloudHemlock::operationServer(ISession* session, const std::string& target,
                                                uint32_t kind) {
  std::map<std::string, IOperationServer*>* cache = nullptr;
  if (kind == kSubOperation) {
    cache = &subOperationServers;
  } else if (kind == kLiveOperation) {
    cache = &operationServers;
  } else {
    return nullptr;
  }
  auto found = cache->find(target);
  if (found != cache->end() && found->second != nullptr) return found->second;
  char errorText[Qx::Nlv::Xevt::kErrorTextSize] = {0};
  IOperationServer* server =
      kind == kSubOperation
          ? session->getSubOperationServer(target.c_str(), errorText, sizeof errorText)
          : session->getOperationServer(target.c_str(), errorText, sizeof errorText);
  if (server != nullptr) (*cache)[target] = server;
  return server;
}

int32_t CloudHemlock::createTraceOperation(uint32_t clientId, const std::string& target,
                                           uint32_t& handle, uint32_t kind) {
  QX_TRACE_FUNCTION("CloudHemlock::createTraceOperation");
  if (kind == kTdfOperation) {
    // A file that cannot be opened is reported when the operation is
    // enabled; the record is made all the same.
    if (!fileOpens(target)) lastError = "Cannot open tdf file '" + target + "'";
    handle = CloudOperation::newOperation();
    CloudOperation* operation = CloudOperation::findOperation(handle);
    operation->filePath = target;
    operation->kind = kTdfOperation;
    operation->clientId = clientId;
    return 0;
  }
  try {
    ISessionManager* manager = xevtAvailable ? xevtGetSessionManager() : nullptr;
    if (manager == nullptr) return fail(-2, "Failed to obtain session manager: " + target);
    char errorText[Qx::Nlv::Xevt::kErrorTextSize] = {0};
    ISession* session = manager->openLiveSession(errorText, sizeof errorText);
    if (session == nullptr) return fail(-3, "Failed to obtain session: " + target);
    CloudHemlockSession guard(manager, session);

    uint32_t deviceKind = 0;
    uint32_t count = session->deviceCount();
    if (count > 0) {
      std::vector<Qx::Nlv::Xevt::IDevice*> devices(count, nullptr);
      session->getDevices(devices.data(), count);
      if (devices[0] != nullptr) deviceKind = devices[0]->getTypeCode(target.c_str());
    }
    IOperationServer* server = operationServer(session, target, kind);
    if (server == nullptr) return fail(-4, "Failed to obtain operation server: " + target);
    TargetOperations::IOperation* operation = server->getOperation();
    if (operation == nullptr) return fail(-5, "Failed to obtain operation from operation server");
    auto* operation6 = dynamic_cast<TargetOperations::IOperation6*>(operation);
    if (operation6 == nullptr) return fail(-6, "Failed to cast operation from operation server");

    handle = CloudOperation::newOperation();
    CloudOperation* made = CloudOperation::findOperation(handle);
    made->target = target;
    made->deviceKind = deviceKind;
    made->toolOperation = operation6;
    made->kind = kind;
    made->clientId = clientId;
    return 0;
  } catch (const hemlockErrorIF& e) {
    return fail(kToolError, e.GetErrorText());
  }
}

int32_t CloudHemlock::setOperationProperties(uint32_t handle, const Json::Value& tree) {
  QX_TRACE_FUNCTION("CloudHemlock::setOperationProperties");
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Invalid operation handle");
  if (!tree.isArray() || tree.empty()) {
    return fail(-6, "Invalid configuration JSON structure - top level is not array or size == 0");
  }
  if (operation->kind == kTdfOperation) return 0;
  if (!xevtAvailable) return fail(-1, "Cannot get devices, qx_xevt_setup_manager not available");
  try {
    ISessionManager* manager = xevtGetSessionManager();
    if (manager == nullptr) return fail(-3, "Unable to obtain session manager");
    char errorText[Qx::Nlv::Xevt::kErrorTextSize] = {0};
    ISession* session = manager->openLiveSession(errorText, sizeof errorText);
    if (session == nullptr) return fail(-4, "Unable to obtain session");
    CloudHemlockSession guard(manager, session);
    IOperationServer* server = operationServer(session, operation->target, operation->kind);
    if (server == nullptr) return fail(-5, "Unable to obtain operation server");

    std::vector<IProperty*> properties;
    auto releaseAll = [&properties] {
      // A root releases its children with itself: each child's own
      // reference was dropped when it was added.
      for (IProperty* property : properties) dropReference(property);
    };
    try {
      for (const auto& element : tree) properties.push_back(makeProperty(server, element));
    } catch (const CloudHemlockException& e) {
      releaseAll();
      return fail(-7, e.what());
    } catch (...) {
      releaseAll();
      return fail(-7, "Internal error occured during SetProperties");
    }
    try {
      operation->toolOperation->setProperties(properties.data(),
                                              static_cast<uint32_t>(properties.size()));
    } catch (const hemlockErrorIF& e) {
      // The user reads the fixed text; the tool's reason goes to the log.
      QX_LOG_ERROR("CloudHemlock::setOperationProperties(%u): %s", handle, e.GetErrorText());
      releaseAll();
      return fail(-7, "An internal error occurred during SetProperties");
    } catch (...) {
      releaseAll();
      return fail(-7, "An internal error occurred during SetProperties");
    }
    releaseAll();
    return 0;
  } catch (const hemlockErrorIF& e) {
    return fail(kToolError, e.GetErrorText());
  }
}

int32_t CloudHemlock::enableOperation(uint32_t handle, bool enable, bool keep) {
  QX_TRACE_FUNCTION("CloudHemlock::enableOperation");
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Invalid operation handle");
  if (operation->kind == kTdfOperation) {
    if (fileOpens(operation->filePath)) return 0;
    return fail(-1, "Cannot open tdf file '" + operation->filePath + "'");
  }
  if (operation->toolOperation == nullptr) return fail(-1, "Null operation");
  if (keep) return 0;
  try {
    if (operation->toolOperation->enable(enable)) return 0;
    const char* reason = operation->toolOperation->getErrorText();
    if (reason != nullptr && *reason != 0) return fail(-1, reason);
    return fail(-1, "Enable operation failed");
  } catch (const hemlockErrorIF& e) {
    return fail(-1, e.GetErrorText());
  }
}

int32_t CloudHemlock::releaseOperation(uint32_t handle) {
  QX_TRACE_FUNCTION("CloudHemlock::releaseOperation");
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Invalid operation handle");
  if (operation->kind == kTdfOperation) return 0;
  if (operation->toolOperation != nullptr) {
    try {
      operation->toolOperation->enable(false);
      operation->toolOperation->release();
    } catch (...) {
      lastError = "Error during release of operation";
    }
    operation->toolOperation = nullptr;
  }
  if (operation->traceAppIndex < 0) CloudOperation::deleteOperation(handle);
  return 0;
}

int32_t CloudHemlock::createTraceApp(uint32_t handle) {
  QX_TRACE_FUNCTION("CloudHemlock::createTraceApp");
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  if (operation->traceAppIndex >= 0) return fail(-2, "Trace already exists for operation");
  int32_t slot = CTraceApp::freeSlot();
  if (slot < 0) {
    return fail(kTraceTableFull, "No free trace slot: all " +
                                     std::to_string(CTraceApp::kTraceTableSize) +
                                     " trace applications are in use");
  }
  auto* trace = new CTRACE();
  CTraceApp::traceTable()[slot] = trace;
  operation->traceAppIndex = slot;
  // A failure leaves the slot and the record as they are: destroyTraceApp
  // clears both.
  try {
    if (operation->kind == kTdfOperation) {
      lastError = trace->CreateDecoder(TdfFileName{operation->filePath});
      return lastError.empty() ? 0 : -5;
    }
    if (!trace->FillCPUInfoFromChannelServer(operation->target)) {
      return fail(-3, "Failed to fill CPU info from Channel Server");
    }
    lastError = trace->CreateDecoder(operation->target);
    return lastError.empty() ? 0 : -4;
  } catch (const std::exception& e) {
    return fail(operation->kind == kTdfOperation ? -5 : -4, e.what());
  } catch (...) {
    return fail(operation->kind == kTdfOperation ? -5 : -4,
                "Unexpected exception while creating the decoder");
  }
}

int32_t CloudHemlock::destroyTraceApp(uint32_t handle) {
  QX_TRACE_FUNCTION("CloudHemlock::destroyTraceApp");
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  if (operation->traceAppIndex < 0) return fail(-2, "Trace App not found");
  operation->stopRequested = true;
  if (operation->toolOperation != nullptr) {
    try {
      operation->toolOperation->enable(false);
      operation->toolOperation->release();
    } catch (...) {
      lastError = "Error during release of operation";
    }
    operation->toolOperation = nullptr;
  }
  CTRACE*& slot = CTraceApp::traceTable()[static_cast<size_t>(operation->traceAppIndex)];
  if (slot != nullptr) {
    slot->ShutdownDecoder();
    delete slot;
    slot = nullptr;
  }
  operation->disassembler.reset();
  operation->objectInfo.reset();
  operation->traceAppIndex = -1;
  CloudOperation::deleteOperation(handle);
  return 0;
}

int32_t CloudHemlock::loadObjectInfo(uint32_t handle) {
  QX_TRACE_FUNCTION("CloudHemlock::loadObjectInfo");
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  if (!operation->objectInfo) {
    try {
      operation->objectInfo = ObjectFileInfo::create(operation->target);
    } catch (const std::exception& e) {
      QX_LOG_ERROR("CloudHemlock::loadObjectInfo(%u): %s", handle, e.what());
      operation->objectInfo.reset();
    }
  }
  if (!operation->objectInfo) return fail(-3, "Failed to get object file info");
  return 0;
}

int32_t CloudHemlock::attachObjectInfo(uint32_t handle) {
  QX_TRACE_FUNCTION("CloudHemlock::attachObjectInfo");
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  if (operation->disassembler) return 0;
  if (operation->traceAppIndex < 0) return fail(-2, "Trace not created yet");
  if (!operation->objectInfo && loadObjectInfo(handle) < 0) return -3;
  if (QX_NLV::disAsmManagerApi() == nullptr) return 0;
  try {
    operation->disassembler = std::make_shared<CloudDisasm>(
        operation->objectInfo, processorId(operation->deviceKind));
  } catch (const std::exception& e) {
    // A processor without a disassembler: the tables show no disassembly.
    QX_LOG_ERROR("CloudHemlock::attachObjectInfo(%u): %s", handle, e.what());
    operation->disassembler.reset();
  }
  return 0;
}

int32_t CloudHemlock::stopRecording(uint32_t handle) {
  QX_TRACE_FUNCTION("CloudHemlock::stopRecording");
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  CTRACE* trace = operation->traceAppIndex >= 0
                      ? CTraceApp::traceTable()[static_cast<size_t>(operation->traceAppIndex)]
                      : nullptr;
  if (trace == nullptr) return fail(-2, "Trace operation not created");
  lastError = trace->StopRecording();
  return lastError.empty() ? 0 : -3;
}

bool CloudHemlock::lookupSymbol(uint32_t handle, const std::string& name, uint64_t& address) {
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return false;
  if (!operation->objectInfo && loadObjectInfo(handle) < 0) return false;
  address = 0;
  const auto& package = operation->objectInfo->package();
  if (!package) return false;
  uint64_t found = 0;
  if (package->findSymbol(name.c_str(), &found) == 0) return false;
  address = found;
  return true;
}

void CloudHemlock::releaseOperationServers() {
  for (auto* servers : {&operationServers, &subOperationServers}) {
    for (auto& [target, server] : *servers) {
      try {
        if (server != nullptr) server->release();
      } catch (...) {
        QX_LOG_ERROR("CloudHemlock: release of the operation server of %s failed", target.c_str());
      }
    }
    servers->clear();
  }
}

void CloudHemlock::cleanup() {
  QX_TRACE_FUNCTION("CloudHemlock::cleanup");
  std::lock_guard<std::recursive_mutex> guard(toolMutex);
  try {
    CloudOperation::forEachOperation([this](uint32_t handle) {
      CloudOperation* operation = CloudOperation::findOperation(handle);
      if (operation == nullptr) return;
      if (operation->toolOperation != nullptr) releaseOperation(handle);
      operation = CloudOperation::findOperation(handle);
      if (operation != nullptr && operation->traceAppIndex >= 0) destroyTraceApp(handle);
    });
    CloudOperation::forEachOperation([this](uint32_t handle) {
      CloudOperation* operation = CloudOperation::findOperation(handle);
      if (operation != nullptr && operation->kind != kTdfOperation &&
          operation->traceAppIndex < 0) {
        releaseOperation(handle);
      }
    });
    releaseOperationServers();
    for (CTRACE*& slot : CTraceApp::traceTable()) {
      if (slot == nullptr || slot->decoderReady) continue;
      slot->ShutdownDecoder();
      delete slot;
      slot = nullptr;
    }
    CTraceApp::DestroyChannelServer();
    CTraceApp::DestroyChannelFoundry();
  } catch (const std::exception& e) {
    QX_LOG_ERROR("CloudHemlock::cleanup: %s", e.what());
  }
  needsTraceInit = true;
}
