#include "WLDataNode.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <atomic>
#include <exception>
#include <functional>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "WLStateDecoders.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace VSKTspServer {

namespace detail {

void* mapZeroed(size_t bytes) {
  void* data = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (data == MAP_FAILED) throw std::bad_alloc();
  // Columns of a long capture are gigabytes; huge pages cut the page faults
  // of the first write by a factor of 512. Only a hint.
  if (bytes >= (size_t{8} << 20)) ::madvise(data, bytes, MADV_HUGEPAGE);
  return data;
}

void unmapZeroed(void* data, size_t bytes) noexcept { ::munmap(data, bytes); }

}  // namespace detail

namespace {

// About half a mebibyte per read: large enough that the system call costs
// nothing, small enough that the block stays in the core's cache while the
// decoder walks it.
constexpr size_t kBlockBytes = size_t{1} << 19;

template <typename T>
T loadLE(const uint8_t* p) {
  T value;
  std::memcpy(&value, p, sizeof value);  // the host is little-endian, like the file
  return value;
}

// A value of all ones in these fields means "no reading"; it shows as 0.
inline uint32_t currentOf(uint32_t raw) { return raw == 0xFFFFFFFFu ? 0 : raw; }
inline uint16_t voltageOf(uint16_t raw) { return raw == 0xFFFFu ? 0 : raw; }

struct Extremes {
  double lo, hi;
};

struct Accumulator {
  int64_t count = 0;
  double sum = 0.0;
  double min = DBL_MAX;
  double max = -DBL_MAX;

  // `n` more values whose sum is already in `sum` and whose extremes, as
  // add() would have found them, are `e`.
  void merge(Extremes e, size_t n) {
    count += static_cast<int64_t>(n);
    min = std::min(min, e.lo);
    max = std::max(max, e.hi);
  }

