#include "kit/ModuleLoader.hpp"

#include <dlfcn.h>
#include <sys/stat.h>

namespace ostrand::hostkit {

ModuleLoader::~ModuleLoader() { unload(); }

bool ModuleLoader::load(const std::string& path) {
  unload();
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    error_ = "module not found: " + path;
    return false;
  }
  handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char* reason = ::dlerror();
    error_ = "cannot load module " + path + ": " + (reason != nullptr ? reason : "unknown error");
    return false;
  }
  auto bind = [this](const char* name) { return ::dlsym(handle_, name); };
  listModules = reinterpret_cast<ListJSONInterfaceModulesFn>(bind("ListJSONInterfaceModules"));
  createModule = reinterpret_cast<CreateJSONInterfaceModuleFn>(bind("CreateJSONInterfaceModule"));
  initializeSymbolManager = reinterpret_cast<InitializeApiFn>(bind("InitializeSymbolManagerAPI"));
  initializeDisAsmManager = reinterpret_cast<InitializeApiFn>(bind("InitializeDisAsmManagerAPI"));
  createServer = reinterpret_cast<CreateServerFn>(bind("CreateServer"));
  if (listModules == nullptr || createModule == nullptr) {
    error_ = path + " is not a JSON interface module (ListJSONInterfaceModules or "
                    "CreateJSONInterfaceModule missing)";
    unload();
    return false;
  }
  return true;
}

void ModuleLoader::unload() {
  if (handle_ != nullptr) ::dlclose(handle_);
  handle_ = nullptr;
  listModules = nullptr;
  createModule = nullptr;
  initializeSymbolManager = nullptr;
  initializeDisAsmManager = nullptr;
  createServer = nullptr;
}

}  // namespace ostrand::hostkit
