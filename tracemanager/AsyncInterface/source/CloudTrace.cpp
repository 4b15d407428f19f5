#include "AsyncInterface/source/CloudTrace.hpp"

#include <boost/thread/lock_guard.hpp>
#include <mutex>
#include <stdexcept>

#include "cloud_trace/source/LocalOpManager.hpp"
#include "json_interface/JsonArgs.hpp"
#include "json_interface/Translator.hpp"
#include "source_utilities/Logger.hpp"
#include "source_utilities/uEnvironment.hpp"
#include "tool_access/CloudHemlock.hpp"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace AsyncInterface {

using JSONInterface::argument;
using JSONInterface::toBool;
using JSONInterface::toString;
using JSONInterface::toStringList;

namespace {

struct UsecaseRow {
  const char* key;
  std::vector<const char*> usecases;
};

// Searched in this order; the first key found inside the device name wins.
const std::vector<UsecaseRow>& usecaseTable() {
  static const std::vector<UsecaseRow> table = {
      {"Dsa", {"trace-default-core-trace-RTAU-MTB"}},
      {"Dsd", {"trace-default-core-trace-RTAU-MTB"}},
      {"Dsb", {"trace-default-core-trace-ETM"}},
      {"Dsc", {"trace-default-core-trace-ETM"}},
      {"CortexA53", {"trace-default-core-trace-ETM", "trace-custom-core-trace-ETM"}},
      {"CortexA72", {"trace-default-core-trace-ETM", "trace-custom-core-trace-ETM"}},
      {"Cortex_M4", {"trace-default-core-trace-ETM", "trace-custom-core-trace-ETM"}},
      {"Cortex_R5", {"trace-default-core-trace-ETM", "trace-custom-core-trace-ETM"}},
      {"M0", {"trace-default-core-trace-MTB"}},
  };
  return table;
}

bool isEnabled(const Json::Value& value, const std::string& target, const char* kind) {
  if (!value.isObject() || !value[target].isObject() || !value[target][kind].isObject()) return false;
  const Json::Value& enable = value[target][kind]["enable"];
  return !enable.isNull() && JSONInterface::toBool(enable);
}

// A fresh object holding `session` under `target`.
Json::Value freshMerge(const std::string& target, const Json::Value& session) {
  Json::Value fresh(Json::objectValue);
  fresh[target] = Json::Value(Json::objectValue);
  LocalOpManager::mergeSettings(fresh[target], session);
  return fresh;
}

}  // namespace

CloudTrace::CloudTrace() {
  QX_TRACE_FUNCTION("CloudTrace::CloudTrace");
  std::string base = QX_NLV::baseDirectory();
  hemlock = CloudHemlock::Acquire(base);
  if (hemlock == nullptr) {
    QX_LOG_ERROR("CloudTrace: Failed CloudHemlock::Acquire(%s)", base.c_str());
  }
}

CloudTrace::~CloudTrace() {
  QX_TRACE_FUNCTION("CloudTrace::~CloudTrace");
  try {
    shutdown();
    releaseRetired();
  } catch (const std::exception& e) {
    QX_LOG_ERROR("CloudTrace: shutdown failed: %s", e.what());
  }
  for (auto& c : connections) c.disconnect();
  if (hemlock != nullptr && hemlock == CloudHemlock::current()) CloudHemlock::Release();
}

// The tool gate deletes itself when the last debug session ends and nobody
// else is counted, so a pointer kept from the constructor may be stale: each
// use takes the current instance, and acquires one again if it went.
// A module that never had its tools does not try again.
CloudHemlock* CloudTrace::tools() {
  if (hemlock == nullptr) return nullptr;
  CloudHemlock* now = CloudHemlock::current();
  hemlock = now != nullptr ? now : CloudHemlock::Acquire(QX_NLV::baseDirectory());
  return hemlock;
}

LocalOpManager& CloudTrace::manager() {
  if (!localOpManager) throw std::runtime_error("Trace has not been configured");
  return *localOpManager;
}

