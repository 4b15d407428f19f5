#include "tool_access/CloudTraceEventHandler.hpp"

#include <exception>
#include <functional>
#include <thread>

#include "hemlock/hemlockErrorIF.hpp"
#include "source_utilities/Logger.hpp"

namespace {

// Thread ids as the log shows them.
long threadNumber(std::thread::id id) {
  if (id == std::thread::id()) return 0;
  return static_cast<long>(std::hash<std::thread::id>()(id));
}

long thisThread() { return threadNumber(std::this_thread::get_id()); }

// Message records of the channel: level 3 only.
#define CTRACE_MESSAGE(...)                                                                   \
  do {                                                                                        \
    if (QX_LOG_LEVEL() >= 3) ::Logger::instance().log(::QX_NLV::kLogMessage, 2, __VA_ARGS__); \
  } while (0)

}  // namespace

CloudTraceEventHandler::CloudTraceEventHandler(CloudHemlockNotificationIF* notifications,
                                               std::unique_ptr<QX_NLV::uMutex> lock)
    : lock(lock ? std::move(lock) : std::make_unique<QX_NLV::uMutex>()),
      notifications(notifications) {}

CloudTraceEventHandler::~CloudTraceEventHandler() = default;

const char* CloudTraceEventHandler::channelWord(int32_t kind) {
  using namespace Qx::Nlv::Trace;
  switch (kind) {
    case kChannelRecording: return "traceChannelRecording";
    case kChannelReading: return "traceChannelReading";
    case kChannelStoppedFull: return "traceChannelStoppedFull";
    case kChannelStoppedTrigger: return "traceChannelStoppedTrigger";
    case kChannelStoppedError: return "traceChannelStoppedError";
    case kChannelStoppedUserRequest: return "traceChannelStoppedUserRequest";
    case kChannelStoppedTraceTrigger: return "traceChannelStoppedTraceTrigger";
    default: return nullptr;
  }
}

void CloudTraceEventHandler::OnChannelEvent(const char* cpu,
                                            const Qx::Nlv::Trace::ChannelEvent& event) {
  const char* cpuText = cpu != nullptr ? cpu : "";
  CTRACE_MESSAGE("CTRACE: Entering OnChannelEvent() for CPU '%s': %s", cpuText,
                 event.text.c_str());
  Lock();
  // The decoding of a capture runs inside notify() and may fail with an
  // exception; the decoder library has no way to hear it, so it ends here,
  // and the lock is given back in every case.
  try {
    cpuName = cpuText;
    eventKind = event.kind;
    eventText = event.text;
    for (int i = 0; i < 5; ++i) eventFlags[i] = event.flags[i];
    const char* word = channelWord(event.kind);
    if (word != nullptr && notifications != nullptr) {
      notifications->notify(cpuName, word, event.text);
    }
  } catch (const std::exception& e) {
    QX_LOG_ERROR("CTRACE: OnChannelEvent() for CPU '%s' failed: %s", cpuText, e.what());
  } catch (const Qx::Nlv::Hemlock::hemlockErrorIF& e) {
    QX_LOG_ERROR("CTRACE: OnChannelEvent() for CPU '%s' failed: %s", cpuText,
                 e.GetErrorText());
  } catch (...) {
    QX_LOG_ERROR("CTRACE: OnChannelEvent() for CPU '%s' failed: unexpected exception",
                 cpuText);
  }
  Unlock();
}

void CloudTraceEventHandler::OnTraceOperationStart(const char* cpu, uint32_t id,
                                                   const char* text) {
  CTRACE_MESSAGE("OnTraceOperationStart %s %u %s", cpu != nullptr ? cpu : "", id,
                 text != nullptr ? text : "");
}

void CloudTraceEventHandler::OnTraceOperationProgress(const char* cpu, uint32_t id,
                                                      const char* text, double progress) {
  CTRACE_MESSAGE("OnTraceOperationProgress %s %u %s %f", cpu != nullptr ? cpu : "", id,
                 text != nullptr ? text : "", progress);
}

void CloudTraceEventHandler::OnTraceOperationEnd(const char* cpu, uint32_t id, const char* text,
                                                 double progress) {
  CTRACE_MESSAGE("OnTraceOperationEnd %s %u %s %f", cpu != nullptr ? cpu : "", id,
                 text != nullptr ? text : "", progress);
}

void CloudTraceEventHandler::OnFileLoaded(const char* cpu, const char* file, const char* text) {
  const char* cpuText = cpu != nullptr ? cpu : "";
  QX_LOG_MESSAGE("CTRACE: Entering OnFileLoaded() for CPU '%s': %s, %s", cpuText,
                 file != nullptr ? file : "", text != nullptr ? text : "");
  QX_NLV::uMutexGuard guard(*lock);
  cpuName = cpuText;
}

void CloudTraceEventHandler::OnDeviceConfig(const char* cpu, const void*, std::string& text) {
  QX_NLV::uMutexGuard guard(*lock);
  cpuName = cpu != nullptr ? cpu : "";
  text = deviceConfig;
}

void CloudTraceEventHandler::Lock() {
  CTRACE_MESSAGE("CTRACE: CloudTraceEventHandler::Lock(): Thread %ld attempting to lock...",
                 thisThread());
  lock->lock();
  CTRACE_MESSAGE("CTRACE: CloudTraceEventHandler::Lock(): Lock obtained by thread %ld.",
                 threadNumber(lock->owner()));
}

bool CloudTraceEventHandler::Unlock() {
  long caller = thisThread();
  long owner = threadNumber(lock->owner());
  CTRACE_MESSAGE(
      "CTRACE: CloudTraceEventHandler::Unlock(): Thread %ld is trying to remove lock owned by "
      "thread %ld ... ",
      caller, owner);
  if (!lock->unlock()) {
    QX_LOG_ERROR(
        "CTRACE: CloudTraceEventHandler::Unlock(): Thread %ld FAILED to remove lock owned by "
        "thread %ld ... ",
        caller, owner);
    return false;
  }
  CTRACE_MESSAGE("CTRACE: CloudTraceEventHandler::Unlock(): Thread %ld successfully removed lock.",
                 caller);
  return true;
}

void CloudTraceEventHandler::setNotifications(CloudHemlockNotificationIF* target) {
  QX_NLV::uMutexGuard guard(*lock);
  notifications = target;
}

void CloudTraceEventHandler::setDeviceConfig(const std::string& text) {
  QX_NLV::uMutexGuard guard(*lock);
  deviceConfig = text;
}

std::string CloudTraceEventHandler::lastCpu() {
  QX_NLV::uMutexGuard guard(*lock);
  return cpuName;
}

int32_t CloudTraceEventHandler::lastEventKind() {
  QX_NLV::uMutexGuard guard(*lock);
  return eventKind;
}

std::string CloudTraceEventHandler::lastEventText() {
  QX_NLV::uMutexGuard guard(*lock);
  return eventText;
}
