// The install tree of the build with the simulated tool libraries, copies
// of it to break, and the simulation's control entry points.
#pragma once

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "sim/SimControl.hpp"

namespace toolinstall {

namespace fs = std::filesystem;

// <build>/vsk_base/, with its trailing separator, as the module's base.
inline std::string base() { return std::string(OSTRAND_BUILD_DIR) + "/vsk_base/"; }
inline std::string toolDir() { return base() + "emulation/analysis/bin/"; }

// A copy of the tool libraries (and what lies beside them) under `into`,
// shaped like an install tree; gives its base with a trailing separator.
inline std::string copyTree(const fs::path& into) {
  fs::create_directories(into / "vsk_base");
  for (const char* part : {"emulation", "ProbeHost"}) {
    fs::copy(base() + part, into / "vsk_base" / part, fs::copy_options::recursive);
  }
  return (into / "vsk_base").string() + "/";
}

// A control entry point of the simulation of the build tree (loaded on
// first use, as the gate loads it).
template <typename F>
F control(const char* name) {
  static void* library = dlopen((toolDir() + "libhemlock.so").c_str(), RTLD_NOW);
  return library != nullptr ? reinterpret_cast<F>(dlsym(library, name)) : nullptr;
}

// Polls `condition` for up to five seconds: the simulation reports on
// threads of its own.
inline bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 500; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return condition();
}

}  // namespace toolinstall
