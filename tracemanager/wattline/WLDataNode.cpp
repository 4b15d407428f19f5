#include "wattline/WLDataNode.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <stdexcept>

#include "wattline/WLRecordDecoder.hpp"
#include "wattline/WLStateDecoders.hpp"
#include "wattline/WLStreamSource.hpp"
#include "wattline/WLStreamStats.hpp"
#include "wattline/WLTwoStages.hpp"

namespace VSKTspServer {

namespace {

// About half a mebibyte per read: large enough that the system call costs
// nothing, small enough that the block stays in the core's cache while the
// decoder walks it.
constexpr size_t kBlockBytes = size_t{1} << 19;

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

// Chunks of records in flight between the thread that reads a mapping and
// the one that sums them.
constexpr size_t kChunkSlots = 4;

}  // namespace

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
  source_ = std::make_unique<WLStreamSource>(fd, path, static_cast<uint64_t>(info.st_size));
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
  source_ = std::make_unique<WLStreamSource>(bytes, size);
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
    const int bad = decodeGroups(words, streaming_, bytes, groups, tag, out);
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
  // wrong tag or a read failure ends the work of both after their current
  // share; the first bad record wins, as later ones are cleared anyway.
  const uint64_t share = std::max(perBlock, kShareRecords / perBlock * perBlock);
  std::atomic<uint64_t> next{0};
  std::atomic<uint64_t> firstBad{count};
  std::atomic<bool> stop{false};
  runOnTwoThreads([&] {
    std::vector<uint8_t> block;
    try {
      while (!stop.load(std::memory_order_relaxed)) {
        const uint64_t from = next.fetch_add(share, std::memory_order_relaxed);
        if (from >= count) break;
        const uint64_t to = std::min(from + share, count);
        const uint64_t good = decodeRange(from, to, block);
        if (good < to) {
          uint64_t seen = firstBad.load();
          while (good < seen && !firstBad.compare_exchange_weak(seen, good)) {
          }
          stop = true;
        }
      }
    } catch (...) {
      stop = true;
      if (streaming_) fenceStreamingStores();
      throw;
    }
    if (streaming_) fenceStreamingStores();  // this thread's streaming stores, before the join
  });
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
    if (streaming_) fenceStreamingStores();
    source_.reset();
    throw std::runtime_error("Corrupted buffer");
  }
  if (streaming_) fenceStreamingStores();  // streaming stores are weakly ordered
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
    // Large streams on two threads: one reads the mapping (most of it is
    // waiting for memory), the other sums, which must go in file order.
    auto slots = std::make_unique<Chunk[]>(kChunkSlots);
    uint64_t from = 0;
    const auto read = [&](uint64_t i) {
      Chunk& chunk = slots[i % kChunkSlots];
      fill(chunk, from);
      from += chunk.count;
      return from < n && chunk.good == chunk.count;
    };
    const auto sum = [&](uint64_t i) { return use(slots[i % kChunkSlots]); };
    if (n > 0) runTwoStages(n * stride >= kParallelBytes, kChunkSlots, read, sum);
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

}  // namespace VSKTspServer
