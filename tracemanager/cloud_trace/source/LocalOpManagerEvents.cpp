// LocalOpManager: what the tool side reports. Entered on the tool library's
// threads through EventHandler, and on the file-capture thread.
#include <mutex>

#include "cloud_trace/source/CaptureOperation.hpp"
#include "cloud_trace/source/LocalOpManager.hpp"
#include "source_utilities/Logger.hpp"
#include "tool_access/CloudHemlock.hpp"
#include "tsp_server/TspServer.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

const char* const kBufferNodeNote =
    "Note: Connect device's QBF/ETB node for faster processing (to make it visible right-click "
    "on any core in the Debug view and choose Show All Cores)";

}  // namespace

// ---------------------------------------------------------------- state lock

LocalOpManager::StateLock::StateLock(LocalOpManager& manager) : m(manager) {
  m.stateMutex.lock();
  if (m.stateDepth++ == 0) m.stateOwner.store(std::this_thread::get_id());
}

LocalOpManager::StateLock::~StateLock() {
  std::vector<HeldTraceEvent> events;
  if (--m.stateDepth == 0) {
    m.stateOwner.store(std::thread::id());
    events.swap(m.heldEvents);
  }
  m.stateMutex.unlock();
  for (const auto& [target, handle, event, desc] : events) {
    try {
      m.traceEventSignal(target, handle, event, desc);
    } catch (const std::exception& e) {
      QX_LOG_ERROR("LocalOpManager: trace event %s failed: %s", event.c_str(), e.what());
    } catch (...) {
      QX_LOG_ERROR("LocalOpManager: trace event %s failed", event.c_str());
    }
  }
}

void LocalOpManager::raiseTraceEvent(const std::string& target, const std::string& handle,
                                     const std::string& event, const std::string& desc) {
  if (stateOwner.load() == std::this_thread::get_id()) {
    // This thread holds stateMutex (the owner is only ever set to the
    // holding thread), so heldEvents is ours to touch.
    heldEvents.emplace_back(target, handle, event, desc);
    return;
  }
  traceEventSignal(target, handle, event, desc);
}

void LocalOpManager::showStatusMsg(const std::string& target, const std::string& handle,
                                   bool show, const std::string& text) {
  Json::Value status(Json::objectValue);
  status["showStatusMsg"] = show;
  status["statusMsg"] = show ? text : std::string();
  raiseTraceEvent(target, handle, "Collecting", Json::FastWriter().write(status));
}

// ---------------------------------------------------------------- events

void LocalOpManager::onTargetEvent(const char* target, int32_t state) {
  QX_TRACE_FUNCTION("LocalOpManager::onTargetEvent");
  QX_TRACE_ARG("target", target != nullptr ? target : "");
  QX_TRACE_ARG("state", std::to_string(state).c_str());
  if (target == nullptr || state != 7) return;
  std::lock_guard<std::mutex> events(eventMutex);
  StateLock lock(*this);
  auto found = operations.find(target);
  if (found == operations.end()) return;
  for (auto& [feature, op] : found->second) {
    if (!op->isSyncWithTarget()) continue;
    if (feature == kFeatureETB) {
      showStatusMsg(target, "", true,
                    haveBufferNode ? std::string("Trace Processing")
                                   : std::string("Trace Processing. ") + kBufferNodeNote);
    }
    if (tools != nullptr) {
      std::lock_guard<std::recursive_mutex> tool(tools->toolMutex);
      tools->stopRecording(op->getOperationHandle());
    }
  }
}

void LocalOpManager::onSessionEvent(const std::string& eventName, const Json::Value& info) {
  QX_TRACE_FUNCTION("LocalOpManager::onSessionEvent");
  QX_TRACE_ARG("eventName", eventName.c_str());
  QX_TRACE_ARG("info", Json::FastWriter().write(info).c_str());
  if (eventName == "DebugSessionStarted") {
    StateLock lock(*this);
    if (tspServer) pendingRefresh = true;
  } else if (eventName == "DebugSessionUpdated") {
    if (!info.isNull() && info.isObject() && info["added"].isArray()) pendingRefresh = true;
  }
}

