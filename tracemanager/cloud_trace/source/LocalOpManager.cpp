// LocalOpManager: life, settings, the trace server and the commands that arm
// and disarm captures. The tool-event side is in LocalOpManagerEvents.cpp,
// routes and directories in TraceRoutes.cpp.
#include "cloud_trace/source/LocalOpManager.hpp"

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "cloud_trace/source/CaptureOperation.hpp"
#include "cloud_trace/source/EtbCaptureOperation.hpp"
#include "cloud_trace/source/EventHandler.hpp"
#include "cloud_trace/source/MtbCaptureOperation.hpp"
#include "cloud_trace/source/TdfCaptureOperation.hpp"
#include "cloud_trace/source/WLCaptureOperation.hpp"
#include "source_utilities/Logger.hpp"
#include "source_utilities/uDll.hpp"
#include "source_utilities/uEnvironment.hpp"
#include "tool_access/CloudHemlock.hpp"
#include "tsp_server/ExperimentKinds.hpp"
#include "tsp_server/TspServer.hpp"
#include "wattline/WLExperimentKind.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

std::mutex instanceMutex;  // guards currentManager
std::weak_ptr<LocalOpManager> currentManager;
std::atomic<uint32_t> nextManagerId{0};

std::mutex installBaseMutex;  // guards installBase
std::string installBase;

std::mutex makersMutex;  // guards makers()
std::map<std::string, LocalOpManager::OperationMaker>& makers() {
  static std::map<std::string, LocalOpManager::OperationMaker> table = {
      {kFeatureWattline,
       [](int32_t id, CloudHemlock* tools, const std::string& target, const Json::Value& s,
          LocalOpManager*) -> std::unique_ptr<LocalOpManager::CaptureOperation> {
         return std::make_unique<LocalOpManager::WLCaptureOperation>(id, tools, target, s);
       }},
      {kFeatureMTB,
       [](int32_t id, CloudHemlock* tools, const std::string& target, const Json::Value& s,
          LocalOpManager*) -> std::unique_ptr<LocalOpManager::CaptureOperation> {
         return std::make_unique<LocalOpManager::MtbCaptureOperation>(id, tools, target, s);
       }},
      {kFeatureETB,
       [](int32_t id, CloudHemlock* tools, const std::string& target, const Json::Value& s,
          LocalOpManager* owner) -> std::unique_ptr<LocalOpManager::CaptureOperation> {
         return std::make_unique<LocalOpManager::EtbCaptureOperation>(id, tools, target, s, owner);
       }},
      {kFeatureTDF,
       [](int32_t id, CloudHemlock* tools, const std::string& target, const Json::Value& s,
          LocalOpManager*) -> std::unique_ptr<LocalOpManager::CaptureOperation> {
         return std::make_unique<LocalOpManager::TdfCaptureOperation>(id, tools, target, s);
       }},
  };
  return table;
}

bool isKnownFeature(const std::string& feature) {
  return feature == kFeatureMTB || feature == kFeatureETB || feature == kFeatureWattline ||
         feature == kFeatureTDF;
}

// Makes the directory and deletes it with all it holds, so that a leftover
// of an earlier process never reaches this one's captures.
void clearDataDir(const char* name) {
  std::string path;
  QX_NLV::dataDirectory(path);
  QX_NLV::joinPath(path, name);
  QX_NLV::makeDirectories(path.c_str());
  boost::system::error_code ec;
  boost::filesystem::remove_all(path, ec);
}

const char* const kBufferNodeNote =
    "Note: Connect device's QBF/ETB node for faster processing (to make it visible right-click "
    "on any core in the Debug view and choose Show All Cores)";

}  // namespace

// ---------------------------------------------------------------- life

std::shared_ptr<LocalOpManager> LocalOpManager::instance() {
  std::lock_guard<std::mutex> guard(instanceMutex);
  std::shared_ptr<LocalOpManager> manager = currentManager.lock();
  if (!manager) {
    manager = std::make_shared<LocalOpManager>();
    currentManager = manager;
  }
  return manager;
}

void LocalOpManager::registerCaptureOperation(const std::string& feature, OperationMaker maker) {
  std::lock_guard<std::mutex> guard(makersMutex);
  makers()[feature] = std::move(maker);
}

void LocalOpManager::setInstallBase(const std::string& base) {
  std::lock_guard<std::mutex> guard(installBaseMutex);
  installBase = base;
}

