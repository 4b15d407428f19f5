// The statistics of a power stream: power, current and voltage over a run
// of records fed in file order, a block at a time.
//
// Every range, whether summed by the pass of WLDataNode::decode or asked for
// later by computeStats, goes through this one piece of code in the same
// order, so a range gives the same bits whichever way it was asked for.
// Not thread-safe; one run per thread.
#pragma once

#include <cfloat>
#include <cstddef>
#include <cstdint>

#include "wattline/WLDataNode.hpp"

namespace VSKTspServer {

// Records per step of the statistics: their fields and samples stay in the
// first-level cache.
constexpr size_t kStatsBlock = 1024;

struct Extremes {
  double lo, hi;
};

// Count, sum and extremes of one quantity.
struct Accumulator {
  int64_t count = 0;
  double sum = 0.0;
  double min = DBL_MAX;
  double max = -DBL_MAX;

  // `n` more values whose sum is already in `sum` and whose extremes, as a
  // walk in order would have found them, are `e`.
  void merge(Extremes e, size_t n);
  ValueStats stats() const { return {count, min, max, sum / static_cast<double>(count)}; }
};

class StatsRun {
 public:
  // Records t/e/c/v[0..n), n at most kStatsBlock, following those fed before.
  void feed(const uint64_t* t, const uint32_t* e, const uint32_t* c, const uint16_t* v, size_t n);
  ValueStats power() const { return power_.stats(); }
  ValueStats current() const { return current_.stats(); }
  ValueStats voltage() const { return voltage_.stats(); }

 private:
  Accumulator power_, current_, voltage_;
  bool started_ = false;
  uint64_t lastTime_ = 0;
  uint32_t lastEnergy_ = 0;
};

}  // namespace VSKTspServer
