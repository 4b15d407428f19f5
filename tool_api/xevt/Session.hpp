// The session manager and a session: the module's view of the debug session
// (live) or of a stored configuration (a file).
//
// Ownership: every session opened is given back with releaseSession in the
// same operation. Devices, target objects and strings a session gives stay
// valid until it is released; operation servers outlive it (the module
// releases them). Error texts are copied into the caller's buffer,
// NUL-terminated and cut to its size. Threads: one caller at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "xevt/Device.hpp"
#include "xevt/OperationServer.hpp"
#include "xevt/TargetObject.hpp"

namespace Qx::Nlv::Xevt {

// Buffer size the module gives for error texts.
inline constexpr size_t kErrorTextSize = 1024;

class ISession {
 public:
  virtual uint32_t deviceCount() = 0;
  // Fills up to `count` devices into `devices`.
  virtual void getDevices(IDevice** devices, uint32_t count) = 0;
  // Null with the reason in errorText.
  virtual IOperationServer* getSubOperationServer(const char* target, char* errorText,
                                                  size_t size) = 0;
  virtual IOperationServer* getOperationServer(const char* target, char* errorText,
                                               size_t size) = 0;
  virtual ITargetObject* getTargetObject(const char* target, char* errorText, size_t size) = 0;

 protected:
  ~ISession() = default;
};

class ISessionManager {
 public:
  // Null with the reason in errorText when there is no debug session.
  virtual ISession* openLiveSession(char* errorText, size_t size) = 0;
  // A session on a stored configuration (a .tdf file).
  virtual ISession* openFileSession(const char* fileName, char* errorText, size_t size) = 0;
  virtual void releaseSession(ISession* session) = 0;

 protected:
  ~ISessionManager() = default;
};

}  // namespace Qx::Nlv::Xevt
