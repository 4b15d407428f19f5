// CloudTraceEventHandler: hears the trace channels of the decoder library
// (channel events, operation progress, file loads, device configuration
// requests) and passes the channel words on to CloudHemlock's listeners.
//
// One instance per process, made by CTraceApp::TraceInit; `notifications`
// (CloudHemlock) is borrowed and may be null, then events are only stored.
// Threads: called on threads of the decoder library. `lock` is recursive and
// held across notify(), so across the decoding of a capture: a second
// thread's channel event waits until that is done. Nothing leaves
// OnChannelEvent: an exception of a listener ends there with a log record,
// and the lock is given back in every case.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "source_utilities/uMutex.hpp"
#include "tool_access/CloudHemlockNotificationIF.hpp"
#include "trace/ChannelClient.hpp"

class CloudTraceEventHandler : public Qx::Nlv::Trace::ChannelClient,
                               public Qx::Nlv::Trace::CDeviceConfigEvents {
 public:
  CloudTraceEventHandler(CloudHemlockNotificationIF* notifications,
                         std::unique_ptr<QX_NLV::uMutex> lock);
  CloudTraceEventHandler(const CloudTraceEventHandler&) = delete;
  CloudTraceEventHandler& operator=(const CloudTraceEventHandler&) = delete;
  virtual ~CloudTraceEventHandler();

  void OnChannelEvent(const char* cpu, const Qx::Nlv::Trace::ChannelEvent& event) override;
  void OnTraceOperationStart(const char* cpu, uint32_t id, const char* text) override;
  void OnTraceOperationProgress(const char* cpu, uint32_t id, const char* text,
                                double progress) override;
  void OnTraceOperationEnd(const char* cpu, uint32_t id, const char* text,
                           double progress) override;
  void OnFileLoaded(const char* cpu, const char* file, const char* text) override;
  void reservedE() override {}
  void OnDeviceConfig(const char* cpu, const void* ignored, std::string& text) override;

  void Lock();
  // false when the calling thread did not own the lock.
  bool Unlock();

  // The channel word of an event kind, or null for a kind without one.
  static const char* channelWord(int32_t kind);

  void setNotifications(CloudHemlockNotificationIF* target);
  void setDeviceConfig(const std::string& text);
  // The last event as stored; the caller holds no lock (tests, diagnostics).
  std::string lastCpu();
  int32_t lastEventKind();
  std::string lastEventText();

 private:
  std::string deviceConfig;  // guarded by lock
  std::unique_ptr<QX_NLV::uMutex> lock;
  CloudHemlockNotificationIF* notifications = nullptr;  // guarded by lock
  std::string cpuName;    // guarded by lock
  int32_t eventKind = 0;  // guarded by lock
  std::string eventText;  // guarded by lock
  uint8_t eventFlags[5] = {0, 0, 0, 0, 0};  // guarded by lock
};
