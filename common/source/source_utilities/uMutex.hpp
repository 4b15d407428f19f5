// QX_NLV::uMutex: a recursive mutex that knows its owner.
//
// Thread-safe. lock() may be taken again by the owning thread and needs as
// many unlock() calls; unlock() from a thread that does not own it gives
// false and changes nothing.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

namespace QX_NLV {

class uMutex {
 public:
  uMutex() = default;
  uMutex(const uMutex&) = delete;
  uMutex& operator=(const uMutex&) = delete;
  virtual ~uMutex() = default;

  bool lock();
  bool unlock();
  // The owning thread's id; a default-constructed id when free.
  std::thread::id owner() const { return owner_.load(); }

 private:
  std::recursive_mutex section_;
  int32_t lockCount_ = 0;  // guarded by section_
  std::atomic<std::thread::id> owner_{};
};

// Scoped lock on a uMutex.
class uMutexGuard {
 public:
  explicit uMutexGuard(uMutex& m) : m_(m) { m_.lock(); }
  ~uMutexGuard() { m_.unlock(); }
  uMutexGuard(const uMutexGuard&) = delete;
  uMutexGuard& operator=(const uMutexGuard&) = delete;

 private:
  uMutex& m_;
};

}  // namespace QX_NLV
