// The logger factory library: a closed logger that carries the raw JSON
// traffic between host and module. Only the two factory functions and the
// fourth slot of ILogger are used.
//
// Our stand-in (toolsim/qx_logger, libqx_logger.so) is switched on by the
// environment variable OSTRAND_JSON_LOG: a file path, or "-" for standard
// error. Unset, IsCurrentInstanceEnabled() gives false.
#pragma once

#include <cstdint>

namespace Logging {

class ILogger {
 public:
  virtual int Version() = 0;
  virtual void SetEnabled(bool enabled) = 0;
  virtual bool IsEnabled() = 0;
  // context: caller's value; facility and level: the caller's fixed numbers
  // (41 and 3 from the command translator); kind 2 incoming text or start of
  // destruction, kind 3 outgoing text or end of destruction.
  virtual void Write(uint64_t context, int facility, int level, int kind, const char* text) = 0;

 protected:
  ~ILogger() = default;  // owned by the library
};

class __attribute__((visibility("default"))) LoggerFactory {
 public:
  static ILogger* Instance();
  static bool IsCurrentInstanceEnabled();
};

}  // namespace Logging
