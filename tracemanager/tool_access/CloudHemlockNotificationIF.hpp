// CloudHemlockNotificationIF: how the tool gate passes what the tool side
// reports (channel words of a trace channel, table sizes, whether a debug
// session exists) to the module's event handling.
//
// CloudHemlock implements it and forwards notify() to its listeners; the
// capture side's event handler implements it and is such a listener.
//
// Ownership: listeners are borrowed; whoever adds one removes it before
// destroying it. Threads: every operation is called on threads of the tool
// libraries, with CloudTraceEventHandler's lock held for notify(); an
// implementation must not throw.
#pragma once

#include <cstdint>
#include <string>

class CloudHemlockNotificationIF {
 public:
  // A decoded table of `handle` grew to `size` rows (`final`: no more come).
  virtual void tableSizeChanged(uint32_t handle, uint32_t size, bool final, uint32_t gaps) = 0;
  // A channel word ("traceChannelRecording", "traceChannelStoppedFull", ...)
  // for `target`, with the tool's description.
  virtual void notify(const std::string& target, const std::string& event,
                      const std::string& desc) = 0;
  virtual ~CloudHemlockNotificationIF() = default;
  // Whether a debug session (at least one CPU) exists.
  virtual void setAdapterPresent(bool present) = 0;
};
