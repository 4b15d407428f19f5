#include "WorkQueue.hpp"
#include "promise.hpp"

namespace low {

void resolveDeferred(const promise<void>& p) {
  WorkQueue::instance().post([p] { p.resolve(); });
}

}  // namespace low
