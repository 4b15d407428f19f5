#include "json_interface/WorkQueue.hpp"
#include "json_interface/promise.hpp"

namespace low {

void resolveDeferred(const promise<void>& p) {
  WorkQueue::instance().post([p] { p.resolve(); });
}

}  // namespace low