  void add(double v) {
    ++count;
    sum += v;
    min = std::min(min, v);
    max = std::max(max, v);
  }
  ValueStats stats() const { return {count, min, max, sum / static_cast<double>(count)}; }
};

// Records are decoded in groups of this many; block starts are multiples
// of it, so each group's slice of every column is 16-byte aligned.
constexpr uint64_t kGroup = 8;

// Columns larger than this are written with streaming stores: they cannot
// stay in the cache anyway, and a plain store would first read each line
// it writes.
constexpr uint64_t kStreamingBytes = uint64_t{8} << 20;

// Streams beyond this size are decoded by two threads. Most of the time of
// a first decode goes to the kernel supplying zeroed pages for the columns;
// two threads fault them in side by side.
constexpr uint64_t kParallelBytes = uint64_t{64} << 20;

// Records per share taken by a thread: a multiple of the records in a
// huge page of any column, so the threads seldom fault the same page, and
// small enough that one delayed thread holds up the other only briefly.
constexpr uint64_t kShareRecords = uint64_t{1} << 19;

struct ColumnPointers {
  uint64_t* t;
  uint32_t* w0;
  uint32_t* w1;
  uint32_t* c;
  uint16_t* v;
  uint32_t* e;
};

#if defined(__SSE2__)
template <bool kStream>
inline void put(void* to, __m128i value) {
  if constexpr (kStream) {
    _mm_stream_si128(static_cast<__m128i*>(to), value);
  } else {
    _mm_store_si128(static_cast<__m128i*>(to), value);
  }
}

// Four records in registers, one field per vector: the lanes are the
// records in file order.
struct Four {
  __m128i t01, t23;  // times of records 0-1 and 2-3, still with the tag in the low byte
  __m128i w0, w1;    // state words (records with two words only)
  __m128i c;         // currents, raw
  __m128i v;         // voltages, raw, in the low half of each lane
  __m128i e;         // energies
};

// Gathers four records of `kStride` bytes at `r` with unaligned 16-byte
// loads that all stay inside the records: bytes 0-15 hold tag, time and the
// two words; from 8 before the tail the current and voltage sit in the top
// two lanes; from 6 before it the energy sits in the top lane.
template <uint32_t kStride, uint32_t kTail>
inline Four gather4(const uint8_t* r) {
  // Written out rather than looped: at -O2 a loop over small arrays of
  // vectors goes through the stack.
  const auto load = [](const uint8_t* at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
  };
  const __m128i a[4] = {load(r), load(r + kStride), load(r + 2 * kStride), load(r + 3 * kStride)};
  const uint8_t* pAt = r + kTail - 8;
  const __m128i p[4] = {load(pAt), load(pAt + kStride), load(pAt + 2 * kStride),
                        load(pAt + 3 * kStride)};
  const uint8_t* qAt = r + kTail - 6;
  const __m128i q[4] = {load(qAt), load(qAt + kStride), load(qAt + 2 * kStride),
                        load(qAt + 3 * kStride)};
  Four f;
  f.t01 = _mm_unpacklo_epi64(a[0], a[1]);
  f.t23 = _mm_unpacklo_epi64(a[2], a[3]);
  if constexpr (kTail == 16) {
    const __m128 h01 = _mm_castsi128_ps(_mm_unpackhi_epi64(a[0], a[1]));
    const __m128 h23 = _mm_castsi128_ps(_mm_unpackhi_epi64(a[2], a[3]));
    f.w0 = _mm_castps_si128(_mm_shuffle_ps(h01, h23, _MM_SHUFFLE(2, 0, 2, 0)));
    f.w1 = _mm_castps_si128(_mm_shuffle_ps(h01, h23, _MM_SHUFFLE(3, 1, 3, 1)));
  } else {
    f.w0 = f.w1 = _mm_setzero_si128();
  }
  const __m128i cv01 = _mm_unpackhi_epi32(p[0], p[1]);
  const __m128i cv23 = _mm_unpackhi_epi32(p[2], p[3]);
  f.c = _mm_unpacklo_epi64(cv01, cv23);
  f.v = _mm_unpackhi_epi64(cv01, cv23);
  f.e = _mm_unpackhi_epi64(_mm_unpackhi_epi32(q[0], q[1]), _mm_unpackhi_epi32(q[2], q[3]));
  return f;
}

// Decodes `groups` groups of eight records of `kStride` bytes (tail fields
// at `kTail`) straight into the columns, whose slices are 16-byte aligned.
// Returns non-zero when some record's tag differs from `tag`.
template <uint32_t kStride, uint32_t kTail, bool kStream>
int decodeGroups(const uint8_t* bytes, uint64_t groups, uint8_t tag, ColumnPointers out) {
  const __m128i lowByte = _mm_set1_epi64x(0xFF);
  const __m128i tags = _mm_set1_epi64x(tag);
  const __m128i ones = _mm_set1_epi32(-1);
  __m128i wrong = _mm_setzero_si128();
  for (uint64_t g = 0; g < groups; ++g, bytes += 8 * kStride) {
    const Four x = gather4<kStride, kTail>(bytes);
    const Four y = gather4<kStride, kTail>(bytes + 4 * kStride);
    uint64_t* t = out.t + 8 * g;
    const auto head = [&](uint64_t* to, __m128i h) {
      wrong = _mm_or_si128(wrong, _mm_and_si128(_mm_xor_si128(h, tags), lowByte));
      put<kStream>(to, _mm_srli_epi64(h, 8));
    };
    head(t, x.t01);
    head(t + 2, x.t23);
    head(t + 4, y.t01);
    head(t + 6, y.t23);
    if constexpr (kTail == 16) {
      put<kStream>(out.w0 + 8 * g, x.w0);
      put<kStream>(out.w0 + 8 * g + 4, y.w0);
      put<kStream>(out.w1 + 8 * g, x.w1);
      put<kStream>(out.w1 + 8 * g + 4, y.w1);
    }
    // All ones means "no reading", shown as 0.
    put<kStream>(out.c + 8 * g, _mm_andnot_si128(_mm_cmpeq_epi32(x.c, ones), x.c));
    put<kStream>(out.c + 8 * g + 4, _mm_andnot_si128(_mm_cmpeq_epi32(y.c, ones), y.c));
    // Narrow the voltages to 16 bits: sign-extending the low half first
    // makes the saturating pack exact.
    const __m128i v = _mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(x.v, 16), 16),
                                      _mm_srai_epi32(_mm_slli_epi32(y.v, 16), 16));
    put<kStream>(out.v + 8 * g, _mm_andnot_si128(_mm_cmpeq_epi16(v, ones), v));
    put<kStream>(out.e + 8 * g, x.e);
    put<kStream>(out.e + 8 * g + 4, y.e);
  }
  return _mm_movemask_epi8(_mm_cmpeq_epi8(wrong, _mm_setzero_si128())) != 0xFFFF;
}

template <bool kStream>
int decodeGroups(bool words, const uint8_t* bytes, uint64_t groups, uint8_t tag,
                 ColumnPointers out) {
  return words ? decodeGroups<26, 16, kStream>(bytes, groups, tag, out)
               : decodeGroups<18, 8, kStream>(bytes, groups, tag, out);
}
#endif

// Functions built twice, for wide vectors and for any processor, the
// choice made once when the library loads. Not under the thread sanitizer:
// its instrumentation of the loader's choice runs before it is ready.
#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#define WL_WIDE_VECTORS __attribute__((target_clones("arch=x86-64-v4", "default")))
#else
#define WL_WIDE_VECTORS
#endif

// Records per step of the statistics: their fields and samples stay in the
// first-level cache.
constexpr size_t kStatsBlock = 1024;

