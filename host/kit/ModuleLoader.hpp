// ModuleLoader: loads a JSON interface module at run time, as a debug host
// does, and binds its exports by their plain C names.
//
// Not thread-safe; one loader per module. The destructor unloads the module,
// which stops its worker and tells every connection still open closed().
#pragma once

#include <string>

#include "json_interface/ModuleConnection.hpp"

namespace ostrand::hostkit {

class ModuleLoader {
 public:
  ModuleLoader() = default;
  ~ModuleLoader();
  ModuleLoader(const ModuleLoader&) = delete;
  ModuleLoader& operator=(const ModuleLoader&) = delete;

  // Gives false with a reason in error() when the file is missing, is not a
  // loadable library, or lacks one of the required exports.
  bool load(const std::string& path);
  void unload();
  const std::string& error() const { return error_; }

  ListJSONInterfaceModulesFn listModules = nullptr;
  CreateJSONInterfaceModuleFn createModule = nullptr;
  InitializeApiFn initializeSymbolManager = nullptr;
  InitializeApiFn initializeDisAsmManager = nullptr;
  CreateServerFn createServer = nullptr;

 private:
  void* handle_ = nullptr;
  std::string error_;
};

}  // namespace ostrand::hostkit
