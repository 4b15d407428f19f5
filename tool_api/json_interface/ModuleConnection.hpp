// The text interface between a host and a JSON interface module.
//
// The host implements HostConnection; the module implements
// ModuleConnection. Both are plain virtual tables read in slot order, so
// their layout must not change. Text crosses as NUL-terminated 8-bit JSON.
//
// Exports of a module (plain C names):
//   const char* const* ListJSONInterfaceModules(uint32_t* count);
//   ModuleConnection*  CreateJSONInterfaceModule(const char* name, HostConnection* host);
//   void               InitializeSymbolManagerAPI(void* api);
//   void               InitializeDisAsmManagerAPI(void* api);
//   void*              CreateServer();
#pragma once

#include <cstdint>

// The host's side. receive() may be called on any thread, also while the
// module holds locks of its own: it must return without waiting for the
// module. `text` is valid only during the call.
class HostConnection {
 public:
  virtual void receive(const char* text) = 0;
  virtual void closed() = 0;

 protected:
  ~HostConnection() = default;  // the module never deletes a host object
};

namespace JSONInterface::ExternalModule {

// The module's side. send() copies the text and returns at once; every answer
// arrives later through HostConnection::receive. release() ends the
// connection and frees the object before it returns.
class ModuleConnection {
 public:
  virtual void send(const char* message) = 0;
  virtual void release() = 0;
  virtual ~ModuleConnection() = default;
};

}  // namespace JSONInterface::ExternalModule

extern "C" {
using ListJSONInterfaceModulesFn = const char* const* (*)(uint32_t* count);
using CreateJSONInterfaceModuleFn =
    JSONInterface::ExternalModule::ModuleConnection* (*)(const char* name, HostConnection* host);
using InitializeApiFn = void (*)(void* api);
using CreateServerFn = void* (*)();
}
