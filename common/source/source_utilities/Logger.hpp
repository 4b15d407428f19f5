// Logger: the process-wide log of the module's own diagnostics.
//
// A singleton made on first use and never destroyed. Until init() has run
// (through bootstrap(), at the first call into the trace application) the
// level is 0 and every guarded log statement is silent. level and current are
// read without a lock: they change only inside init().
//
// Use the QX_* macros below; they test the level before any formatting cost.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "source_utilities/uLogger.hpp"

class Logger {
 public:
  // Below this many bytes free, no log file is begun.
  static constexpr uint64_t kMinimumFreeBytes = 5'120'000;

  static Logger& instance();

  bool init(const char* fileName, const char* levelVariable, const char* directoryVariable,
            bool named);
  QX_NLV::uLogger* find(const char* fileName);

  // Once per process: settles QX_TRACE_DEBUGCLIENT_PID, creates and
  // publishes the logging, data and settings directories, and opens
  // qx_trace_log_<month><day><year>_<pid>.txt. Any failure leaves the module
  // without a log.
  static void bootstrap();
  // The log file name for a date and a process id text.
  static std::string logFileName(int month, int day, int year, const std::string& pid);

  int level() const { return level_.load(std::memory_order_relaxed); }
  QX_NLV::uLogger* current() const { return current_.load(std::memory_order_acquire); }
  int initCount() const { return initCount_; }

  // Writes through `current`; does nothing while there is none.
  void log(uint32_t categories, int timeMode, const char* format, ...)
      __attribute__((format(printf, 4, 5)));

  // Source path as logged: the file's path below the source root, without
  // its extension.
  static std::string sourcePath(const char* file);

  // At unload of the module (or process end): log statements become no-ops
  // and every instance is freed, so a host that unloads the module keeps
  // nothing of it.
  void releaseAll();

  // Tests only: back to the state before the first init (instances stay
  // alive, as in a real process).
  void resetForTesting();

 private:
  Logger() = default;

  std::atomic<QX_NLV::uLogger*> current_{nullptr};
  std::atomic<int> level_{0};
  bool named_ = false;    // guarded by initMutex_
  int initCount_ = 0;     // guarded by initMutex_
  std::map<std::string, QX_NLV::uLogger*> loggers_;  // guarded by initMutex_
  std::vector<QX_NLV::uLogger*> instances_;  // guarded by initMutex_; every instance made
  std::mutex initMutex_;  // guards init against a concurrent init
};

#define QX_LOG_LEVEL() (::Logger::instance().level())

// Function trace, long form: source path, line, qualified name.
#define QX_TRACE_FUNCTION(name)                                                         \
  do {                                                                                  \
    if (QX_LOG_LEVEL() >= 3)                                                            \
      ::Logger::instance().log(::QX_NLV::kLogFunction, 0, "%s #%d  %s(...)\n",          \
                               ::Logger::sourcePath(__FILE__).c_str(), __LINE__, name); \
  } while (0)

// Function trace, short form: a name or a formatted call text.
#define QX_TRACE_NAME(...)                                                  \
  do {                                                                      \
    if (QX_LOG_LEVEL() >= 3) ::Logger::instance().log(::QX_NLV::kLogFunction, 0, __VA_ARGS__); \
  } while (0)

// Argument trace: "name: value".
#define QX_TRACE_ARG(name, value)                                                             \
  do {                                                                                        \
    if (QX_LOG_LEVEL() >= 3)                                                                  \
      ::Logger::instance().log(::QX_NLV::kLogArgument, 0, "%s: %s\n", name, value);           \
  } while (0)

#define QX_LOG_MESSAGE(...)                                                                   \
  do {                                                                                        \
    if (QX_LOG_LEVEL() >= 1) ::Logger::instance().log(::QX_NLV::kLogMessage, 2, __VA_ARGS__); \
  } while (0)

#define QX_LOG_WARNING(...)                                                                   \
  do {                                                                                        \
    if (QX_LOG_LEVEL() >= 1) ::Logger::instance().log(::QX_NLV::kLogWarning, 0, __VA_ARGS__); \
  } while (0)

#define QX_LOG_ERROR(...)                                                                   \
  do {                                                                                      \
    if (QX_LOG_LEVEL() >= 1) ::Logger::instance().log(::QX_NLV::kLogError, 2, __VA_ARGS__); \
  } while (0)
