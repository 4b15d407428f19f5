#include "source_utilities/uEnvironment.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "source_utilities/Platform.hpp"
#include "source_utilities/SourceUtilitiesError.hpp"

namespace QX_NLV {

namespace {
// setenv and getenv race in glibc; every access of ours goes through here.
std::mutex environmentMutex;
constexpr size_t kMaxValue = 32768;
constexpr size_t kMaxWorkingDirectory = 4096;

char normalisedSeparator(char c) {
  return (c == '/' || c == '\\') ? platform::kPathSeparator : c;
}
}  // namespace

const char* getEnvironment(const char* name) {
  if (name == nullptr) throw source_utilities_error("failed set an environment variable name to null");
  // Each thread keeps its own copy: the text stays valid until that thread
  // asks again, whatever other threads do. A plain array, not a string: a
  // thread-local object with a destructor would pin the module in memory
  // (the loader cannot unload a library while a thread may still run such a
  // destructor).
  thread_local char value[kMaxValue];
  std::lock_guard<std::mutex> guard(environmentMutex);
  const char* raw = std::getenv(name);
  std::snprintf(value, sizeof value, "%s", raw != nullptr ? raw : "");
  return value;
}

void setEnvironment(const char* name, const char* value) {
  if (name == nullptr) throw source_utilities_error("failed set an environment variable name to null");
  if (value == nullptr) throw source_utilities_error("failed set an environment variable value to null");
  std::lock_guard<std::mutex> guard(environmentMutex);
  ::setenv(name, value, 1);
}

std::string& joinPath(std::string& path, const char* segment) {
  if (!path.empty() && path.back() != '/' && path.back() != '\\') path += platform::kPathSeparator;
  if (segment != nullptr) path += segment;
  std::string joined;
  joined.reserve(path.size());
  for (char c : path) {
    char s = normalisedSeparator(c);
    if (s == platform::kPathSeparator && !joined.empty() && joined.back() == s) continue;
    joined += s;
  }
  path.swap(joined);
  return path;
}

bool makeDirectories(const char* path) {
  if (path == nullptr || *path == '\0') return false;
  std::string normal;
  joinPath(normal, path);
  std::error_code ec;
  std::filesystem::create_directories(normal, ec);
  return std::filesystem::is_directory(normal, ec);
}

std::string& currentDirectory(std::string& out) {
  char buffer[kMaxWorkingDirectory];
  if (::getcwd(buffer, sizeof buffer) == nullptr) {
    throw source_utilities_error("failed to get current working directory");
  }
  out = buffer;
  return out;
}

std::string& userDirectory(std::string& out) {
  std::string home;
  {
    std::lock_guard<std::mutex> guard(environmentMutex);
    home = platform::homeDirectory();
  }
  if (home.empty()) throw source_utilities_error("failed to read environment variable \"USERPROFILE\"");
  out = home;
  joinPath(out, ".QX-trace");
  return out;
}

namespace {
std::string& createdUnderUser(std::string& out, const char* segment) {
  userDirectory(out);
  if (segment != nullptr) joinPath(out, segment);
  makeDirectories(out.c_str());
  return out;
}
}  // namespace

std::string& loggingDirectory(std::string& out) { return createdUnderUser(out, nullptr); }
std::string& dataDirectory(std::string& out) { return createdUnderUser(out, "data"); }
std::string& settingsDirectory(std::string& out) { return createdUnderUser(out, "settings"); }

uint32_t processExists(uint32_t pid) { return platform::processRunning(pid) ? pid : 0; }

std::string baseDirectory() {
  // The module's own file, wherever the host loaded it from.
  std::string path = platform::objectPathOf(reinterpret_cast<const void*>(&baseDirectory));
  if (path.empty()) return {};
  const std::string word = "vsk_base";
  auto pos = path.rfind(word);
  if (pos == std::string::npos) return path;
  return path.substr(0, std::min(path.size(), pos + word.size() + 1));
}

}  // namespace QX_NLV
