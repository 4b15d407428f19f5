#include "source_utilities/uMutex.hpp"

namespace QX_NLV {

bool uMutex::lock() {
  section_.lock();
  owner_.store(std::this_thread::get_id());
  ++lockCount_;
  return true;
}

bool uMutex::unlock() {
  // Only the owner may read lockCount_ safely; anyone else is refused first.
  if (owner_.load() != std::this_thread::get_id()) return false;
  if (lockCount_ < 1) return false;
  if (--lockCount_ == 0) owner_.store(std::thread::id{});
  section_.unlock();
  return true;
}

}  // namespace QX_NLV
