#include "wattline/WLStreamStats.hpp"

#include <algorithm>
#include <cstring>

namespace VSKTspServer {

namespace {

// Functions built twice, for wide vectors and for any processor, the
// choice made once when the library loads. Not under the thread sanitizer:
// its instrumentation of the loader's choice runs before it is ready.
#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#define WL_WIDE_VECTORS __attribute__((target_clones("arch=x86-64-v4", "default")))
#else
#define WL_WIDE_VECTORS
#endif

// Milliwatts between two samples. The energy counter wraps at 32 bits and
// between two samples at most once, so the step is the 32-bit difference.
double powerOf(uint64_t t0, uint64_t t1, uint32_t e0, uint32_t e1) {
  const double dt = static_cast<double>(static_cast<int64_t>(t1 - t0)) / 1e6;
  const double dE = static_cast<double>(static_cast<uint32_t>(e1 - e0));
  return dE / 10000.0 / dt;
}

// The lowest and highest of x[0..n) exactly as a walk in order with
// "v < lo" and "hi < v" leaves them: values that compare equal have the
// same bits, but for 0 and -0, where the walk keeps the first it met;
// a NaN is never taken. So the order of the comparisons does not matter
// but for a zero extreme, which is then looked up.
WL_WIDE_VECTORS Extremes extremes(const double* x, size_t n) {
  using Doubles = double __attribute__((vector_size(64)));
  Doubles lo8 = {DBL_MAX, DBL_MAX, DBL_MAX, DBL_MAX, DBL_MAX, DBL_MAX, DBL_MAX, DBL_MAX};
  Doubles hi8 = -lo8;
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    Doubles v;
    std::memcpy(&v, x + i, sizeof v);
    lo8 = v < lo8 ? v : lo8;
    hi8 = hi8 < v ? v : hi8;
  }
  Extremes r{DBL_MAX, -DBL_MAX};
  for (int k = 0; k < 8; ++k) {
    r.lo = lo8[k] < r.lo ? lo8[k] : r.lo;
    r.hi = r.hi < hi8[k] ? hi8[k] : r.hi;
  }
  for (; i < n; ++i) {
    r.lo = x[i] < r.lo ? x[i] : r.lo;
    r.hi = r.hi < x[i] ? x[i] : r.hi;
  }
  if (r.lo == 0.0) r.lo = *std::find(x, x + n, 0.0);
  if (r.hi == 0.0) r.hi = *std::find(x, x + n, 0.0);
  return r;
}

// The samples of a block but the first power sample. Five divisions a
// record are most of the work; where the processor has wide vectors they
// run eight at a time. Division and conversion round exactly at any
// width, so each build gives the same bits.
WL_WIDE_VECTORS void samples(const uint64_t* t, const uint32_t* e, const uint32_t* c,
                             const uint16_t* v, size_t n, double* power, double* current,
                             double* voltage) {
  using Doubles = double __attribute__((vector_size(64)));
  using Words64 = uint64_t __attribute__((vector_size(64)));
  using Signed64 = int64_t __attribute__((vector_size(64)));
  using Words32 = uint32_t __attribute__((vector_size(32)));
  using Words16 = uint16_t __attribute__((vector_size(16)));
  auto load = [](auto& to, const void* from) { std::memcpy(&to, from, sizeof to); };
  size_t i = 1;
  for (; i + 8 <= n; i += 8) {
    Words64 t0, t1;
    Words32 e0, e1;
    load(t0, t + i - 1);
    load(t1, t + i);
    load(e0, e + i - 1);
    load(e1, e + i);
    const Doubles dt = __builtin_convertvector(reinterpret_cast<Signed64>(t1 - t0), Doubles) / 1e6;
    const Doubles dE = __builtin_convertvector(e1 - e0, Doubles);
    const Doubles p = dE / 10000.0 / dt;
    std::memcpy(power + i, &p, sizeof p);
  }
  for (; i < n; ++i) power[i] = powerOf(t[i - 1], t[i], e[i - 1], e[i]);
  for (i = 0; i + 8 <= n; i += 8) {
    Words32 c8;
    Words16 v8;
    load(c8, c + i);
    load(v8, v + i);
    const Doubles mA = __builtin_convertvector(c8, Doubles) / 1e6;
    const Doubles volts = __builtin_convertvector(v8, Doubles) / 1000.0;
    std::memcpy(current + i, &mA, sizeof mA);
    std::memcpy(voltage + i, &volts, sizeof volts);
  }
  for (; i < n; ++i) {
    current[i] = c[i] / 1e6;
    voltage[i] = v[i] / 1000.0;
  }
}

}  // namespace

void Accumulator::merge(Extremes e, size_t n) {
  count += static_cast<int64_t>(n);
  min = std::min(min, e.lo);
  max = std::max(max, e.hi);
}

void StatsRun::feed(const uint64_t* t, const uint32_t* e, const uint32_t* c, const uint16_t* v,
                    size_t n) {
  if (n == 0) return;
  double power[kStatsBlock], current[kStatsBlock], voltage[kStatsBlock];
  power[0] = started_ ? powerOf(lastTime_, t[0], lastEnergy_, e[0]) : 0.0;
  samples(t, e, c, v, n, power, current, voltage);
  // The first record of a range has no power sample: there is no step
  // into it. The sums must go in order; the extremes need not (see
  // extremes()), so they are taken over the whole block at once.
  const size_t p0 = started_ ? 0 : 1;
  double ps = power_.sum, cs = current_.sum, vs = voltage_.sum;
  if (p0 == 0) ps += power[0];
  cs += current[0];
  vs += voltage[0];
  for (size_t i = 1; i < n; ++i) {
    ps += power[i];
    cs += current[i];
    vs += voltage[i];
  }
  power_.sum = ps;
  current_.sum = cs;
  voltage_.sum = vs;
  if (n > p0) power_.merge(extremes(power + p0, n - p0), n - p0);
  current_.merge(extremes(current, n), n);
  voltage_.merge(extremes(voltage, n), n);
  started_ = true;
  lastTime_ = t[n - 1];
  lastEnergy_ = e[n - 1];
}

}  // namespace VSKTspServer