int LocalOpManager::tspPort() {
  const char* text = QX_NLV::getEnvironment("OSTRAND_TSP_PORT");
  if (text == nullptr || *text == '\0') return VSKTspServer::TspServer::kDefaultPort;
  char* end = nullptr;
  long port = std::strtol(text, &end, 10);
  if (*end != '\0' || port <= 0 || port > 65535) {
    QX_LOG_ERROR("OSTRAND_TSP_PORT=%s is not a port; the trace server uses %d", text,
                 VSKTspServer::TspServer::kDefaultPort);
    return VSKTspServer::TspServer::kDefaultPort;
  }
  return static_cast<int>(port);
}

LocalOpManager::LocalOpManager() : id(nextManagerId++) { init(); }

void LocalOpManager::init() {
  QX_TRACE_FUNCTION("LocalOpManager::init");
  {
    std::lock_guard<std::mutex> guard(installBaseMutex);
    basePath = installBase;
  }
  if (basePath.empty()) {
    QX_NLV::uDll self("Ostrand");
    std::string path;
    if (self.loaded()) self.modulePath(path);
    std::string::size_type at = path.rfind("vsk_base");
    basePath = at == std::string::npos ? path : path.substr(0, at + sizeof("vsk_base"));
    // Outside the module (a test program linking the libraries) the base of
    // the install tree is what the support library finds.
    if (basePath.empty()) basePath = QX_NLV::baseDirectory();
  }
  tools = CloudHemlock::Acquire(basePath);
  if (tools == nullptr) {
    QX_LOG_ERROR("LocalOpManager::init(): Failed CloudHemlock::Acquire(%s)", basePath.c_str());
    return;
  }
  eventHandler = std::make_unique<EventHandler>(
      basePath,
      [this](const std::string& t, const std::string& e, const std::string& d) {
        targetEventSignal(t, e, d);
      },
      [this](const std::string& e, const Json::Value& i) { systemEventSignal(e, i); },
      [this](uint32_t h, uint32_t s, bool f, uint32_t g) { tableSizeSignal(h, s, f, g); },
      [this](const std::string& t, const std::string& h, const std::string& e,
             const std::string& d) { raiseTraceEvent(t, h, e, d); },
      this);
  clearDataDir(".Wattline");
  clearDataDir("live-targets");
  clearDataDir("file-targets");
}

LocalOpManager::~LocalOpManager() {
  QX_TRACE_FUNCTION("LocalOpManager::~LocalOpManager");
  try {
    stopTrackingTargets();
    terminateTspServer();
    {
      StateLock state(*this);
      // Operations go while the tools are still there to stop them.
      for (auto& [target, features] : operations) {
        for (auto& [feature, op] : features) {
          if (op->isCreated() && op->isEnabled()) op->enable(false);
        }
      }
      operations.clear();
    }
  } catch (const std::exception& e) {
    QX_LOG_ERROR("LocalOpManager::~LocalOpManager: %s", e.what());
  }
  eventHandler.reset();
  if (tools != nullptr) CloudHemlock::Release();
}

std::vector<boost::signals2::connection> LocalOpManager::connect(TargetEventFn target,
                                                                 SystemEventFn system,
                                                                 TableSizeFn tableSize,
                                                                 TraceEventFn trace) {
  std::vector<boost::signals2::connection> list;
  if (target) list.push_back(targetEventSignal.connect(target));
  if (system) list.push_back(systemEventSignal.connect(system));
  if (tableSize) list.push_back(tableSizeSignal.connect(tableSize));
  if (trace) list.push_back(traceEventSignal.connect(trace));
  return list;
}

void LocalOpManager::configure(const std::string& target, const Json::Value& config) {
  QX_TRACE_FUNCTION("LocalOpManager::configure");
  if (eventHandler && tools != nullptr) {
    StateLock state(*this);
    if (!registered) {
      std::lock_guard<std::recursive_mutex> tool(tools->toolMutex);
      tools->addListener(eventHandler.get());
      registered = true;
    }
  }
  // Tracking attaches targets under EventHandler's lock, which the event
  // road takes before this class's locks: no state lock is held here.
  if (pendingRefresh.exchange(false)) trackTargets();
  {
    StateLock state(*this);
    removeTargetDir(target, "");
    std::string file;
    QX_NLV::settingsDirectory(file);
    QX_NLV::joinPath(file, "vskSettings.json");
    std::ifstream in(file, std::ios::binary);
    if (in) {
      std::stringstream text;
      text << in.rdbuf();
      Json::Reader reader;
      Json::Value loaded;
      if (reader.parse(text.str(), loaded)) settings = loaded;
    }
    if (!settings.isObject()) settings = Json::Value(Json::objectValue);
    if (config.isObject()) {
      if (!settings[target].isObject()) settings[target] = Json::Value(Json::objectValue);
      mergeSettings(settings[target], config[target]);
    }
  }
  disableLiveTraces(target);
  startTspServer();
}

