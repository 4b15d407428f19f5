// CloudHLClientEventIf: what the tool client passes on from the tool's job
// events. Implemented by the capture side's event handler.
//
// Threads: called on threads of the tool library; must not throw.
#pragma once

#include <cstdint>

class CloudHLClientEventIf {
 public:
  // The target is about to run: captures re-arm. Gives the handler's result.
  virtual int32_t onRunSetup(const char* target) = 0;
  // The debug session of the target changed.
  virtual void onSessionChanged(const char* target) = 0;

 protected:
  ~CloudHLClientEventIf() = default;
};
