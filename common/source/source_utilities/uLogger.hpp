// QX_NLV::uLogger: one log file.
//
// Thread-safe: every record is composed and written under the instance's
// lock. The file opens at the first record, not at construction; a file that
// cannot be opened loses that record and is tried again by the next one.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

#include "source_utilities/uFile.hpp"
#include "source_utilities/uMutex.hpp"

namespace QX_NLV {

// Category bits of a record, letters M W F A E in this order.
enum LogCategory : uint32_t {
  kLogMessage = 1,
  kLogWarning = 2,
  kLogFunction = 4,
  kLogArgument = 8,
  kLogError = 16,
};

class uLogger {
 public:
  static constexpr int kBufferSize = 4096;

  uLogger(const char* path, bool append);
  uLogger(const uLogger&) = delete;
  uLogger& operator=(const uLogger&) = delete;
  virtual ~uLogger();

  // Gives the previous value. Turning off closes the file.
  bool setEnabled(bool enabled);
  void setToConsole(bool on);
  void setToDebugger(bool on);

  // One record: category letters, time stamp of `timeMode` (0 to 3), the
  // formatted text and exactly one line feed. A record longer than the
  // buffer is cut, its line feed kept.
  void log(uint32_t categories, int timeMode, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  void vlog(uint32_t categories, int timeMode, const char* format, va_list args);
  // Category M, no time stamp.
  void message(const char* format, ...) __attribute__((format(printf, 2, 3)));

  const std::string& path() const { return path_; }
  bool enabled() const;

 private:
  uFile file_;  // guarded by lock_
  std::string path_;
  bool enabled_ = true;    // guarded by lock_
  bool toConsole_ = false;  // guarded by lock_
  bool toDebugger_ = false;  // guarded by lock_; no debug output on this platform
  bool append_;
  bool fileOpen_ = false;  // guarded by lock_
  mutable uMutex lock_;
  uint32_t bufferSize_ = kBufferSize;
  std::unique_ptr<char[]> buffer_;  // guarded by lock_
  uint32_t flagMask_ = 31;
};

}  // namespace QX_NLV
