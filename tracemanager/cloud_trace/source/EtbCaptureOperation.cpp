#include "cloud_trace/source/EtbCaptureOperation.hpp"

#include <cctype>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "experiments/DataBrokerRouter.hpp"
#include "experiments/EtbRecordStore.hpp"
#include "source_utilities/Logger.hpp"
#include "tool_access/CloudHemlock.hpp"

using Etb = LocalOpManager::EtbCaptureOperation;

namespace {

const char* const kBufferTypeId = "Hardware Configuration.Receiver Settings.Receiver.Buffer Type";

Json::Value property(const char* name, const char* type, Json::Value value) {
  Json::Value p(Json::objectValue);
  p["name"] = name;
  p["type"] = type;
  p["value"] = std::move(value);
  return p;
}

Json::Value location(const char* name) {
  Json::Value where(Json::objectValue);
  where["page"] = 0;
  where["address"] = 0;
  return property(name, "Location", where);
}

// The value of the element whose `id` is `id` in a use case's properties.
const Json::Value* findUseCaseValue(const Json::Value& cases, Json::ArrayIndex index,
                                    const char* id) {
  if (!cases.isArray() || index >= cases.size() || !cases[index].isObject()) return nullptr;
  const Json::Value& props = cases[index]["properties"];
  if (!props.isArray()) return nullptr;
  for (const auto& p : props) {
    if (p.isObject() && p["id"].isString() && p["id"].asString() == id) return &p["value"];
  }
  return nullptr;
}

std::string text(const Json::Value& value) {
  return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

// Blanks only: a tab or line feed in an address is the user's text.
std::string trimBlanks(const std::string& s) {
  size_t first = s.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return s.substr(first, s.find_last_not_of(' ') - first + 1);
}

// The tree of one sub-operation: a single "Type" element holding `subs`.
Json::Value typeTree(Json::Value subs) {
  Json::Value type = property("Type", "String", "Trace");
  type["sub_properties"] = std::move(subs);
  Json::Value tree(Json::arrayValue);
  tree.append(type);
  return tree;
}

Json::Value whatToTrace(const char* value) {
  Json::Value what = property("What to Trace", "String", value);
  what["sub_properties"].append(property("Program Address", "Boolean", true));
  what["sub_properties"].append(property("Timing Stamp", "Boolean", true));
  return what;
}

}  // namespace

Etb::EtbCaptureOperation(int32_t clientId, CloudHemlock* tools, std::string target,
                         Json::Value sessionSettings, LocalOpManager* owner)
    : CaptureOperation(clientId, tools, std::move(target), std::move(sessionSettings), kFeatureETB,
                       "LocalOpManager::EtbCaptureOperation", "etb_data.json"),
      owner(owner) {
  // These cores take triggers in the longer form; the names are matched as
  // the tool spells them.
  coreHasTriggerForm = this->target.find("Dsb") != std::string::npos ||
                       this->target.find("Dsc") != std::string::npos;
}

// The sub-operations have no trace application that would take them with
// it, so they are given back here; the gate outlives its operations.
Etb::~EtbCaptureOperation() {
  if (tools != nullptr && created) {
    std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
    for (uint32_t i = 0; i < subOperationCount; ++i) tools->releaseOperation(subOperationHandles[i]);
  }
}

Etb::Evaluation Etb::evaluation() const {
  return {rangeCount,     startStopCount, traceOnValid, rangeValid,
          startStopValid, hasStartTrace,  triggerCase};
}

void Etb::createDefaultSettings() {
  QX_TRACE_FUNCTION("LocalOpManager::EtbCaptureOperation::createDefaultSettings");
  const Json::Value& cases = sessionSettings[target]["useCases"]["properties"];
  bufferCase = 0;
  std::string bufferType = "Circular";
  if (const Json::Value* v = findUseCaseValue(cases, bufferCase, kBufferTypeId))
    bufferType = text(*v);
  QX_LOG_MESSAGE("ucProps Elements = %d", cases.isArray() ? static_cast<int>(cases.size()) : 0);

  subOperationCount = 0;
  traceOnCase = 1;
  rangeCount = startStopCount = 0;
  traceOnCount = 1;
  rangeValid = startStopValid = hasStartTrace = traceOnValid = false;
  rangeCase = 2;
  rangeStart.fill({});
  rangeEnd.fill({});

  // Four use cases are searched for ranges, and the rest of four for
  // triggers; the entries are filled in the order found, at most two of
  // each. A use case beyond those is left out, with a message.
  for (uint32_t i = 0; i < kMaxSubOperations + 1 - traceOnCount; ++i) {
    const Json::Value* start = findUseCaseValue(cases, rangeCase + i, "Range.Start");
    if (start == nullptr) continue;
    const Json::Value* end = findUseCaseValue(cases, rangeCase + i, "Range.End");
    if (end == nullptr) continue;
    if (rangeCount == kMaxRanges) {
      QX_LOG_MESSAGE("Range of use case %u left out: at most %u ranges", rangeCase + i, kMaxRanges);
      continue;
    }
    rangeStart[rangeCount] = trimBlanks(text(*start));
    rangeEnd[rangeCount] = trimBlanks(text(*end));
    if (!rangeStart[rangeCount].empty() && !rangeEnd[rangeCount].empty()) rangeValid = true;
    ++rangeCount;  // an empty range counts: its use case is one of the ranges
  }

  triggerCase = traceOnCount + rangeCount + 1;
  triggerAddress.fill({});
  triggerType.fill({});
  for (uint32_t i = 0; i < kMaxSubOperations - rangeCount; ++i) {
    const Json::Value* address = findUseCaseValue(cases, triggerCase + i, "Trigger.Address");
    if (address == nullptr) continue;
    std::string where = trimBlanks(text(*address));
    if (where.empty()) continue;
    if (startStopCount == kMaxTriggers) {
      QX_LOG_MESSAGE("Trigger of use case %u left out: at most %u triggers", triggerCase + i,
                     kMaxTriggers);
      continue;
    }
    startStopValid = true;
    triggerAddress[startStopCount] = where;
    const Json::Value* kind = findUseCaseValue(cases, triggerCase + i, "Trigger.Address.Type");
    if (kind == nullptr) continue;
    triggerType[startStopCount] = text(*kind);
    if (triggerType[startStopCount] == "Start Trace") hasStartTrace = true;
    ++startStopCount;
  }

  // Tracing from the start would cover what a start trigger waits for; a
  // core with the longer trigger form traces only its ranges.
  traceOnValid = !hasStartTrace;
  if (coreHasTriggerForm && rangeValid) traceOnValid = false;

  QX_LOG_MESSAGE("Valid:    TraceOn = %d Range = %d StartStop = %d", traceOnValid ? 1 : 0,
                 rangeValid ? 1 : 0, startStopValid ? 1 : 0);
  QX_LOG_MESSAGE("Config#:  TraceOn = 1  Range = %d StartStop = %d", rangeCount, startStopCount);

  if (traceOnValid && subOperationCount < kMaxSubOperations) {
    subOperationProps[subOperationCount++] = traceOnTree();
  }
  if (rangeValid) {
    rangeActionIndex = 1;
    for (uint32_t i = 0; i < rangeCount && subOperationCount < kMaxSubOperations; ++i) {
      subOperationProps[subOperationCount++] = rangeTree();
    }
  }
  if (startStopValid) {
    triggerActionIndex = 1;
    for (uint32_t i = 0; i < startStopCount && subOperationCount < kMaxSubOperations; ++i) {
      subOperationProps[subOperationCount++] = triggerTree(triggerType[i]);
    }
  }

  Json::Value list(Json::arrayValue);
  list.append(property("Buffer Type", "String", bufferType));
  list.append(property("Synchronize with target", "Boolean", syncWithTarget));
  setReceiverSettings("ETB", list);
}

Json::Value Etb::traceOnTree() const {
  Json::Value subs(Json::arrayValue);
  subs.append(property("Actions", "String", "Trace On"));
  subs.append(property("Triggers", "String", "None"));
  subs.append(whatToTrace("(Select data to trace)"));
  return typeTree(subs);
}

Json::Value Etb::rangeTree() const {
  Json::Value actions = property("Actions", "String", "Trace in Range");
  actions["sub_properties"].append(location("Start Location"));
  actions["sub_properties"].append(location("End Location"));
  Json::Value subs(Json::arrayValue);
  subs.append(property("Trace Type", "String", "Standard"));
  subs.append(actions);
  subs.append(whatToTrace("(Select data to trace)"));
  return typeTree(subs);
}

Json::Value Etb::triggerTree(const std::string& action) const {
  Json::Value actions = property("Actions", "String", action);
  if (coreHasTriggerForm) {
    Json::Value point = property("Location Type", "String", "Point");
    point["sub_properties"].append(location("Location"));
    Json::Value trigger = property("Trigger Type", "String", "PC");
    trigger["sub_properties"].append(point);
    trigger["sub_properties"].append(property("Trigger Skip/Delay", "String", "No"));
    actions["sub_properties"].append(trigger);
  } else {
    actions["sub_properties"].append(location("Location"));
  }
  Json::Value subs(Json::arrayValue);
  subs.append(property("Trace Type", "String", "Standard"));
  subs.append(actions);
  const bool end = coreHasTriggerForm && action == "End Trace";
  subs.append(whatToTrace(end ? "(Select data to end)" : "(Select data to trace)"));
  return typeTree(subs);
}

bool Etb::parseHexAddress(const std::string& textIn, uint32_t& address, bool& overflow) {
  overflow = false;
  size_t at = 0;
  while (at < textIn.size() && std::isspace(static_cast<unsigned char>(textIn[at]))) ++at;
  if (textIn.compare(at, 2, "0x") == 0 || textIn.compare(at, 2, "0X") == 0) ++at, ++at;
  uint64_t value = 0;
  size_t digits = 0;
  for (; at < textIn.size() && std::isxdigit(static_cast<unsigned char>(textIn[at])); ++at) {
    const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(textIn[at])));
    value = value * 16 + static_cast<uint64_t>(c <= '9' ? c - '0' : c - 'a' + 10);
    ++digits;
    if (value > 0xFFFFFFFFull) {
      overflow = true;
      return false;
    }
  }
  if (digits == 0) return false;
  address = static_cast<uint32_t>(value);
  return true;
}

