#include "source_utilities/uFile.hpp"

namespace QX_NLV {

uFile::~uFile() { close(); }

bool uFile::open(const char* name, const char* mode) {
  uMutexGuard guard(lock_);
  name_ = name != nullptr ? name : "";
  mode_ = mode;
  if (stream_ != nullptr) std::fclose(stream_);
  // fopen on Linux never locks the file, so other processes may share it.
  stream_ = (mode != nullptr) ? std::fopen(name_.c_str(), mode) : nullptr;
  isOpen_ = stream_ != nullptr;
  return isOpen_;
}

bool uFile::close() {
  uMutexGuard guard(lock_);
  isOpen_ = false;
  if (stream_ == nullptr) return false;
  // fclose releases the stream even when it fails, so it is never closed
  // twice; the failure shows in isOpen() staying true.
  bool closed = std::fclose(stream_) == 0;
  stream_ = nullptr;
  isOpen_ = !closed;
  return closed;
}

bool uFile::flush() {
  if (!isOpen_) return false;
  uMutexGuard guard(lock_);
  return stream_ != nullptr && std::fflush(stream_) == 0;
}

size_t uFile::write(const void* data, size_t size) {
  if (!isOpen_) return 0;
  uMutexGuard guard(lock_);
  return stream_ != nullptr ? std::fwrite(data, 1, size, stream_) : 0;
}

}  // namespace QX_NLV
