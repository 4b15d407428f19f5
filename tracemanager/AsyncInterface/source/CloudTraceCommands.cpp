// The cloudTrace.* command table: argument decoding and replies. Arguments
// are decoded from the last to the first, so when several are bad the
// highest index is reported.
#include <boost/thread/lock_guard.hpp>
#include <mutex>

#include "AsyncInterface/source/CloudTrace.hpp"
#include "cloud_trace/source/LocalOpManager.hpp"
#include "json_interface/JsonArgs.hpp"
#include "json_interface/Translator.hpp"

namespace AsyncInterface {

using JSONInterface::argument;
using JSONInterface::toBool;
using JSONInterface::toString;
using JSONInterface::Translator;

namespace {

// Runs `operation` on the manager under its command lock and gives its
// result; the reply goes out after the lock is released.
template <typename Operation>
auto withManager(CloudTrace& root, Operation operation) {
  LocalOpManager& manager = root.manager();
  std::lock_guard<std::mutex> guard(manager.commandMutex);
  return operation(manager);
}

}  // namespace

void CloudTrace::registerCommands(Translator& t) {
  t.addCommand("cloudTrace.getTestString", [this, &t](unsigned int id, const Json::Value& m) {
    std::string text = toString(argument(m, 0));
    Json::Value data(Json::objectValue);
    data["thestring"] = getTestString(text);
    t.sendResponse(id, data);
  });
  t.addCommand("cloudTrace.getDevices", [this, &t](unsigned int id, const Json::Value& m) {
    std::string tdfName = toString(argument(m, 1));
    bool live = toBool(argument(m, 0));
    t.sendResponse(id, GetDevices(live, tdfName));
  });

  // Events go to the host on whichever thread raises them.
  systemEvent.connect([&t](const std::string& name, const Json::Value& info) {
    Json::Value data(Json::objectValue);
    data["eventName"] = name;
    data["info"] = info;
    t.sendMessage(Translator::event, "cloudTrace.systemEvent", data);
  });
  targetEvent.connect([&t](const std::string& target, const std::string& name, const std::string& desc) {
    Json::Value data(Json::objectValue);
    data["target"] = target;
    data["eventName"] = name;
    data["description"] = desc;
    t.sendMessage(Translator::event, "cloudTrace.targetEvent", data);
  });
  traceTableSizeEvent.connect([&t](unsigned int handle, unsigned int size, bool final, unsigned int gaps) {
    Json::Value data(Json::objectValue);
    data["handle"] = handle;
    data["size"] = size;
    data["isFinal"] = final;
    data["gaps"] = gaps;
    t.sendMessage(Translator::event, "cloudTrace.traceTableSizeEvent", data);
  });
  traceEvent.connect([&t](const std::string& target, const std::string& handle, const std::string& name,
                          const std::string& desc) {
    Json::Value data(Json::objectValue);
    data["target"] = target;
    data["handle"] = handle;
    data["eventName"] = name;
    data["description"] = desc;
    t.sendMessage(Translator::event, "cloudTrace.traceEvent", data);
  });

  t.addCommand("cloudTrace.getListOfUsecases", [&t](unsigned int id, const Json::Value& m) {
    t.sendResponse(id, GetListOfUsecases(toString(argument(m, 0))));
  });
  t.addCommand("cloudTrace.getLiveTraceReceivers", [this, &t](unsigned int id, const Json::Value& m) {
    t.sendResponse(id, GetLiveTraceReceivers(toString(argument(m, 0))));
  });
  t.addCommand("cloudTrace.configureTargetSession", [this, &t](unsigned int id, const Json::Value& m) {
    std::string configuration = toString(argument(m, 1));
    std::string target = toString(argument(m, 0));
    t.sendResponse(id, ConfigureTargetSession(target, configuration));
  });
  t.addCommand("cloudTrace.configureTDFSession", [this, &t](unsigned int id, const Json::Value& m) {
    std::string configuration = toString(argument(m, 1));
    std::string target = toString(argument(m, 0));
    t.sendResponse(id, ConfigureTDFSession(target, configuration));
  });
  t.addCommand("cloudTrace.configureSession", [this, &t](unsigned int id, const Json::Value& m) {
    t.sendResponse(id, configureSession(toString(argument(m, 0))));
  });
  t.addCommand("cloudTrace.stopSession", [this, &t](unsigned int id, const Json::Value&) {
    {
      boost::lock_guard<boost::mutex> guard(lock);
      shutdown();
    }
    releaseRetired();
    t.sendResponse(id);
  });
  t.addCommand("cloudTrace.exportCaptureToCSV", [this, &t](unsigned int id, const Json::Value& m) {
    std::string path = toString(argument(m, 2));
    std::string capture = toString(argument(m, 1));
    std::string target = toString(argument(m, 0));
    // Not waited for: this form answers at once, and a failing export is not
    // reported on this road (the scripting form waits).
    low::promise<void> export_ = withManager(*this, [&](LocalOpManager& manager) {
      return manager.exportCaptureToCSV(target, capture, path);
    });
    low::promise<void> follower;
    export_.then(follower);
    t.sendResponse(id);
  });
  t.addCommand("cloudTrace.startTspServer", [this, &t](unsigned int id, const Json::Value&) {
    withManager(*this, [](LocalOpManager& manager) { manager.startTspServer(); });
    t.sendResponse(id);
  });
  t.addCommand("cloudTrace.terminateTspServer", [this, &t](unsigned int id, const Json::Value&) {
    withManager(*this, [](LocalOpManager& manager) { manager.terminateTspServer(); });
    t.sendResponse(id);
  });
  t.addCommand("cloudTrace.enableLiveTrace", [this, &t](unsigned int id, const Json::Value& m) {
    bool enable = toBool(argument(m, 2));
    auto kinds = JSONInterface::toStringList(argument(m, 1));
    std::string target = toString(argument(m, 0));
    enableLiveTrace(target, kinds, enable);
    t.sendResponse(id);
  });
  t.addCommand("cloudTrace.enableLiveTraces", [this, &t](unsigned int id, const Json::Value&) {
    withManager(*this, [](LocalOpManager& manager) { manager.enableLiveTraces(""); });
    t.sendResponse(id);
  });
  t.addCommand("cloudTrace.disableLiveTraces", [this, &t](unsigned int id, const Json::Value&) {
    withManager(*this, [](LocalOpManager& manager) { manager.disableLiveTraces(""); });
    t.sendResponse(id);
  });

  using Feature = uint32_t (LocalOpManager::*)(const std::string&);
  auto featureCommand = [this, &t](const char* name, Feature feature, bool replyWithResult) {
    t.addCommand(name, [this, &t, feature, replyWithResult](unsigned int id, const Json::Value& m) {
      std::string target = toString(argument(m, 0));
      uint32_t result = withManager(*this, [&](LocalOpManager& manager) { return (manager.*feature)(target); });
      if (replyWithResult) {
        t.sendResponse(id, Json::Value(result));
      } else {
        t.sendResponse(id);
      }
    });
  };
  featureCommand("cloudTrace.enableETB", &LocalOpManager::enableETB, true);
  featureCommand("cloudTrace.disableETB", &LocalOpManager::disableETB, false);
  featureCommand("cloudTrace.enableMTB", &LocalOpManager::enableMTB, true);
  featureCommand("cloudTrace.disableMTB", &LocalOpManager::disableMTB, false);
  t.addCommand("cloudTrace.enableWL", [this, &t](unsigned int id, const Json::Value& m) {
    toBool(argument(m, 1));  // must convert; its value plays no part
    std::string target = toString(argument(m, 0));
    uint32_t result = withManager(*this, [&](LocalOpManager& manager) { return manager.enableWL(target); });
    t.sendResponse(id, Json::Value(result));
  });
  featureCommand("cloudTrace.disableWL", &LocalOpManager::disableWL, false);
}

}  // namespace AsyncInterface