void LocalOpManager::shutdown() {
  QX_TRACE_FUNCTION("LocalOpManager::shutdown");
  StateLock state(*this);
  if (eventHandler && tools != nullptr && registered) {
    std::lock_guard<std::recursive_mutex> tool(tools->toolMutex);
    tools->removeListener(eventHandler.get());
    registered = false;
  }
  disableLiveTraces("");
}

void LocalOpManager::mergeSettings(Json::Value& dst, const Json::Value& src) {
  if (dst.isObject() && src.isObject()) {
    for (const auto& name : src.getMemberNames()) {
      if (dst[name].isObject()) {
        mergeSettings(dst[name], src[name]);
      } else {
        dst[name] = src[name];
      }
    }
  } else if (dst.isArray() && src.isArray() && dst.size() == src.size()) {
    for (Json::ArrayIndex i = 0; i < src.size(); ++i) mergeSettings(dst[i], src[i]);
  }
}

// ---------------------------------------------------------------- the server

void LocalOpManager::startTspServer() {
  QX_TRACE_FUNCTION("LocalOpManager::startTspServer");
  VSKTspServer::TspServer* started = nullptr;
  {
    StateLock state(*this);
    exportPlaceholders("");
    if (!tspServer) {
      static std::once_flag kindsRegistered;
      std::call_once(kindsRegistered, [] {
        VSKTspServer::registerWattlineKinds(VSKTspServer::registerExperimentKind);
      });
      tspServer = std::make_unique<VSKTspServer::TspServer>();
      tspServer->port = tspPort();
      started = tspServer.get();
      std::thread([started] {
        try {
          started->run();
        } catch (const std::exception& e) {
          QX_LOG_ERROR("TSP Server: %s", e.what());
        }
      }).detach();
    }
  }
  if (started != nullptr) {
    // Only commands (this thread) terminate the server, so the object stays
    // while it is polled without the state lock.
    int waited = 0;
    while (!started->isStarted()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      waited += 100;
      if (waited >= 5000) {
        QX_LOG_ERROR("TSP Server: startup timeout.");
        break;
      }
    }
    trackTargets();
  }
  StateLock state(*this);
  if (tspServer && isCreateExperiment(settings)) tspServer->refreshLive();
}

void LocalOpManager::terminateTspServer() {
  QX_TRACE_FUNCTION("LocalOpManager::terminateTspServer");
  std::unique_ptr<VSKTspServer::TspServer> server;
  {
    StateLock state(*this);
    server = std::move(tspServer);
  }
  // Terminating waits for requests to drain; no lock of this class is held
  // meanwhile, so a tool event can go on.
  if (server) server->terminate();
}

VSKTspServer::TspServer* LocalOpManager::getTspServer() {
  StateLock state(*this);
  return tspServer.get();
}

VSKTspServer::DataBroker* LocalOpManager::broker() {
  return tspServer ? tspServer->getDataBroker() : nullptr;
}

// ---------------------------------------------------------------- targets

bool LocalOpManager::targetConnected(const std::string& target) {
  if (tools == nullptr) return false;
  std::lock_guard<std::recursive_mutex> tool(tools->toolMutex);
  bool connected = false;
  return tools->isTargetConnected(target, connected) == 0 && connected;
}

void LocalOpManager::trackTargets() {
  QX_TRACE_FUNCTION("LocalOpManager::trackTargets");
  if (!eventHandler) return;
  for (const auto& route : getAllRoutes()) {
    if (!targetConnected(route.source)) continue;
    {
      StateLock state(*this);
      if (std::find(sessionTargets.begin(), sessionTargets.end(), route.source) !=
          sessionTargets.end()) {
        continue;
      }
    }
    eventHandler->addTarget(route.source);
    StateLock state(*this);
    sessionTargets.push_back(route.source);
    sessionTargets.unique();
  }
}

void LocalOpManager::stopTrackingTargets() {
  std::list<std::string> names;
  {
    StateLock state(*this);
    names.swap(sessionTargets);
  }
  if (!eventHandler) return;
  for (const auto& name : names) eventHandler->removeTarget(name);
}

// ---------------------------------------------------------------- arming

