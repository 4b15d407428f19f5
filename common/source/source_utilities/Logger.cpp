#include "source_utilities/Logger.hpp"

#include <cstdlib>
#include <new>
#include <exception>

#include "source_utilities/Platform.hpp"
#include "source_utilities/uEnvironment.hpp"
#include "source_utilities/uTime.hpp"

namespace {

struct LevelSettings {
  int level;
  bool enabled;
  bool toConsole;
  bool toDebugger;
};

// What each value of the level variable turns on. Values outside 1..6 keep
// their number as the level but switch the file off.
LevelSettings settingsFor(int value) {
  switch (value) {
    case 1:
      return {1, true, false, false};
    case 2:
      return {1, true, true, false};
    case 3:
      return {2, true, false, false};
    case 4:
      return {2, true, true, false};
    case 5:
      return {2, true, true, true};
    case 6:
      return {3, true, true, true};
    default:
      return {value, false, false, false};
  }
}

}  // namespace

namespace {
// Destroyed with the module's other globals; its constructor does nothing.
struct LoggerRelease {
  ~LoggerRelease() { Logger::instance().releaseAll(); }
} loggerRelease;
}  // namespace

Logger& Logger::instance() {
  // Never destroyed: log statements may run during static destruction (they
  // do nothing once releaseAll has run). The object lives in static storage
  // rather than on the heap, so unloading the module leaves nothing behind.
  alignas(Logger) static unsigned char storage[sizeof(Logger)];
  static Logger* logger = new (storage) Logger();
  return *logger;
}

QX_NLV::uLogger* Logger::find(const char* fileName) {
  if (fileName == nullptr) return nullptr;
  auto it = loggers_.find(fileName);
  return it == loggers_.end() ? nullptr : it->second;
}

bool Logger::init(const char* fileName, const char* levelVariable, const char* directoryVariable,
                  bool named) {
  if (fileName == nullptr || levelVariable == nullptr) return false;
  std::unique_lock<std::mutex> guard(initMutex_);
  named_ = named;
  if (named) {
    if (auto* existing = find(fileName)) {
      current_.store(existing, std::memory_order_release);
      return true;
    }
  } else if (current() != nullptr) {
    return true;
  }

  std::string directory;
  if (directoryVariable != nullptr) directory = QX_NLV::getEnvironment(directoryVariable);
  std::string path = fileName;
  if (!directory.empty()) {
    path = directory;
    QX_NLV::joinPath(path, fileName);
  }

  auto available = QX_NLV::platform::freeBytes(directory);
  if (!available || *available < kMinimumFreeBytes) return false;
  if (!directory.empty()) QX_NLV::makeDirectories(directory.c_str());

  const char* levelText = QX_NLV::getEnvironment(levelVariable);
  int value = *levelText == '\0' ? 0 : std::atoi(levelText);

  auto* created = new QX_NLV::uLogger(path.c_str(), true);  // kept in instances_, never freed
  LevelSettings settings = settingsFor(value);
  created->setEnabled(settings.enabled);
  created->setToConsole(settings.toConsole);
  created->setToDebugger(settings.toDebugger);
  instances_.push_back(created);
  if (named) loggers_[fileName] = created;
  ++initCount_;
  current_.store(created, std::memory_order_release);
  level_.store(settings.level, std::memory_order_relaxed);
  guard.unlock();

  std::string settingsDir;
  std::string dataDir;
  try {
    QX_NLV::settingsDirectory(settingsDir);
    QX_NLV::dataDirectory(dataDir);
  } catch (const std::exception&) {
  }
  QX_LOG_MESSAGE("Logger : trace user settings directory is %s", settingsDir.c_str());
  QX_LOG_MESSAGE("Logger : trace temporary data directory is %s", dataDir.c_str());
  return true;
}

void Logger::log(uint32_t categories, int timeMode, const char* format, ...) {
  QX_NLV::uLogger* logger = current();
  if (logger == nullptr) return;
  va_list args;
  va_start(args, format);
  logger->vlog(categories, timeMode, format, args);
  va_end(args);
}

std::string Logger::sourcePath(const char* file) {
  std::string path = file != nullptr ? file : "";
  // A compiler cache that rewrites paths relative to the build directory
  // leaves "../" in front of the source-root path; the log names the file
  // from the source root either way.
  while (path.rfind("../", 0) == 0 || path.rfind("./", 0) == 0) path.erase(0, path.find('/') + 1);
  auto slash = path.find_last_of('/');
  auto dot = path.find_last_of('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) path.resize(dot);
  return path;
}

std::string Logger::logFileName(int month, int day, int year, const std::string& pid) {
  return "qx_trace_log_" + std::to_string(month) + std::to_string(day) + std::to_string(year) +
         "_" + pid + ".txt";
}

void Logger::bootstrap() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::string pid;
    std::string logDir;
    std::string dataDir;
    std::string settingsDir;
    try {
      pid = QX_NLV::getEnvironment("QX_TRACE_DEBUGCLIENT_PID");
      if (!pid.empty()) {
        // A variable inherited from a debug client that has gone is stale.
        char* end = nullptr;
        unsigned long value = std::strtoul(pid.c_str(), &end, 10);
        if (end == pid.c_str() || QX_NLV::processExists(static_cast<uint32_t>(value)) == 0) {
          pid.clear();
        }
      }
      if (pid.empty()) {
        pid = std::to_string(QX_NLV::platform::currentProcessId());
        QX_NLV::setEnvironment("QX_TRACE_DEBUGCLIENT_PID", pid.c_str());
      }
      QX_NLV::loggingDirectory(logDir);
      QX_NLV::dataDirectory(dataDir);
      QX_NLV::settingsDirectory(settingsDir);
      QX_NLV::setEnvironment("QX_TRACE_LOGGING_DIR", logDir.c_str());
      QX_NLV::setEnvironment("QX_TRACE_DATA_DIR", dataDir.c_str());
      QX_NLV::setEnvironment("QX_TRACE_SETTINGS_DIR", settingsDir.c_str());
    } catch (const std::exception&) {
      // No profile directory: the module runs without a log.
    }
    try {
      QX_NLV::uTime now;
      std::string name = logFileName(now.month(), now.day(), now.year(), pid);
      instance().init(name.c_str(), "QX_TRACE_LOGGING", "QX_TRACE_LOGGING_DIR", true);
    } catch (const std::exception&) {
    }
  });
}

void Logger::releaseAll() {
  std::lock_guard<std::mutex> guard(initMutex_);
  current_.store(nullptr, std::memory_order_release);
  level_.store(0, std::memory_order_relaxed);
  loggers_.clear();
  for (auto* instance : instances_) delete instance;
  // The Logger itself is never destroyed, so its containers must give their
  // memory back here.
  std::vector<QX_NLV::uLogger*>().swap(instances_);
  initCount_ = 0;
}

void Logger::resetForTesting() {
  std::lock_guard<std::mutex> guard(initMutex_);
  current_.store(nullptr);
  level_.store(0);
  initCount_ = 0;
  // Instances stay alive (in instances_), as in a real process: a thread may
  // still log through a pointer it read before the reset.
  loggers_.clear();
}
