// The one place where this module meets Linux.
//
// Every platform question (path separator, library file names, the user's
// home, free disk space, the process list) is decided here and nowhere else.
// All functions are thread-safe and raise nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace QX_NLV::platform {

// Paths are joined with this separator; a backslash in a path from a client
// is read as a separator too.
inline constexpr char kPathSeparator = '/';

// The file a library name loads: "X" or "X.dll" loads "libX.so"; a name with
// a directory, "<dir>/X", loads "<dir>/libX.so". A name already of the form
// "lib*.so" is kept.
std::string libraryFileName(const std::string& name);

// The user's home for the per-user tree: $USERPROFILE when set and not
// empty, else $HOME. Empty when neither is set.
std::string homeDirectory();

// Bytes available to the caller on the volume holding `path` (the current
// directory when empty), or nullopt when the query fails.
std::optional<uint64_t> freeBytes(const std::string& path);

// True when a process with this id is running. Id 0 is never found.
bool processRunning(uint32_t pid);

// This process's id.
uint32_t currentProcessId();

// Full path of the loaded object (executable or shared library) that holds
// `address`; empty when it cannot be told.
std::string objectPathOf(const void* address);

}  // namespace QX_NLV::platform
