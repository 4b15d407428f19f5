// What the channel server and a decoder's device configuration manager call
// back: channel events (recording, stopped, ...), operation progress, file
// loads, and the device configuration request.
//
// Ownership: the listener belongs to the module and lives until the process
// ends. Threads: called on threads of the simulation or decoder library; a
// callback may run for long (the module decodes a capture inside
// OnChannelEvent) and must not throw.
#pragma once

#include <cstdint>
#include <string>

namespace Qx::Nlv::Trace {

// Channel event kinds the module acts on.
enum ChannelEventKind : int32_t {
  kChannelRecording = 6,
  kChannelReading = 7,
  kChannelStoppedFull = 8,
  kChannelStoppedTrigger = 9,
  kChannelStoppedError = 10,
  kChannelStoppedUserRequest = 11,
  kChannelStoppedTraceTrigger = 17,
};

struct ChannelEvent {
  int32_t kind = 0;
  std::string text;
  uint8_t flags[5] = {0, 0, 0, 0, 0};
};

class ChannelClient {
 public:
  virtual void OnChannelEvent(const char* cpu, const ChannelEvent& event) = 0;
  virtual void OnTraceOperationStart(const char* cpu, uint32_t id, const char* text) = 0;
  virtual void OnTraceOperationProgress(const char* cpu, uint32_t id, const char* text,
                                        double progress) = 0;
  virtual void OnTraceOperationEnd(const char* cpu, uint32_t id, const char* text,
                                   double progress) = 0;
  virtual void OnFileLoaded(const char* cpu, const char* file, const char* text) = 0;
  virtual void reservedE() = 0;

 protected:
  ~ChannelClient() = default;
};

class CDeviceConfigEvents {
 public:
  // The decoder asks for the device configuration text of `cpu`.
  virtual void OnDeviceConfig(const char* cpu, const void* ignored, std::string& text) = 0;

 protected:
  ~CDeviceConfigEvents() = default;
};

}  // namespace Qx::Nlv::Trace
