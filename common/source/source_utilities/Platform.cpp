#include "source_utilities/Platform.hpp"

#include <dlfcn.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <sys/stat.h>

namespace QX_NLV::platform {

std::string libraryFileName(const std::string& name) {
  std::string dir;
  std::string base = name;
  if (auto slash = name.find_last_of("/\\"); slash != std::string::npos) {
    dir = name.substr(0, slash + 1);
    base = name.substr(slash + 1);
  }
  // Every ".dll" goes: the names a client gives are those of the original
  // platform, the loader here wants lib<name>.so.
  for (auto pos = base.find(".dll"); pos != std::string::npos; pos = base.find(".dll")) {
    base.erase(pos, 4);
  }
  if (base.empty()) return {};
  bool hasPrefix = base.rfind("lib", 0) == 0;
  bool hasSuffix = base.find(".so") != std::string::npos;  // also "libm.so.6"
  if (!(hasPrefix && hasSuffix)) base = "lib" + base + ".so";
  return dir + base;
}

std::string homeDirectory() {
  for (const char* var : {"USERPROFILE", "HOME"}) {
    const char* value = std::getenv(var);
    if (value != nullptr && *value != '\0') return value;
  }
  return {};
}

std::optional<uint64_t> freeBytes(const std::string& path) {
  struct statvfs info {};
  if (::statvfs(path.empty() ? "." : path.c_str(), &info) != 0) return std::nullopt;
  return static_cast<uint64_t>(info.f_bavail) * info.f_frsize;
}

bool processRunning(uint32_t pid) {
  if (pid == 0) return false;
  struct stat st {};
  return ::stat(("/proc/" + std::to_string(pid)).c_str(), &st) == 0;
}

uint32_t currentProcessId() { return static_cast<uint32_t>(::getpid()); }

std::string objectPathOf(const void* address) {
  Dl_info info{};
  if (::dladdr(address, &info) == 0 || info.dli_fname == nullptr) return {};
  std::string path = info.dli_fname;
  // The main program reports its name as invoked; resolve it fully.
  if (path.find('/') == std::string::npos || path[0] != '/') {
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved) != nullptr) return resolved;
    ssize_t n = ::readlink("/proc/self/exe", resolved, sizeof(resolved) - 1);
    if (n > 0) return std::string(resolved, static_cast<size_t>(n));
  }
  return path;
}

}  // namespace QX_NLV::platform
