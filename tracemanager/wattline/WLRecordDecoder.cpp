#include "wattline/WLRecordDecoder.hpp"

#include <algorithm>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace VSKTspServer {

namespace {

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
  __m128i t01,
      t23;         // times of records 0-1 and 2-3, still with the tag in the low byte
  __m128i w0, w1;  // state words (records with two words only)
  __m128i c;       // currents, raw
  __m128i v;       // voltages, raw, in the low half of each lane
  __m128i e;       // energies
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
int decodeGroupsOf(bool words, const uint8_t* bytes, uint64_t groups, uint8_t tag,
                   ColumnPointers out) {
  return words ? decodeGroups<26, 16, kStream>(bytes, groups, tag, out)
               : decodeGroups<18, 8, kStream>(bytes, groups, tag, out);
}
#endif

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

}  // namespace

#if defined(__SSE2__)
int decodeGroups(bool words, bool streaming, const uint8_t* bytes, uint64_t groups, uint8_t tag,
                 ColumnPointers out) {
  return streaming ? decodeGroupsOf<true>(words, bytes, groups, tag, out)
                   : decodeGroupsOf<false>(words, bytes, groups, tag, out);
}
#endif

void fenceStreamingStores() {
#if defined(__SSE2__)
  _mm_sfence();
#endif
}

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
      wrongTag |=
          decodeGroupsOf<false>(words, at, std::min<uint64_t>(kSub / kGroup, groups - g), tag, sub);
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

}  // namespace VSKTspServer