void LocalOpManager::enableLiveTraces(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::enableLiveTraces");
  StateLock state(*this);
  for (const auto& route : getAllRoutes()) {
    // An empty target arms every connected target, as disableLiveTraces("")
    // disarms them all.
    if (!target.empty() && route.source != target) continue;
    const std::string& t = route.source;
    if (!targetConnected(t)) continue;
    if (route.receiver == "MTB" && isFeatureEnabled(settings, t, kFeatureMTB)) {
      try {
        QX_TRACE_FUNCTION("LocalOpManager::enableMTB");
        enableFeature(t, kFeatureMTB, true);
      } catch (const std::runtime_error& e) {
        QX_LOG_ERROR("enable MTB failed: %s", e.what());
      }
    } else if (route.receiver == "ETB" && isFeatureEnabled(settings, t, kFeatureETB)) {
      try {
        std::vector<std::string> cpus;
        {
          std::lock_guard<std::recursive_mutex> tool(tools->toolMutex);
          tools->getCpuNames(cpus);
        }
        haveBufferNode = false;
        for (const auto& name : cpus) {
          if (name.find("QBF") != std::string::npos || name.find("ETB") != std::string::npos) {
            haveBufferNode = true;
          }
        }
        showStatusMsg(t, "", true,
                      haveBufferNode ? std::string("ETB Trace enabled")
                                     : std::string("Trace Enabled. ") + kBufferNodeNote);
        QX_TRACE_FUNCTION("LocalOpManager::enableETB");
        enableFeature(t, kFeatureETB, true);
      } catch (const std::runtime_error& e) {
        QX_LOG_ERROR("enable ETB failed: %s", e.what());
      }
    } else if (route.receiver == "WL" && isFeatureEnabled(settings, t, kFeatureWattline)) {
      try {
        QX_TRACE_FUNCTION("LocalOpManager::enableWL");
        enableFeature(t, kFeatureWattline, true);
      } catch (const std::runtime_error& e) {
        QX_LOG_ERROR("enable WattlineT failed: %s", e.what());
      }
    }
  }
}

void LocalOpManager::disableLiveTraces(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::disableLiveTraces");
  StateLock state(*this);
  std::vector<std::string> targets;
  if (target.empty()) {
    for (const auto& entry : operations) targets.push_back(entry.first);
  } else {
    targets.push_back(target);
  }
  for (const auto& t : targets) {
    auto found = operations.find(t);
    if (found == operations.end()) continue;
    std::vector<std::string> features;
    // File captures have their own end.
    for (const auto& entry : found->second) {
      if (entry.first != kFeatureTDF) features.push_back(entry.first);
    }
    for (const auto& f : features) enableFeature(t, f, false);
  }
}

std::unique_ptr<LocalOpManager::CaptureOperation> LocalOpManager::makeOperation(
    const std::string& target, const std::string& feature) {
  OperationMaker maker;
  {
    std::lock_guard<std::mutex> guard(makersMutex);
    auto found = makers().find(feature);
    if (found != makers().end()) maker = found->second;
  }
  if (!maker) return nullptr;
  return maker(static_cast<int32_t>(id), tools, target, settings, this);
}

int32_t LocalOpManager::enableFeature(const std::string& target, const std::string& feature,
                                      bool enable) {
  QX_TRACE_FUNCTION("LocalOpManager::enableFeature");
  QX_TRACE_ARG("target", target.c_str());
  QX_TRACE_ARG("feature", feature.c_str());
  QX_TRACE_ARG("enable", enable ? "true" : "false");
  StateLock state(*this);
  auto& features = operations[target];
  auto found = features.find(feature);
  if (!enable) {
    if (found == features.end()) return -1;
    std::unique_ptr<CaptureOperation> op = std::move(found->second);
    features.erase(found);
    op->enable(false);
    return -1;
  }
  if (found != features.end()) {
    std::unique_ptr<CaptureOperation> old = std::move(found->second);
    features.erase(found);
    if (old->isCreated() && old->isEnabled()) old->enable(false);
  }
  if (!isKnownFeature(feature)) {
    throw std::runtime_error("Cannot enable unsupported feature " + feature);
  }
  // A known feature whose capture this build cannot make answers as one the
  // tools refused to create.
  std::unique_ptr<CaptureOperation> op = makeOperation(target, feature);
  if (op) {
    op->configure(settings[target][feature]["opProp"], broker());
    op->createHlOperation();
  }
  if (!op || !op->isCreated() || op->enable(true) != 0) {
    showStatusMsg(target, "", true, "Trace Cannot enable " + feature);
    throw std::runtime_error("Cannot enable " + feature);
  }
  uint32_t handle = op->getOperationHandle();
  features[feature] = std::move(op);
  return static_cast<int32_t>(handle);
}

