// Stand-in for the logger factory library: appends each JSON text it is given
// to the file named by OSTRAND_JSON_LOG ("-" for standard error), one record
// a line: local time with milliseconds, direction, the text.
#include "logging/LoggerFactory.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>

namespace {

class FileLogger final : public Logging::ILogger {
 public:
  FileLogger() {
    const char* target = std::getenv("OSTRAND_JSON_LOG");
    if (target == nullptr || *target == '\0') return;
    if (std::string(target) == "-") {
      out_ = stderr;
    } else {
      out_ = std::fopen(target, "a");
      if (out_ == nullptr) std::fprintf(stderr, "qx_logger: cannot open %s for the JSON log\n", target);
    }
    enabled_ = out_ != nullptr;
  }

  int Version() override { return 1; }
  void SetEnabled(bool enabled) override {
    std::lock_guard<std::mutex> guard(mutex_);
    enabled_ = enabled && out_ != nullptr;
  }
  bool IsEnabled() override {
    std::lock_guard<std::mutex> guard(mutex_);
    return enabled_;
  }

  void Write(uint64_t, int, int, int kind, const char* text) override {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!enabled_) return;
    auto now = std::chrono::system_clock::now();
    std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    int ms = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
    const char* direction = kind == 2 ? "->" : kind == 3 ? "<-" : "--";
    std::fprintf(out_, "%s.%03d %s %s\n", stamp, ms, direction, text != nullptr ? text : "");
    std::fflush(out_);
  }

 private:
  std::mutex mutex_;  // guards out_ writes and enabled_
  FILE* out_ = nullptr;
  bool enabled_ = false;
};

FileLogger& theLogger() {
  static FileLogger logger;  // lives until unload; the file closes with the process
  return logger;
}

}  // namespace

namespace Logging {

ILogger* LoggerFactory::Instance() { return &theLogger(); }
bool LoggerFactory::IsCurrentInstanceEnabled() { return theLogger().IsEnabled(); }

}  // namespace Logging
