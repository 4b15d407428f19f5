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

struct Accumulator {
  int64_t count = 0;
  double sum = 0.0;
  double min = DBL_MAX;
  double max = -DBL_MAX;

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

}  // namespace

// Where decode() gets its bytes: a file, or a span of memory that the
// caller keeps alive. A file is mapped and its blocks decoded straight from
// the page cache, with no copy; each block is dropped from the mapping once
// decoded (`done`), so resident memory never holds more than a block of
// the file beside the columns. A file that cannot be mapped is read block
// by block into one reusable buffer instead.
class WLDataNode::Source {
 public:
  Source(int fd, std::string path, uint64_t size) : fd_(fd), path_(std::move(path)), size_(size) {
    if (size_ == 0) return;
    void* map = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd_, 0);
    if (map == MAP_FAILED) return;
    map_ = static_cast<const uint8_t*>(map);
    ::madvise(map, size_, MADV_SEQUENTIAL);
  }
  Source(const uint8_t* bytes, int64_t size) : memory_(bytes), size_(static_cast<uint64_t>(size)) {}
  ~Source() {
    if (map_ != nullptr) ::munmap(const_cast<uint8_t*>(map_), size_);
    if (fd_ >= 0) ::close(fd_);
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  // `size` bytes from `offset`, valid until the next call with the same
  // `buffer` (each thread brings its own, used when the file is not mapped).
  const uint8_t* read(uint64_t offset, size_t size, std::vector<uint8_t>& buffer) const {
    if (memory_ != nullptr) return memory_ + offset;
    if (map_ != nullptr) {
      // The file may have shrunk since it was mapped; touching a page past
      // its end would fault, so each block checks the size first.
      struct stat info {};
      if (offset + size > size_ || ::fstat(fd_, &info) != 0 ||
          static_cast<uint64_t>(info.st_size) < offset + size) {
        throw std::runtime_error("Cannot read " + path_ +
                                 ": the file became shorter while it was decoded");
      }
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

  // The bytes offset .. offset + size are decoded: the whole pages among
  // them leave this process (they stay in the page cache).
  void done(uint64_t offset, size_t size) const {
    if (map_ == nullptr) return;
    const uint64_t page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    const uint64_t begin = (offset + page - 1) / page * page;
    const uint64_t end = (offset + size) / page * page;
    if (end > begin) ::madvise(const_cast<uint8_t*>(map_) + begin, end - begin, MADV_DONTNEED);
  }

 private:
  int fd_ = -1;
  std::string path_;
  const uint8_t* memory_ = nullptr;
  const uint8_t* map_ = nullptr;
  uint64_t size_ = 0;
};

WLDataNode::WLDataNode() = default;
WLDataNode::~WLDataNode() = default;

void WLDataNode::dropStream() {
  source_.reset();
  hasStream_ = false;
  byteCount = 0;
  recordCount = 0;
  times.retireInto(spare_.times);
  energies.retireInto(spare_.energies);
  currents.retireInto(spare_.currents);
  voltages.retireInto(spare_.voltages);
  spare_.stateWords = std::move(stateWords);
  stateWords.clear();
}

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
  uint64_t* t = times.data() + at;
  uint32_t* e = energies.data() + at;
  uint32_t* c = currents.data() + at;
  uint16_t* v = voltages.data() + at;
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
      out.w0 = stateWords[0].data() + at;
      out.w1 = stateWords[1].data() + at;
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
    uint32_t* w0 = stateWords[0].data() + at;
    uint32_t* w1 = stateWords[1].data() + at;
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
        stateWords[w][at + i] = loadLE<uint32_t>(bytes + 8 + 4 * w);
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
      source_->done(stride + at * stride, n * stride);
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
    std::memset(times.data() + from, 0, len * sizeof(uint64_t));
    std::memset(energies.data() + from, 0, len * sizeof(uint32_t));
    std::memset(currents.data() + from, 0, len * sizeof(uint32_t));
    std::memset(voltages.data() + from, 0, len * sizeof(uint16_t));
    for (auto& column : stateWords) std::memset(column.data() + from, 0, len * sizeof(uint32_t));
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

void WLDataNode::computeStats(uint64_t first, uint64_t last) {
  powerStats = currentStats = voltageStats = ValueStats{};
  duration = 0.0;
  energyUsed = 0.0;
  if (!hasStream_) return;
  last = std::min<uint64_t>(last, times.size());
  if (last < first || last - first < 2) return;

  Accumulator power, current, voltage;
  for (uint64_t i = first + 1; i < last; ++i) {
    const double dt =
        static_cast<double>(static_cast<int64_t>(times[i] - times[i - 1])) / 1e6;
    const uint32_t e0 = energies[i - 1], e1 = energies[i];
    // The counter wraps at 32 bits; between two samples it wraps at most once.
    const double dE = e1 >= e0 ? static_cast<double>(e1 - e0)
                               : static_cast<double>((uint64_t{1} << 32) + e1 - e0);
    power.add(dE / 10000.0 / dt);
  }
  for (uint64_t i = first; i < last; ++i) {
    current.add(currents[i] / 1e6);
    voltage.add(voltages[i] / 1000.0);
  }
  powerStats = power.stats();
  currentStats = current.stats();
  voltageStats = voltage.stats();
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

uint64_t nearestIndex(std::span<const uint64_t> list, uint64_t value) {
  if (list.empty()) return 0;
  auto found = std::lower_bound(list.begin(), list.end(), value);
  if (found == list.begin()) return 0;
  if (found == list.end()) return list.size() - 1;
  const uint64_t pos = static_cast<uint64_t>(found - list.begin());
  const uint64_t above = *found - value;
  const uint64_t below = value - *(found - 1);
  return above > below ? pos - 1 : pos;
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
