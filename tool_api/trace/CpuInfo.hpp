// The record that describes a tracing CPU to a decoder, and the 16-byte
// position of a decoded row. The module only carries both between the
// channel server (or a .tdf header) and the decoder; what the values mean is
// the decoder library's business, stated here so both sides agree.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace Qx::Nlv::Trace {

struct CpuInfo {
  char* name = nullptr;        // malloc'd; freed with the record (freeCpuInfo)
  uint32_t deviceKind = 0;     // device kind of the processor table
  uint32_t processorId = 0;    // family bits 31..22, variant bits 21..10
  uint32_t traceProtocol = 0;  // kProtocol* below
  uint32_t traceSourceId = 0;  // trace source id on the bus (ETM), 0 otherwise
  uint32_t bigEndian = 0;      // 1 for a big-endian target
  uint32_t addressBits = 32;   // width of addresses in the trace
  uint32_t options = 0;        // protocol options (ETM: cycle counting = bit 0)
};

inline constexpr uint32_t kProtocolNone = 0;
inline constexpr uint32_t kProtocolMtb = 1;
inline constexpr uint32_t kProtocolEtm4 = 2;
inline constexpr uint32_t kProtocolItm = 3;
inline constexpr uint32_t kProtocolStm = 4;

inline void setCpuInfoName(CpuInfo& info, const char* name) {
  std::free(info.name);
  info.name = name != nullptr ? strdup(name) : nullptr;
}

inline void freeCpuInfo(CpuInfo*& info) {
  if (info == nullptr) return;
  std::free(info->name);
  delete info;
  info = nullptr;
}

// Where a decoded row stands in the trace. Opaque to the module, which only
// stores it per row; the decoder keeps its row index in `row`.
struct TracePosition {
  uint64_t row = 0;
  uint64_t reserved = 0;
};
static_assert(sizeof(TracePosition) == 16);

// Seek positions of SeekRead the module uses.
inline constexpr uint32_t kSeekStart = 0;
inline constexpr uint32_t kSeekContinue = 3;

}  // namespace Qx::Nlv::Trace
