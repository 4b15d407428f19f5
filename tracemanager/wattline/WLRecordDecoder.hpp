// The record decoder of a power stream: the fields of fixed-size records
// taken out into columns or arrays, the tag of every record checked on the
// way. Records of 18 bytes (plain) and of 26 bytes (two state words) go
// through a vector path eight at a time where the processor has one; other
// sizes field by field.
//
// Stateless; any thread. A wrong tag is not an error here: the functions
// tell where the first one is, and the caller decides.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "wattline/WLStreamStats.hpp"

namespace VSKTspServer {

template <typename T>
T loadLE(const uint8_t* p) {
  T value;
  std::memcpy(&value, p, sizeof value);  // the host is little-endian, like the file
  return value;
}

// A value of all ones in these fields means "no reading"; it shows as 0.
inline uint32_t currentOf(uint32_t raw) { return raw == 0xFFFFFFFFu ? 0 : raw; }
inline uint16_t voltageOf(uint16_t raw) { return raw == 0xFFFFu ? 0 : raw; }

// Records are decoded in groups of this many; block starts are multiples
// of it, so each group's slice of every column is 16-byte aligned.
constexpr uint64_t kGroup = 8;

struct ColumnPointers {
  uint64_t* t;
  uint32_t* w0;
  uint32_t* w1;
  uint32_t* c;
  uint16_t* v;
  uint32_t* e;
};

#if defined(__SSE2__)
// Decodes `groups` groups of eight records straight into the columns, whose
// slices are 16-byte aligned: 26-byte records with two state words when
// `words`, else 18-byte plain ones. `streaming` writes with streaming
// stores, which fenceStreamingStores() orders. Non-zero when some record's
// tag differs from `tag`.
int decodeGroups(bool words, bool streaming, const uint8_t* bytes, uint64_t groups, uint8_t tag,
                 ColumnPointers out);
#endif

// Orders this thread's streaming stores before what it writes next (a
// no-op where there are none).
void fenceStreamingStores();

// Records handed at a time from the thread that reads the mapping to the
// one that sums the statistics,.
constexpr uint64_t kChunkRecords = 8 * kStatsBlock;

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

// `count` records at `r` (at most kChunkRecords) of `stride` bytes into
// 16-byte aligned arrays: the fields the statistics need. Returns the index
// of the first record whose tag is not `tag`, or `count`.
size_t extract(const uint8_t* r, size_t count, uint8_t tag, uint32_t stride, uint64_t* t,
               uint32_t* e, uint32_t* c, uint16_t* v);

}  // namespace VSKTspServer
