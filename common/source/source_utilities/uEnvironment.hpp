// Environment variables, per-user directories and paths.
//
// Thread-safe. Functions that compute a directory create it (with its
// parents) and raise source_utilities_error with a fixed text when the user's
// home cannot be told.
#pragma once

#include <cstdint>
#include <string>

namespace QX_NLV {

// The value, or "" for a variable that is not set. The text stays valid until
// the same thread's next call. A null name raises.
const char* getEnvironment(const char* name);
// Sets the variable for this process. A null name or value raises.
void setEnvironment(const char* name, const char* value);

// Appends a separator when `path` is not empty and does not end in one, then
// `segment`; turns either separator into the platform's and collapses doubles.
std::string& joinPath(std::string& path, const char* segment);
// Creates every directory along `path`; existing ones are no error. Gives
// whether the last one exists afterwards.
bool makeDirectories(const char* path);

std::string& currentDirectory(std::string& out);
// <home>/.QX-trace, where home is $USERPROFILE, else $HOME.
std::string& userDirectory(std::string& out);
std::string& loggingDirectory(std::string& out);   // the user directory, created
std::string& dataDirectory(std::string& out);      // <user>/data, created
std::string& settingsDirectory(std::string& out);  // <user>/settings, created

// The id if a process with that id runs, else 0.
uint32_t processExists(uint32_t pid);

// The install base: the module's own path cut after "vsk_base/"; the whole
// path when the word is missing; empty when the module cannot be found.
std::string baseDirectory();

}  // namespace QX_NLV