std::string CloudTrace::getTestString(const std::string& text) {
  std::string result = text + " > appended test string";
  traceEvent("_target_", "_handle_", "getTestString", result);
  return result;
}

Json::Value CloudTrace::GetDevices(bool live, const std::string& tdfName) {
  QX_TRACE_NAME("CloudTrace::GetDevices(%d, %s)\n", live ? 1 : 0, tdfName.c_str());
  if (!live && tdfName.empty()) throw std::runtime_error("Missing tdf name for non-live session");
  CloudHemlock* gate = tools();
  if (gate == nullptr) throw std::runtime_error("Failed to acquire hemlock");
  std::lock_guard<std::recursive_mutex> guard(gate->toolMutex);
  Json::Value devices;
  if (gate->getDevices(live, tdfName, devices) < 0) {
    throw std::runtime_error("Failed to get devices: " + gate->getLastError());
  }
  return devices;
}

Json::Value CloudTrace::GetListOfUsecases(const std::string& device) {
  QX_TRACE_NAME("CloudTrace::GetListOfUsecases(%s)\n", device.c_str());
  Json::Value list(Json::arrayValue);
  for (const auto& row : usecaseTable()) {
    if (device.find(row.key) == std::string::npos) continue;
    for (const char* usecase : row.usecases) list.append(usecase);
    break;
  }
  return list;
}

Json::Value CloudTrace::GetLiveTraceReceivers(const std::string& filter) {
  QX_TRACE_NAME("CloudTrace::GetLiveTraceReceivers(%s)\n", filter.c_str());
  std::vector<TraceRoute> routes;
  Json::Value devices;  // device information by target, for the "WLplus" rule
  if (localOpManager) {
    std::lock_guard<std::mutex> guard(localOpManager->commandMutex);
    routes = localOpManager->getLiveTraceRoutes(filter);
  } else if (CloudHemlock* gate = tools()) {
    std::lock_guard<std::recursive_mutex> guard(gate->toolMutex);
    Json::Value list;
    if (gate->getDevices(true, "", list) >= 0 && list.isArray()) {
      for (const auto& device : list) {
        for (const auto& route : device["device_info"]["trace_routes"]) {
          std::string source = route["source"].asString();
          if (!filter.empty() && filter != source) continue;
          routes.push_back({source, route["receiver"].asString()});
          devices[source] = device["device_info"];
        }
      }
    }
  }
  Json::Value result(Json::arrayValue);
  for (const auto& [source, receiver] : routes) {
    Json::Value entry(Json::objectValue);
    entry["target"] = source;
    const Json::Value& info = devices.isObject() ? devices[source] : Json::Value::nullSingleton();
    bool plus = receiver == "WL" && info.isObject() && info["version"].isNumeric() &&
                info["version"].asDouble() > 0 && !info["name"].asString().empty();
    entry["receiver"] = plus ? "WLplus" : receiver;
    result.append(entry);
  }
  return result;
}

Json::Value CloudTrace::ConfigureTargetSession(const std::string& target,
                                               const std::string& configuration) {
  Json::Value result(Json::objectValue);
  if (QX_LOG_LEVEL() >= 3) {
    ::Logger::instance().log(QX_NLV::kLogFunction, 2, "CloudTrace::ConfigureTargetSession(%s, %s)",
                             configuration.c_str(), target.c_str());
  }
  if (target.empty()) {
    QX_LOG_MESSAGE("  Invalid target: empty");
    return result;
  }
  Json::Value config;
  Json::Reader reader;
  if (!reader.parse(configuration, config) || !config.isObject()) {
    QX_LOG_MESSAGE("  Invalid config: %s", configuration.c_str());
    sessions[target] = Json::Value();
    return result;
  }
  const Json::Value& session = config["traceSession"];
  if (isEnabled(freshMerge(target, session), target, "TDF")) {
    return ConfigureTDFSession(target, configuration);
  }
  sessions[target] = session;

  boost::lock_guard<boost::mutex> guard(lock);
  CloudHemlock* gate = tools();
  if (gate == nullptr) return result;  // no tools: no targets
  std::vector<std::string> cpus;
  {
    std::lock_guard<std::recursive_mutex> toolLock(gate->toolMutex);
    gate->getCpuNames(cpus);
  }
  if (cpus.empty()) return result;
  bool connected = false;
  {
    std::lock_guard<std::recursive_mutex> toolLock(gate->toolMutex);
    if (gate->isTargetConnected(target, connected) < 0 || !connected) return result;
  }
  Json::Value fresh = freshMerge(target, session);
  if (!localOpManager && !isEnabled(fresh, target, "Wattline") && !isEnabled(fresh, target, "MTB") &&
      !isEnabled(fresh, target, "ETB")) {
    return result;
  }
  startup(target);
  result["dataLocation"] = localOpManager->dataLocation(target);
  return result;
}