// The statistics of a run of records fed in file order, a block at a time.
// Every range, whether summed by the pass of decode() or by computeStats,
// goes through this one piece of code in the same order, so a range gives
// the same bits whichever way it was asked for.
class StatsRun {
 public:
  void feed(const uint64_t* t, const uint32_t* e, const uint32_t* c, const uint16_t* v,
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
  ValueStats power() const { return power_.stats(); }
  ValueStats current() const { return current_.stats(); }
  ValueStats voltage() const { return voltage_.stats(); }

 private:
  // Milliwatts between two samples. The energy counter wraps at 32 bits and
  // between two samples at most once, so the step is the 32-bit difference.
  static double powerOf(uint64_t t0, uint64_t t1, uint32_t e0, uint32_t e1) {
    const double dt = static_cast<double>(static_cast<int64_t>(t1 - t0)) / 1e6;
    const double dE = static_cast<double>(static_cast<uint32_t>(e1 - e0));
    return dE / 10000.0 / dt;
  }

  // The lowest and highest of x[0..n) exactly as a walk in order with
  // "v < lo" and "hi < v" leaves them: values that compare equal have the
  // same bits, but for 0 and -0, where the walk keeps the first it met;
  // a NaN is never taken. So the order of the comparisons does not matter
  // but for a zero extreme, which is then looked up.
  WL_WIDE_VECTORS static Extremes extremes(
      const double* x, size_t n) {
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
  WL_WIDE_VECTORS static void samples(
      const uint64_t* t, const uint32_t* e, const uint32_t* c, const uint16_t* v, size_t n,
      double* power, double* current, double* voltage) {
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
      const Doubles dt =
          __builtin_convertvector(reinterpret_cast<Signed64>(t1 - t0), Doubles) / 1e6;
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

  Accumulator power_, current_, voltage_;
  bool started_ = false;
  uint64_t lastTime_ = 0;
  uint32_t lastEnergy_ = 0;
};

// One block of a mapped stream's records, `kTail` the offset of the current:
// the fields the statistics need, into the arrays. Returns the index of the
// first record whose tag is not `tag`, or `count`.
template <uint32_t kStride, uint32_t kTail>
size_t extractFixed(const uint8_t* r, size_t count, uint8_t tag, uint64_t* t, uint32_t* e,
                    uint32_t* c, uint16_t* v) {
  uint32_t wrong = 0;
  const uint8_t* at = r;
  for (size_t i = 0; i < count; ++i, at += kStride) {
    const uint64_t first8 = loadLE<uint64_t>(at);
    wrong |= static_cast<uint8_t>(first8) ^ tag;
    t[i] = first8 >> 8;
    c[i] = currentOf(loadLE<uint32_t>(at + kTail));
    v[i] = voltageOf(loadLE<uint16_t>(at + kTail + 4));
    e[i] = loadLE<uint32_t>(at + kTail + 6);
  }
  if (wrong == 0) return count;
  size_t bad = 0;
  while (r[bad * kStride] == tag) ++bad;
  return bad;
}

// Records handed at a time from the thread that reads the mapping to the
// one that sums the statistics, and the number of such chunks in flight.
constexpr uint64_t kChunkRecords = 8 * kStatsBlock;
constexpr size_t kChunkSlots = 4;

// The fields of a chunk of records that the statistics need.
struct Chunk {
  uint64_t from = 0;
  size_t count = 0;
  size_t good = 0;  // records before the first wrong tag
  alignas(64) uint64_t t[kChunkRecords];
  alignas(64) uint32_t e[kChunkRecords];
  alignas(64) uint32_t c[kChunkRecords];
  alignas(64) uint16_t v[kChunkRecords];
};

// `count` records at `r` (at most kChunkRecords) into 16-byte aligned arrays.
size_t extract(const uint8_t* r, size_t count, uint8_t tag, uint32_t stride, uint64_t* t,
               uint32_t* e, uint32_t* c, uint16_t* v) {
  if (stride == 18 || stride == 26) {
    size_t first = 0;
#if defined(__SSE2__)
    // Whole groups of eight records go through the decoder's vector path
    // (the state words into scratch: the statistics do not need them).
    alignas(16) static thread_local uint32_t scratch[2][kChunkRecords];
    const uint64_t groups = count / kGroup;
    const bool words = stride == 26;
    // Records of a fresh mapping come from memory a page at a time; asking
    // for the lines a few pages ahead keeps the memory busy while this one
    // is decoded.
    constexpr size_t kAhead = 4096;
    constexpr uint64_t kSub = 32;
    int wrongTag = 0;
    for (uint64_t g = 0; g < groups; g += kSub / kGroup) {
      const uint8_t* at = r + g * kGroup * stride;
      for (size_t off = 0; off < kSub * stride; off += 64) {
        __builtin_prefetch(at + kAhead + off);  // a hint: never faults, even past the end
      }
      const uint64_t i = g * kGroup;
      const ColumnPointers sub{t + i, scratch[0] + i, scratch[1] + i, c + i, v + i, e + i};
      wrongTag |= decodeGroups<false>(words, at, std::min<uint64_t>(kSub / kGroup, groups - g),
                                      tag, sub);
    }
    if (wrongTag != 0) {
      size_t bad = 0;
      while (r[bad * stride] == tag) ++bad;
      return bad;
    }
    first = groups * kGroup;
#endif
    const uint8_t* rest = r + first * stride;
    const size_t n = count - first;
    t += first;
    e += first;
    c += first;
    v += first;
    const size_t good = stride == 18 ? extractFixed<18, 8>(rest, n, tag, t, e, c, v)
                                     : extractFixed<26, 16>(rest, n, tag, t, e, c, v);
    return first + good;
  }
  const uint32_t tail = stride - 10;
  for (size_t i = 0; i < count; ++i, r += stride) {
    if (r[0] != tag) return i;
    t[i] = loadLE<uint64_t>(r) >> 8;
    c[i] = currentOf(loadLE<uint32_t>(r + tail));
    v[i] = voltageOf(loadLE<uint16_t>(r + tail + 4));
    e[i] = loadLE<uint32_t>(r + tail + 6);
  }
  return count;
}

}  // namespace

// Where decode() gets its bytes: a mapped file, a file read block by block
// into a reusable buffer (when the system will not map it), or a span of
// memory that the caller keeps alive. The mapping of a file outlives
// decode(): the columns are views over it.
class WLDataNode::Source {
 public:
  Source(int fd, std::string path, uint64_t size) : fd_(fd), path_(std::move(path)), size_(size) {
    if (size_ == 0) return;
    void* map = ::mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd_, 0);
    if (map == MAP_FAILED) return;
    map_ = static_cast<const uint8_t*>(map);
    ::madvise(map, size_, MADV_SEQUENTIAL);
  }
  Source(const uint8_t* bytes, int64_t size) : memory_(bytes), size_(static_cast<uint64_t>(size)) {}
  ~Source() {
    if (map_ != nullptr) ::munmap(const_cast<uint8_t*>(map_), size_);
    closeFile();
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  const uint8_t* mapping() const { return map_; }

  // Throws when the file is now shorter than `end` bytes: touching a mapped
  // page past its end would fault.
  void checkLength(uint64_t end) const {
    struct stat info {};
    if (end > size_ || fd_ < 0 || ::fstat(fd_, &info) != 0 ||
        static_cast<uint64_t>(info.st_size) < end) {
      throw std::runtime_error("Cannot read " + path_ +
                               ": the file became shorter while it was decoded");
    }
  }

  // The pass over the records is done: the mapping stays, the descriptor goes,
  // and the records are now read in any order.
  void finishPass() {
    if (map_ != nullptr) ::madvise(const_cast<uint8_t*>(map_), size_, MADV_NORMAL);
    closeFile();
  }

  // `size` bytes from `offset`, valid until the next call with the same
  // `buffer` (each thread brings its own, used when the file is not mapped).
  const uint8_t* read(uint64_t offset, size_t size, std::vector<uint8_t>& buffer) const {
    if (memory_ != nullptr) return memory_ + offset;
    if (map_ != nullptr) {
      checkLength(offset + size);
      return map_ + offset;
    }
    if (buffer.size() < size) buffer.resize(size);
    size_t done = 0;
    while (done < size) {
      ssize_t got = ::pread(fd_, buffer.data() + done, size - done,
                            static_cast<off_t>(offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        throw std::runtime_error("Cannot read " + path_ + ": " + std::strerror(errno));
      }
      if (got == 0) {
        throw std::runtime_error("Cannot read " + path_ +
                                 ": the file became shorter while it was decoded");
      }
      done += static_cast<size_t>(got);
    }
    return buffer.data();
  }

 private:
  void closeFile() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  int fd_ = -1;
  std::string path_;
  const uint8_t* memory_ = nullptr;
  const uint8_t* map_ = nullptr;
  uint64_t size_ = 0;
};

WLDataNode::WLDataNode() = default;
WLDataNode::~WLDataNode() = default;

void WLDataNode::dropStream() {
  hasStream_ = false;
  known_.clear();
  byteCount = 0;
  recordCount = 0;
  times.retireInto(spare_.times);
  energies.retireInto(spare_.energies);
  currents.retireInto(spare_.currents);
  voltages.retireInto(spare_.voltages);
  spare_.stateWords.clear();
  spare_.stateWords.resize(stateWords.size());
  for (size_t w = 0; w < stateWords.size(); ++w) stateWords[w].retireInto(spare_.stateWords[w]);
  stateWords.clear();
  // Only now: views of the mapping are gone.
  source_.reset();
}

bool WLDataNode::mapped() const { return times.isView(); }

void WLDataNode::releaseSpare() { spare_ = Spare{}; }

void WLDataNode::readKind(uint8_t first) {
  uint32_t type = first & 0x0Fu;
  uint32_t words = first >> 4;
  switch (type) {
    case kTypeWithStates:
      recordType = type;
      recordSize = kSizeWithStates;
      stateWordCount = static_cast<uint8_t>(words == 0 ? 2 : words);
      break;
    case kTypePlain:
      recordType = type;
      recordSize = kSizePlain;
      stateWordCount = 0;
      break;
    default:
      // Known numbers without a layout keep their number, the rest read as
      // 0; neither is decoded. The size of an earlier load may linger in
      // recordSize, so the count is set here rather than divided out.
      recordType = (type >= 1 && type <= 9) ? type : 0;
      stateWordCount = static_cast<uint8_t>(words);
      recordCount = 0;
      return;
  }
  recordCount = static_cast<uint64_t>(byteCount) / recordSize;
}

bool WLDataNode::readFile(const std::string& folder, const std::string& fileName) {
  dropStream();
  std::string path = folder + "/" + fileName;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    releaseSpare();
    return false;
  }
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    releaseSpare();
    return false;
  }
  source_ = std::make_unique<Source>(fd, path, static_cast<uint64_t>(info.st_size));
  hasStream_ = true;
  byteCount = info.st_size;
  if (byteCount > 0) {
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    std::vector<uint8_t> buffer;
    readKind(*source_->read(0, 1, buffer));
  }
  return true;
}

void WLDataNode::readBuffer(const uint8_t* bytes, int64_t size) {
  dropStream();
  source_ = std::make_unique<Source>(bytes, size);
  hasStream_ = true;
  byteCount = size;
  if (byteCount > 0) readKind(bytes[0]);
}

uint64_t WLDataNode::decodeBlock(const uint8_t* bytes, uint64_t count, uint64_t at, uint8_t tag,
                                 uint32_t stride) {
  uint64_t* t = times.storage() + at;
  uint32_t* e = energies.storage() + at;
  uint32_t* c = currents.storage() + at;
  uint16_t* v = voltages.storage() + at;
  // A wrong tag is rare; it is collected over the block and located only
  // when the block has one, so the loop has no early exit to predict.
  uint32_t wrong = 0;
  auto head = [&](const uint8_t* r, uint64_t i) {
    uint64_t first8 = loadLE<uint64_t>(r);
    wrong |= static_cast<uint8_t>(first8) ^ tag;
    t[i] = first8 >> 8;
  };
  auto tail = [&](const uint8_t* r, uint64_t i) {
    c[i] = currentOf(loadLE<uint32_t>(r));
    v[i] = voltageOf(loadLE<uint16_t>(r + 4));
    e[i] = loadLE<uint32_t>(r + 6);
  };
  uint64_t first = 0;
#if defined(__SSE2__)
  if (recordType == kTypePlain || stateWordCount == 2) {
    const uint64_t groups = count / kGroup;
    const bool words = recordType != kTypePlain;
    ColumnPointers out{t, nullptr, nullptr, c, v, e};
    if (words) {
      out.w0 = stateWords[0].storage() + at;
      out.w1 = stateWords[1].storage() + at;
    }
    const int bad = streaming_ ? decodeGroups<true>(words, bytes, groups, tag, out)
                               : decodeGroups<false>(words, bytes, groups, tag, out);
    wrong |= static_cast<uint32_t>(bad);
    first = groups * kGroup;
    bytes += first * stride;
  }
#endif
  if (recordType == kTypePlain) {
    for (uint64_t i = first; i < count; ++i, bytes += stride) {
      head(bytes, i);
      tail(bytes + 8, i);
    }
  } else if (stateWordCount == 2) {
    uint32_t* w0 = stateWords[0].storage() + at;
    uint32_t* w1 = stateWords[1].storage() + at;
    for (uint64_t i = first; i < count; ++i, bytes += stride) {
      head(bytes, i);
      w0[i] = loadLE<uint32_t>(bytes + 8);
      w1[i] = loadLE<uint32_t>(bytes + 12);
      tail(bytes + 16, i);
    }
  } else {
    for (uint64_t i = 0; i < count; ++i, bytes += stride) {
      head(bytes, i);
      for (size_t w = 0; w < stateWordCount; ++w) {
        stateWords[w].storage()[at + i] = loadLE<uint32_t>(bytes + 8 + 4 * w);
      }
      tail(bytes + 8 + 4 * stateWordCount, i);
    }
  }
  if (wrong == 0) return count;
  bytes -= count * stride;
  uint64_t bad = 0;
  while (bytes[bad * stride] == tag) ++bad;
  return bad;
}

uint64_t WLDataNode::decodeShared(
    uint64_t count, uint64_t perBlock,
    const std::function<uint64_t(uint64_t, uint64_t, std::vector<uint8_t>&)>& decodeRange) {
  // Shares of the records go, in order, to whichever thread asks next: on a
  // loaded machine a thread that gets no processor simply takes fewer. A
  // wrong tag ends the work of both after their current share; the first
  // bad record wins, as later ones are cleared anyway.
  const uint64_t share = std::max(perBlock, kShareRecords / perBlock * perBlock);
  std::atomic<uint64_t> next{0};
  std::atomic<uint64_t> firstBad{count};
  std::atomic<bool> stop{false};
  std::exception_ptr failure;
  auto work = [&](std::exception_ptr& error) {
    std::vector<uint8_t> block;
    try {
      while (!stop.load(std::memory_order_relaxed)) {
        const uint64_t from = next.fetch_add(share, std::memory_order_relaxed);
        if (from >= count) break;
        const uint64_t to = std::min(from + share, count);
        const uint64_t bad = decodeRange(from, to, block);
        if (bad < to) {
          uint64_t seen = firstBad.load();
          while (bad < seen && !firstBad.compare_exchange_weak(seen, bad)) {
          }
          stop = true;
        }
      }
    } catch (...) {
      error = std::current_exception();
      stop = true;
    }
#if defined(__SSE2__)
    if (streaming_) _mm_sfence();  // this thread's streaming stores, before the join
#endif
  };
  std::exception_ptr helperFailure;
  std::thread helper;
  try {
    helper = std::thread(work, std::ref(helperFailure));
  } catch (const std::system_error&) {
    // No second thread to be had: this one does all the shares.
  }
  work(failure);
  if (helper.joinable()) helper.join();
  if (failure) std::rethrow_exception(failure);
  if (helperFailure) std::rethrow_exception(helperFailure);
  return firstBad.load();
}

void WLDataNode::decode() {
  if (!hasStream_ || source_ == nullptr) return;
  if (recordType != kTypeWithStates && recordType != kTypePlain) {
    releaseSpare();
    return;
  }

  const bool plain = recordType == kTypePlain;
  recordSize = plain ? kSizePlain : kSizeWithStates;
  recordCount = static_cast<uint64_t>(byteCount) / recordSize;
  if (plain) {
    stateWordCount = 0;
  } else if (stateWordCount == 0) {
    stateWordCount = 2;
  }
  // A record with n state words occupies 18 + 4n bytes. The count is worked
  // out with the nominal size; with other than two words it is further
  // limited to the whole records present, so no read passes the end.
  const uint32_t stride = kSizePlain + 4u * stateWordCount;
  std::vector<uint8_t> buffer;
  const uint8_t tag = byteCount > 0 ? *source_->read(0, 1, buffer) : 0;
  if (recordCount > 0) {
    --recordCount;
    const uint64_t bytes = static_cast<uint64_t>(byteCount);
    const uint64_t fitting = bytes >= stride ? (bytes - stride) / stride : 0;
    recordCount = std::min(recordCount, fitting);
  }
  known_.clear();
  if (source_->mapping() != nullptr) {
    decodeMapped(tag, stride);
    return;
  }

  times.allocateFrom(spare_.times, recordCount);
  energies.allocateFrom(spare_.energies, recordCount);
  currents.allocateFrom(spare_.currents, recordCount);
  voltages.allocateFrom(spare_.voltages, recordCount);
  stateWords.clear();
  stateWords.resize(stateWordCount);
  spare_.stateWords.resize(stateWordCount);
  for (size_t w = 0; w < stateWordCount; ++w) {
    stateWords[w].allocateFrom(spare_.stateWords[w], recordCount);
  }
  releaseSpare();

  const uint64_t perBlock = std::max<uint64_t>(kGroup, kBlockBytes / stride / kGroup * kGroup);
  streaming_ = recordCount * stride > kStreamingBytes;
  // Decodes the blocks of records from..to-1; the index of the first record
  // with a wrong tag, or `to`.
  auto decodeRange = [&](uint64_t from, uint64_t to, std::vector<uint8_t>& block) -> uint64_t {
    for (uint64_t at = from; at < to; at += perBlock) {
      const uint64_t n = std::min(perBlock, to - at);
      const uint8_t* bytes = source_->read(stride + at * stride, n * stride, block);
      const uint64_t good = decodeBlock(bytes, n, at, tag, stride);
      if (good < n) return at + good;
    }
    return to;
  };
  const uint64_t bad = recordCount * stride >= kParallelBytes
                           ? decodeShared(recordCount, perBlock, decodeRange)
                           : decodeRange(0, recordCount, buffer);
  if (bad < recordCount) {
    // Records from the bad one on read as never decoded (reused columns
    // may hold an earlier stream beyond this block, so all of it goes).
    const uint64_t from = bad, len = recordCount - from;
    std::memset(times.storage() + from, 0, len * sizeof(uint64_t));
    std::memset(energies.storage() + from, 0, len * sizeof(uint32_t));
    std::memset(currents.storage() + from, 0, len * sizeof(uint32_t));
    std::memset(voltages.storage() + from, 0, len * sizeof(uint16_t));
    for (auto& column : stateWords) std::memset(column.storage() + from, 0, len * sizeof(uint32_t));
#if defined(__SSE2__)
    if (streaming_) _mm_sfence();
#endif
    source_.reset();
    throw std::runtime_error("Corrupted buffer");
  }
#if defined(__SSE2__)
  if (streaming_) _mm_sfence();  // streaming stores are weakly ordered
#endif
  // The columns hold all the stream says; the file is not needed again.
  source_.reset();
}

void WLDataNode::viewColumns(uint32_t stride) {
  // The lead-in yields no sample; the views start at the record after it.
  const uint8_t* first = source_->mapping() + stride;
  const uint64_t n = recordCount;
  times.view(first, n, stride, {8, false});  // the tag is the low byte
  stateWords.clear();
  stateWords.resize(stateWordCount);
  for (size_t w = 0; w < stateWordCount; ++w) {
    stateWords[w].view(first + 8 + 4 * w, n, stride, {0, false});
  }
  const uint32_t tail = 8 + 4u * stateWordCount;
  currents.view(first + tail, n, stride, {0, true});
  voltages.view(first + tail + 4, n, stride, {0, true});
  energies.view(first + tail + 6, n, stride, {0, false});
}

void WLDataNode::decodeMapped(uint8_t tag, uint32_t stride) {
  releaseSpare();
  viewColumns(stride);
  const uint8_t* records = source_->mapping() + stride;
  const uint64_t n = recordCount;
  auto limitAll = [&](uint64_t count) {
    times.limit(count);
    energies.limit(count);
    currents.limit(count);
    voltages.limit(count);
    for (auto& column : stateWords) column.limit(count);
  };

  // The size is checked this far ahead of the pass, not per chunk.
  constexpr uint64_t kCheckAhead = uint64_t{4} << 20;
  const uint64_t lastByte = stride + n * stride;
  uint64_t checked = 0;
  // Chunks end at record n - 1 once, so the statistics up to it are taken
  // on the way.
  auto fill = [&](Chunk& chunk, uint64_t from) {
    const uint64_t to = from < n - 1 ? std::min<uint64_t>(from + kChunkRecords, n - 1) : n;
    if (stride + to * stride > checked) {
      checked = std::min(stride + to * stride + kCheckAhead, lastByte);
      source_->checkLength(checked);
    }
    chunk.from = from;
    chunk.count = static_cast<size_t>(to - from);
    chunk.good = extract(records + from * stride, chunk.count, tag, stride, chunk.t, chunk.e,
                         chunk.c, chunk.v);
  };
  StatsRun run;
  uint64_t bad = n;
  // False when the chunk ends the pass with a wrong tag.
  auto use = [&](const Chunk& chunk) {
    if (chunk.good < chunk.count) {
      bad = chunk.from + chunk.good;
      return false;
    }
    for (size_t at = 0; at < chunk.count; at += kStatsBlock) {
      const size_t m = std::min(kStatsBlock, chunk.count - at);
      run.feed(chunk.t + at, chunk.e + at, chunk.c + at, chunk.v + at, m);
    }
    if (chunk.from + chunk.count == n - 1) {
      known_.push_back({n - 1, run.power(), run.current(), run.voltage()});
    }
    return true;
  };

  try {
    auto slots = std::make_unique<Chunk[]>(kChunkSlots);
    std::thread reader;
    std::exception_ptr readFailure;
    // Counts of chunks filled and used; the high bits say that the reader
    // is done, or that the summing side gave up.
    constexpr uint64_t kOver = uint64_t{1} << 63;
    std::atomic<uint64_t> filled{0}, used{0};
    if (n * stride >= kParallelBytes) {
      // On two threads: one reads the mapping (most of it is waiting for
      // memory), the other sums, which must go in file order.
      auto readAll = [&] {
        try {
          uint64_t from = 0;
          for (uint64_t j = 0; from < n; ++j) {
            uint64_t u = used.load(std::memory_order_acquire);
            while (!(u & kOver) && j - u >= kChunkSlots) {
              used.wait(u, std::memory_order_acquire);
              u = used.load(std::memory_order_acquire);
            }
            if (u & kOver) break;
            Chunk& chunk = slots[j % kChunkSlots];
            fill(chunk, from);
            from += chunk.count;
            filled.store(j + 1, std::memory_order_release);
            filled.notify_one();
            if (chunk.good < chunk.count) break;
          }
        } catch (...) {
          readFailure = std::current_exception();
        }
        filled.fetch_or(kOver, std::memory_order_release);
        filled.notify_one();
      };
      try {
        reader = std::thread(readAll);
      } catch (const std::system_error&) {
        // No second thread to be had: this one does it all below.
      }
    }
    if (reader.joinable()) {
      try {
        for (uint64_t j = 0;; ++j) {
          uint64_t f = filled.load(std::memory_order_acquire);
          while ((f & ~kOver) <= j && !(f & kOver)) {
            filled.wait(f, std::memory_order_acquire);
            f = filled.load(std::memory_order_acquire);
          }
          if ((f & ~kOver) <= j) break;
          const bool more = use(slots[j % kChunkSlots]);
          used.store(j + 1, std::memory_order_release);
          used.notify_one();
          if (!more) break;
        }
      } catch (...) {
        used.fetch_or(kOver, std::memory_order_release);
        used.notify_one();
        reader.join();
        throw;
      }
      reader.join();
      if (readFailure) std::rethrow_exception(readFailure);
    } else {
      for (uint64_t from = 0; from < n;) {
        fill(slots[0], from);
        from += slots[0].count;
        if (!use(slots[0])) break;
      }
    }
  } catch (...) {
    // A file that shrank may fault anywhere: nothing of it is read again.
    known_.clear();
    limitAll(0);
    source_->finishPass();
    throw;
  }
  source_->finishPass();
  if (bad < n) {
    known_.clear();
    limitAll(bad);
    throw std::runtime_error("Corrupted buffer");
  }
  known_.push_back({n, run.power(), run.current(), run.voltage()});
}

void WLDataNode::computeStats(uint64_t first, uint64_t last) {
  powerStats = currentStats = voltageStats = ValueStats{};
  duration = 0.0;
  energyUsed = 0.0;
  if (!hasStream_) return;
  last = std::min<uint64_t>(last, times.size());
  if (last < first || last - first < 2) return;

  const auto known = std::find_if(known_.begin(), known_.end(),
                                  [&](const KnownStats& k) { return k.last == last; });
  if (first == 0 && known != known_.end()) {
    powerStats = known->power;
    currentStats = known->current;
    voltageStats = known->voltage;
  } else {
    StatsRun run;
    uint64_t t[kStatsBlock];
    uint32_t e[kStatsBlock], c[kStatsBlock];
    uint16_t v[kStatsBlock];
    for (uint64_t at = first; at < last; at += kStatsBlock) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(kStatsBlock, last - at));
      times.read(at, n, t);
      energies.read(at, n, e);
      currents.read(at, n, c);
      voltages.read(at, n, v);
      run.feed(t, e, c, v, n);
    }
    powerStats = run.power();
    currentStats = run.current();
    voltageStats = run.voltage();
  }
  duration = static_cast<double>(times[last - 1]) / 1e6 - static_cast<double>(times[first]) / 1e6;
  energyUsed = energies[last - 1] / 10000.0 - energies[first] / 10000.0;
}

