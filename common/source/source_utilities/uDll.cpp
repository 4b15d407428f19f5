#include "source_utilities/uDll.hpp"

#include <dlfcn.h>
#include <link.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "source_utilities/Logger.hpp"
#include "source_utilities/Platform.hpp"
#include "source_utilities/uEnvironment.hpp"

namespace QX_NLV {

namespace {
// A mode at or above this is "no mode given".
constexpr unsigned int kNoMode = 0xFFFFFFFEu;
}  // namespace

uDll::uDll(const char* name, unsigned int mode)
    : name_(name != nullptr ? name : ""), mode_(mode >= kNoMode ? 0 : mode) {}

uDll::~uDll() {
  if (handle_ != nullptr) ::dlclose(handle_);
}

bool uDll::FindAndLoad(const char* name, unsigned int mode) {
  QX_TRACE_FUNCTION("QX_NLV::uDll::FindAndLoad");
  if (name == nullptr) return false;
  if (handle_ != nullptr) return true;
  QX_LOG_MESSAGE("uDll:  request to load \"%s\" in mode %u", name, mode);

  std::string fileName = platform::libraryFileName(name);
  std::string workingDirectory;
  try {
    currentDirectory(workingDirectory);
  } catch (const std::exception&) {
  }
  QX_LOG_MESSAGE("uDll:  GetPlatformName returned \"%s\"", fileName.c_str());
  QX_LOG_MESSAGE("uDll:  Working Directory is: \"%s\"", workingDirectory.c_str());
  QX_LOG_MESSAGE("uDll:  LD_LIBRARY_PATH=%s", getEnvironment("LD_LIBRARY_PATH"));

  name_ = fileName;
  if (mode < 0xFFFFFFFFu) mode_ = mode;
  if (fileName.empty()) return false;

  // The system's search: a bare file name goes through the loader's search
  // path and matches a library already loaded under that name.
  dlerror();
  handle_ = ::dlopen(fileName.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char* reason = dlerror();
    errorText_ = "failed to load " + fileName + " with error code " + std::to_string(errno) +
                 (reason != nullptr ? std::string(" (") + reason + ")" : std::string());
    QX_LOG_MESSAGE("uDll: %s", errorText_.c_str());
  }
  return handle_ != nullptr;
}

std::string& uDll::modulePath(std::string& out) const {
  if (handle_ == nullptr) return out;
  link_map* map = nullptr;
  if (::dlinfo(handle_, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr && map->l_name != nullptr) {
    char resolved[PATH_MAX];
    out += ::realpath(map->l_name, resolved) != nullptr ? resolved : map->l_name;
  }
  return out;
}

bool uDll::pin() const {
  if (handle_ == nullptr) return false;
  link_map* map = nullptr;
  if (::dlinfo(handle_, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr || map->l_name == nullptr) {
    return false;
  }
  // Opening the loaded library again with RTLD_NODELETE marks it for good;
  // the extra reference this takes is given back at once.
  void* again = ::dlopen(map->l_name, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
  if (again == nullptr) return false;
  ::dlclose(again);
  return true;
}

void* uDll::symbol(const char* name) const {
  if (handle_ == nullptr || name == nullptr) return nullptr;
  if (void* found = ::dlsym(handle_, name)) return found;
  return ::dlsym(handle_, (std::string("_") + name).c_str());
}

}  // namespace QX_NLV