Json::Value CloudTrace::ConfigureTDFSession(const std::string& target,
                                            const std::string& configuration) {
  QX_TRACE_NAME("CloudTrace::ConfigureTDFSession(%s, %s)\n", target.c_str(), configuration.c_str());
  Json::Value result(Json::objectValue);
  if (target.empty()) {
    QX_LOG_MESSAGE("  Invalid target: empty");
    return result;
  }
  boost::lock_guard<boost::mutex> guard(lock);
  Json::Value config;
  Json::Reader reader;
  if (reader.parse(configuration, config) && config.isObject()) {
    sessions[target] = config["traceSession"];
  } else {
    QX_LOG_MESSAGE("  Invalid config: %s", configuration.c_str());
    sessions[target] = Json::Value();
  }
  if (!localOpManager && !isEnabled(freshMerge(target, sessions[target]), target, "TDF")) {
    return result;
  }
  startup(target);
  localOpManager->enableTDFTrace(target);
  result["dataLocation"] = localOpManager->tdfDataLocation(target);
  return result;
}

Json::Value CloudTrace::configureSession(const std::string& configuration) {
  CloudHemlock* gate = tools();
  if (gate == nullptr) return Json::Value(Json::objectValue);
  std::vector<std::string> cpus;
  {
    std::lock_guard<std::recursive_mutex> toolLock(gate->toolMutex);
    gate->getCpuNames(cpus);
  }
  for (const auto& name : cpus) {
    if (name.find("DAP") == std::string::npos) return ConfigureTargetSession(name, configuration);
  }
  return Json::Value(Json::objectValue);
}

void CloudTrace::startup(const std::string& target) {
  QX_TRACE_FUNCTION("CloudTrace::startup");
  if (!localOpManager) {
    localOpManager = LocalOpManager::instance();
    // Only the trace event has a slot: it is the one event that reaches the
    // host in operation.
    connections = localOpManager->connect(
        nullptr, nullptr, nullptr,
        [this](const std::string& t, const std::string& h, const std::string& e,
               const std::string& d) {
          boost::lock_guard<boost::mutex> guard(lock);
          traceEvent(t, h, e, d);
        });
  }
  localOpManager->configure(target, sessions);
}

void CloudTrace::shutdown() {
  QX_TRACE_FUNCTION("CloudTrace::shutdown");
  if (!localOpManager) return;
  localOpManager->shutdown();
  for (auto& c : connections) c.disconnect();
  connections.clear();
  // The manager is let go of by the caller once `lock` is free: its end
  // waits for tool events in flight, which may be waiting for `lock`.
  retired = std::move(localOpManager);
}

void CloudTrace::releaseRetired() { retired.reset(); }

void CloudTrace::enableLiveTrace(const std::string& target, const std::vector<std::string>& kinds,
                                 bool enable) {
  LocalOpManager& m = manager();
  std::lock_guard<std::mutex> guard(m.commandMutex);
  for (const auto& kind : kinds) {
    if (kind == "MTB") {
      enable ? m.enableMTB(target) : m.disableMTB(target);
    } else if (kind == "ETB") {
      enable ? m.enableETB(target) : m.disableETB(target);
    } else if (kind == "WL") {
      enable ? m.enableWL(target) : m.disableWL(target);
    }
  }
}

}  // namespace AsyncInterface

#pragma GCC diagnostic pop