uint64_t WLDataNode::indexOfTime(uint64_t time) const {
  const uint64_t n = std::min<uint64_t>(recordCount, times.size());
  if (n == 0) return 0;
  const uint64_t t0 = times[0], tN = times[n - 1];
  const double step = (static_cast<double>(tN) - static_cast<double>(t0)) / static_cast<double>(n);
  // A zero step (one record, or a clock that stood still) and a clock that
  // ran backwards both leave no estimate but the last record.
  if (!(step > 0.0)) return n - 1;
  const double offset = static_cast<double>(std::max(time, t0) - t0) / step;
  if (offset >= static_cast<double>(n - 1)) return n - 1;
  return static_cast<uint64_t>(offset);
}

void WLDataNode::evaluateStates() {
  if (dsr == nullptr || !hasStream_) return;
  dsr->initDefaults();
  dsr->resetDerived();
  dsr->compactRows();
  dsr->finishRows();
  dsr->evaluateRows();
}

namespace {

// The nearest position in any sorted list that has size() and operator[].
template <typename List>
uint64_t nearestIn(const List& list, uint64_t value) {
  const uint64_t size = list.size();
  if (size == 0) return 0;
  // The first position whose element is not below `value`.
  uint64_t lo = 0, count = size;
  while (count > 0) {
    const uint64_t half = count / 2;
    if (list[lo + half] < value) {
      lo += half + 1;
      count -= half + 1;
    } else {
      count = half;
    }
  }
  if (lo == 0) return 0;
  if (lo == size) return size - 1;
  const uint64_t above = list[lo] - value;
  const uint64_t below = value - list[lo - 1];
  return above > below ? lo - 1 : lo;
}

}  // namespace

uint64_t nearestIndex(std::span<const uint64_t> list, uint64_t value) {
  return nearestIn(list, value);
}

uint64_t nearestIndexInColumn(const WLColumn<uint64_t>& list, uint64_t value) {
  return nearestIn(list, value);
}

bool StateCondition::holds(std::span<const uint32_t> words) const {
  if (word < 0 || static_cast<size_t>(word) >= words.size()) return false;
  uint32_t x = words[static_cast<size_t>(word)] & mask;
  if (shift > 0) {
    x = shift < 32 ? x >> shift : 0;
  } else if (shift < 0) {
    x = -shift < 32 ? x << -shift : 0;
  }
  return value == 0xFFFFFFFFu ? x == mask : x == value;
}

bool StateField::isActive(std::span<const uint32_t> words) const {
  for (const auto& condition : conditions) {
    if (!condition.holds(words)) return false;
  }
  return true;
}

}  // namespace VSKTspServer