int32_t LocalOpManager::doRunSetup(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::doRunSetup");
  eventMutex.lock();
  {
    std::lock_guard<std::mutex> queue(queueMutex);
    deferredEvents.clear();  // what the last run left behind no longer applies
  }
  try {
    StateLock lock(*this);
    disableLiveTraces(target);
    removeTargetDir(target, "");
    exportPlaceholders(target);
    if (tspServer) tspServer->refresh("");
    enableLiveTraces(target);
  } catch (const std::exception& e) {
    QX_LOG_ERROR("LocalOpManager::doRunSetup: %s", e.what());
  }
  {
    std::lock_guard<std::mutex> queue(queueMutex);
    deferredEvents.push_front({target, "traceChannelRecording", ""});
  }
  // eventMutex stays taken while the queue drains: channel events that come
  // meanwhile line up behind the recording event instead of overtaking it.
  for (;;) {
    DeferredEvent next;
    {
      std::lock_guard<std::mutex> queue(queueMutex);
      if (deferredEvents.empty()) {
        eventMutex.unlock();
        break;
      }
      next = std::move(deferredEvents.front());
      deferredEvents.pop_front();
    }
    if (QX_LOG_LEVEL() >= 3) {
      ::Logger::instance().log(QX_NLV::kLogMessage, 0, "Process queued up event: %s/%s",
                               next.target.c_str(), next.event.c_str());
    }
    try {
      handleEvent(next);
    } catch (const std::exception& e) {
      QX_LOG_ERROR("LocalOpManager::doRunSetup: %s/%s: %s", next.target.c_str(),
                   next.event.c_str(), e.what());
    }
  }
  return 0;
}

void LocalOpManager::deliverChannelEvent(const DeferredEvent& event) {
  {
    std::unique_lock<std::mutex> queue(queueMutex);
    if (!eventMutex.try_lock()) {
      if (QX_LOG_LEVEL() >= 3) {
        ::Logger::instance().log(QX_NLV::kLogMessage, 0, "Queue up event: %s/%s",
                                 event.target.c_str(), event.event.c_str());
      }
      deferredEvents.push_back(event);
      return;
    }
    eventMutex.unlock();
  }
  hlTargetEvent(event);
}

size_t LocalOpManager::deferredCount() {
  std::lock_guard<std::mutex> queue(queueMutex);
  return deferredEvents.size();
}

void LocalOpManager::hlTargetEvent(const DeferredEvent& event) {
  std::lock_guard<std::mutex> events(eventMutex);
  handleEvent(event);
}

void LocalOpManager::handleEvent(const DeferredEvent& e) {
  QX_TRACE_FUNCTION("LocalOpManager::hlTargetEvent");
  QX_TRACE_ARG("target", e.target.c_str());
  QX_TRACE_ARG("event", e.event.c_str());
  QX_TRACE_ARG("desc", e.desc.c_str());
  if (e.event == "traceChannelRecording") {
    onDataCollecting(e.target);
  } else if (e.event == "traceChannelStoppedFull") {
    onDataReady(e.target, "Full");
  } else if (e.event == "traceChannelStoppedTrigger") {
    onDataReady(e.target, "Trigger");
  } else if (e.event == "traceChannelStoppedUserRequest") {
    onDataReady(e.target, "UserRequest");
  }
}

void LocalOpManager::onDataCollecting(const std::string& target) {
  {
    StateLock lock(*this);
    auto found = operations.find(target);
    if (found == operations.end() || found->second.empty()) return;
    for (auto& [feature, op] : found->second) op->onDataCollecting();
  }
  showStatusMsg(target, "", true, "Collecting data");
}

void LocalOpManager::processTraceData(const std::string& target) {
  QX_TRACE_FUNCTION("LocalOpManager::processTraceData");
  StateLock lock(*this);
  auto found = operations.find(target);
  if (found == operations.end()) return;
  for (auto& [feature, op] : found->second) op->onDataReady();
}

void LocalOpManager::onDataReady(const std::string& target, const std::string& reason) {
  QX_TRACE_FUNCTION("LocalOpManager::onDataReady");
  QX_TRACE_ARG("event", reason.c_str());
  processTraceData(target);
  {
    StateLock lock(*this);
    if (tspServer) tspServer->refresh("");
  }
  raiseTraceEvent(target, "", "DataReady", reason);
  showStatusMsg(target, "", false, "Don't care msg");
}