uint32_t LocalOpManager::enableMTB(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::enableMTB");
  return static_cast<uint32_t>(enableFeature(target, kFeatureMTB, true));
}
uint32_t LocalOpManager::enableETB(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::enableETB");
  return static_cast<uint32_t>(enableFeature(target, kFeatureETB, true));
}
uint32_t LocalOpManager::enableWL(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::enableWL");
  return static_cast<uint32_t>(enableFeature(target, kFeatureWattline, true));
}
uint32_t LocalOpManager::disableMTB(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::disableMTB");
  return static_cast<uint32_t>(enableFeature(target, kFeatureMTB, false));
}
uint32_t LocalOpManager::disableETB(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::disableETB");
  return static_cast<uint32_t>(enableFeature(target, kFeatureETB, false));
}
uint32_t LocalOpManager::disableWL(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::disableWL");
  return static_cast<uint32_t>(enableFeature(target, kFeatureWattline, false));
}
uint32_t LocalOpManager::disableTDF(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::disableTDF");
  return static_cast<uint32_t>(enableFeature(target, kFeatureTDF, false));
}

// ---------------------------------------------------------------- file captures

void LocalOpManager::enableTDFTrace(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::enableTDFTrace");
  exportExprPlaceholderMetaData(target, kFeatureTDF);
  // The thread keeps the manager alive until the file capture has ended.
  std::thread([self = shared_from_this(), target] { self->enableTDF(target); }).detach();
}

void LocalOpManager::enableTDF(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::enableTDF");
  try {
    enableFeature(target, kFeatureTDF, true);
    onDataCollecting(target);
    onDataReady(target, "TDF opened");
    disableTDF(target);
  } catch (const std::runtime_error& e) {
    disableTDF(target);
    QX_LOG_ERROR("%s", e.what());
    showStatusMsg(target, "", true, e.what());
  } catch (const std::exception& e) {
    QX_LOG_ERROR("LocalOpManager::enableTDF: %s", e.what());
  }
}

// ---------------------------------------------------------------- export

low::promise<void> LocalOpManager::exportCaptureToCSV(const std::string& target,
                                                      const std::string& feature,
                                                      const std::string& file) {
  QX_TRACE_FUNCTION("LocalOpManager::exportCaptureToCSV");
  if (tools == nullptr) return low::rejected(std::runtime_error("An internal error occurred"));
  StateLock state(*this);
  const std::runtime_error notFound("Cannot find trace operation for " + target);
  auto byTarget = operations.find(target);
  if (byTarget == operations.end()) return low::rejected(notFound);
  if (feature == kFeatureTDF) {
    if (!tspServer || tspServer->exportCaptureToCSV(target, feature, file) != 0) {
      throw std::runtime_error("An error occurred while exporting data to csv file");
    }
    low::promise<void> done;
    done.resolve();
    return done;
  }
  auto op = byTarget->second.find(feature);
  if (op == byTarget->second.end()) return low::rejected(notFound);
  low::promise<void> result;
  // The manager outlives the chain only weakly: a session that ended before
  // the capture did has no server left to export through.
  std::weak_ptr<LocalOpManager> weak = weak_from_this();
  op->second->getDataReady().then(result, [weak, target, feature, file] {
    std::shared_ptr<LocalOpManager> self = weak.lock();
    VSKTspServer::TspServer* server = self ? self->getTspServer() : nullptr;
    if (server == nullptr) throw std::runtime_error("Trace has not been configured");
    if (server->exportCaptureToCSV(target, feature, file) != 0) {
      throw std::runtime_error("An error occurred while exporting data to csv file");
    }
  });
  return result;
}

Json::Value LocalOpManager::dataLocation(const std::string& target) {
  StateLock state(*this);
  return dataLocations[target];
}

int32_t LocalOpManager::captureState(const std::string& target, const std::string& feature) {
  StateLock state(*this);
  auto t = operations.find(target);
  if (t == operations.end()) return -1;
  auto f = t->second.find(feature);
  return f == t->second.end() ? -1 : static_cast<int32_t>(f->second->getState());
}

bool LocalOpManager::hasOperationEntry(const std::string& target) {
  StateLock state(*this);
  return operations.count(target) != 0;
}