uint32_t Etb::evaluateAddress(const std::string& where, AddressRole role) {
  uint64_t symbol = 0;
  if (tools->lookupSymbol(operationHandle, where, symbol)) return static_cast<uint32_t>(symbol);
  uint32_t address = 0;
  bool overflow = false;
  if (parseHexAddress(where, address, overflow)) return address;
  const char* field = role == AddressRole::kRangeStart ? "Range: Start:"
                      : role == AddressRole::kRangeEnd ? "Range: End:"
                                                       : "Start/Stop: Address:";
  if (owner != nullptr) {
    owner->showStatusMsg(target, "", true,
                         std::string("Failed to evaluate ") + field + " as a hex address");
  }
  if (overflow) {
    QX_LOG_ERROR("Could not evaluate %s '%s' as a hexadecimal address: out of the 32-bit range",
                 field, where.c_str());
    throw std::runtime_error("Failed to set properties: " + std::string(field) + " '" + where +
                             "' is beyond the 32-bit address range");
  }
  QX_LOG_ERROR("Could not evaluate %s '%s' as a hexadecimal address", field, where.c_str());
  throw std::runtime_error("Failed to set properties: " + tools->getLastError());
}

uint32_t Etb::createHlOperation() {
  QX_TRACE_FUNCTION("LocalOpManager::EtbCaptureOperation::createHlOperation");
  createMainOperation("ETB");
  std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
  // The addresses are resolved now that the main operation knows the
  // program: a symbol first, then a hexadecimal number.
  const uint32_t firstRange = traceOnValid ? 1 : 0;
  uint32_t rangesDone = 0;
  if (rangeValid) {
    for (uint32_t i = 0; i < rangeCount && firstRange + i < subOperationCount; ++i, ++rangesDone) {
      Json::Value& actions =
          subOperationProps[firstRange + i][0]["sub_properties"][rangeActionIndex];
      actions["sub_properties"][0]["value"]["address"] =
          evaluateAddress(rangeStart[i], AddressRole::kRangeStart);
      actions["sub_properties"][1]["value"]["address"] =
          evaluateAddress(rangeEnd[i], AddressRole::kRangeEnd);
    }
  }
  if (startStopValid) {
    const uint32_t firstTrigger = firstRange + rangesDone;
    for (uint32_t i = 0; i < startStopCount && firstTrigger + i < subOperationCount; ++i) {
      Json::Value& actions =
          subOperationProps[firstTrigger + i][0]["sub_properties"][triggerActionIndex];
      Json::Value& where =
          coreHasTriggerForm
              ? actions["sub_properties"][0]["sub_properties"][0]["sub_properties"][0]
              : actions["sub_properties"][0];
      where["value"]["address"] = evaluateAddress(triggerAddress[i], AddressRole::kTrigger);
    }
  }
  for (uint32_t i = 0; i < subOperationCount; ++i) {
    createToolOperation(subOperationHandles[i], subOperationProps[i], 1);
  }
  created = true;
  return operationHandle;
}

int32_t Etb::enableImpl(bool on) {
  QX_TRACE_FUNCTION("LocalOpManager::EtbCaptureOperation::enableImpl");
  return switchToolOperations(on, DecoderUse::kSymbolsAllOrNothing);
}

VSKTspServer::EtbRecordStore& Etb::storeForDecode() {
  if (auto* router = dynamic_cast<VSKTspServer::DataBrokerRouter*>(broker)) {
    return router->etbRecords;
  }
  // No trace server: the records are kept with the capture, so the decode
  // and the export of etb_data.json go on as with a viewer.
  if (!ownRecords) ownRecords = std::make_unique<VSKTspServer::EtbRecordStore>();
  return *ownRecords;
}

void Etb::onDataReady() {
  QX_TRACE_FUNCTION("LocalOpManager::EtbCaptureOperation::onDataReady");
  if (!endCollecting()) return;
  std::lock_guard<std::recursive_mutex> guard(tools->toolMutex);
  uint32_t count = 0;
  if (tools->decodeETBTrace(operationHandle, count, data, storeForDecode()) != 0) {
    throw std::runtime_error("DecodeETBTrace failed: " + tools->getLastError());
  }
  publishDecoded();
}
