#include "source_utilities/uLogger.hpp"

#include <cstdio>
#include <cstring>

#include "source_utilities/uTime.hpp"

namespace QX_NLV {

namespace {
const char* timeFormat(int mode) {
  switch (mode) {
    case 1:
      return "%m/%d/%y | ";
    case 2:
      return "%H:%M:%S:%s | ";
    case 3:
      return "%m/%d/%y %H:%M:%S:%s | ";
    default:
      return nullptr;
  }
}
}  // namespace

uLogger::uLogger(const char* path, bool append)
    : path_(path != nullptr ? path : ""),
      append_(append),
      buffer_(std::make_unique<char[]>(kBufferSize)) {}

uLogger::~uLogger() {
  uMutexGuard guard(lock_);
  file_.close();
  fileOpen_ = false;
}

bool uLogger::setEnabled(bool enabled) {
  uMutexGuard guard(lock_);
  bool previous = enabled_;
  enabled_ = enabled;
  if (!enabled) {
    file_.close();
    fileOpen_ = false;
  }
  return previous;
}

void uLogger::setToConsole(bool on) {
  uMutexGuard guard(lock_);
  toConsole_ = on;
}

void uLogger::setToDebugger(bool on) {
  uMutexGuard guard(lock_);
  toDebugger_ = on;
}

bool uLogger::enabled() const {
  uMutexGuard guard(lock_);
  return enabled_;
}

void uLogger::log(uint32_t categories, int timeMode, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlog(categories, timeMode, format, args);
  va_end(args);
}

void uLogger::message(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlog(1, 0, format, args);
  va_end(args);
}

void uLogger::vlog(uint32_t categories, int timeMode, const char* format, va_list args) {
  if (categories == 0 || flagMask_ == 0 || format == nullptr) return;
  uMutexGuard guard(lock_);
  if (!enabled_) return;

  char* buffer = buffer_.get();
  // One byte stays free for the closing line feed, one for the NUL.
  const size_t limit = bufferSize_ - 2;
  int used = std::snprintf(buffer, bufferSize_, "%c%c%c%c%c ", (categories & 1) ? 'M' : ' ',
                           (categories & 2) ? 'W' : ' ', (categories & 4) ? 'F' : ' ',
                           (categories & 8) ? 'A' : ' ', (categories & 16) ? 'E' : ' ');
  size_t length = static_cast<size_t>(used);

  if (const char* stamp = timeFormat(timeMode)) {
    uTime now;
    if (now.format(buffer + length, static_cast<int>(limit - length), stamp) != nullptr) {
      length += std::strlen(buffer + length);
    }
  }

  int wanted = std::vsnprintf(buffer + length, limit - length + 1, format, args);
  if (wanted > 0) length = std::min(limit, length + static_cast<size_t>(wanted));

  // Exactly one line feed ends a record, whatever ending the format had.
  if (length > 0 && (buffer[length - 1] == '\n' || buffer[length - 1] == '\r')) {
    char last = buffer[--length];
    char other = last == '\n' ? '\r' : '\n';
    if (length > 0 && buffer[length - 1] == other) --length;
  }
  buffer[length++] = '\n';
  buffer[length] = '\0';

  if (!fileOpen_) fileOpen_ = file_.open(path_.c_str(), append_ ? "a+" : "w+");
  if (fileOpen_) {
    file_.write(buffer, length);
    file_.flush();
  }
  if (toConsole_) {
    std::fwrite(buffer, 1, length, stdout);
    std::fflush(stdout);
  }
  // toDebugger_: this platform has no debug output channel.
}

}  // namespace QX_NLV
