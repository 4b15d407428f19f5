#include "EtmEncoder.hpp"

#include <algorithm>
#include <stdexcept>

namespace OstrandSim {

namespace {

// Packet headers of the instruction trace stream.
constexpr uint8_t kTraceInfo = 0x01;
constexpr uint8_t kTraceOn = 0x04;
constexpr uint8_t kException = 0x06;
constexpr uint8_t kCycleCountF1 = 0x0E;
constexpr uint8_t kAddrCtxt32Thumb = 0x83;
constexpr uint8_t kAddr32Thumb = 0x9B;
constexpr uint8_t kAtomN = 0xF6;
constexpr uint8_t kAtomE = 0xF7;
// The cycle count threshold the trace info announces: counts are sent as
// the count minus it.
constexpr uint32_t kCountThreshold = 1;
constexpr uint32_t kMaxCount = (1u << 21) - 1 + kCountThreshold;

}  // namespace

bool isThumbWaypoint(uint32_t op, uint8_t size, bool& indirect) {
  indirect = false;
  if (size == 2) {
    if ((op & 0xF000) == 0xD000) return ((op >> 8) & 0xF) < 0xE;  // B<c>; not UDF, SVC
    if ((op & 0xF800) == 0xE000) return true;                      // B
    if ((op & 0xF500) == 0xB100) return true;                      // CBZ, CBNZ
    indirect = (op & 0xFF00) == 0x4700                             // BX, BLX Rm
               || (op & 0xFF00) == 0xBD00                          // POP {..., pc}
               || (op & 0xFF87) == 0x4687                          // MOV pc, Rm
               || (op & 0xFF87) == 0x4487;                         // ADD pc, Rm
    return indirect;
  }
  if (size != 4) return false;
  const uint32_t hw2 = op & 0xFFFF;
  if ((op & 0xF8008000u) == 0xF0008000u) {
    if ((hw2 & 0x5000) != 0) return true;  // B.W, BL, BLX (immediate)
    return ((op >> 22) & 0xE) != 0xE;      // B<c>.W; not the control instructions
  }
  const bool loadsPc = (hw2 & 0xF000) == 0xF000;
  indirect = ((op >> 16 & 0xFF50) == 0xF850 && loadsPc)             // LDR pc
             || ((op & 0xFE500000u) == 0xE8100000u && (hw2 & 0x8000))  // LDM/POP.W with pc
             || (op & 0xFFF0FFE0u) == 0xE8D0F000u;                   // TBB, TBH
  return indirect;
}

EtmEncoder::EtmEncoder(const EtmConfig& config) : config_(config) {
  if (config_.bufferBytes < 64) throw std::invalid_argument("ETB buffer must hold at least 64 bytes");
  if (config_.nsPerCycle == 0) throw std::invalid_argument("cycle time must not be 0");
  buffer_.assign(config_.bufferBytes, 0);
  started_ = config_.startAddresses.empty();
}

EtmSnapshot EtmEncoder::snapshot() const {
  EtmSnapshot s;
  s.traceId = config_.traceId;
  s.wrapped = wrapped_;
  if (wrapped_) {
    s.bytes.assign(buffer_.begin() + static_cast<long>(position_), buffer_.end());
    s.bytes.insert(s.bytes.end(), buffer_.begin(), buffer_.begin() + static_cast<long>(position_));
  } else {
    s.bytes.assign(buffer_.begin(), buffer_.begin() + static_cast<long>(position_));
  }
  return s;
}

void EtmEncoder::put(uint8_t byte) {
  if (stoppedByBuffer_) return;
  buffer_[position_++] = byte;
  ++written_;
  ++sinceSync_;
  if (position_ == buffer_.size()) {
    position_ = 0;
    wrapped_ = true;
    if (!config_.circular) {
      // A full one-shot buffer keeps what it has: the position stays at
      // its end, read as a buffer that did not wrap.
      position_ = buffer_.size();
      wrapped_ = false;
      stoppedByBuffer_ = true;
      if (onStop_) onStop_();
    }
  }
}

void EtmEncoder::address(uint32_t a, bool withContext) {
  put(withContext ? kAddrCtxt32Thumb : kAddr32Thumb);
  put(static_cast<uint8_t>((a >> 1) & 0x7F));
  put(static_cast<uint8_t>(a >> 8));
  put(static_cast<uint8_t>(a >> 16));
  put(static_cast<uint8_t>(a >> 24));
  if (withContext) put(0x00);  // EL0, AArch32, secure; no context or VMID
}

void EtmEncoder::sync(uint32_t a) {
  for (int i = 0; i < 11; ++i) put(0x00);
  put(0x80);
  put(kTraceInfo);
  if (config_.cycleCounts) {
    put(0x09);  // INFO and CYCT sections present
    put(0x01);  // cycle counting enabled
    put(static_cast<uint8_t>(kCountThreshold));
  } else {
    put(0x00);
  }
  put(kTraceOn);
  address(a, true);
  sinceSync_ = 0;
  needSync_ = false;
}

void EtmEncoder::cycleCount(uint64_t timeNs) {
  if (!config_.cycleCounts) return;
  uint64_t cycles = (timeNs - lastCountNs_) / config_.nsPerCycle;
  lastCountNs_ = timeNs;
  cycles = std::clamp<uint64_t>(cycles, kCountThreshold, kMaxCount);
  uint32_t field = static_cast<uint32_t>(cycles - kCountThreshold);
  put(kCycleCountF1);
  for (int i = 0; i < 3; ++i) {
    const bool more = field >= 0x80 && i < 2;
    put(static_cast<uint8_t>((field & 0x7F) | (more ? 0x80 : 0)));
    field >>= 7;
    if (!more) break;
  }
}

// The atom of the previous instruction, now that `next` shows whether its
// branch was taken.
bool EtmEncoder::resolvePrevious(uint32_t next, uint64_t timeNs) {
  if (!havePrevious_ || !tracing_ || !previousWaypoint_) return false;
  const bool taken = next != previousNext_;
  put(taken ? kAtomE : kAtomN);
  cycleCount(timeNs);
  if (taken && previousIndirect_) address(next, false);
  previousWaypoint_ = false;
  return true;
}

bool EtmEncoder::wantTrace(uint32_t pc) {
  if (!started_ && std::find(config_.startAddresses.begin(), config_.startAddresses.end(), pc) !=
                       config_.startAddresses.end()) {
    started_ = true;
  }
  if (!config_.traceOn && config_.startAddresses.empty() && config_.ranges.empty()) return false;
  if (!started_) return false;
  if (config_.ranges.empty()) return true;
  return std::any_of(config_.ranges.begin(), config_.ranges.end(),
                     [pc](const EtmAddressRange& r) { return pc >= r.start && pc <= r.end; });
}

void EtmEncoder::onStep(const ExecStep& step) {
  if (step.kind == StepKind::kExceptionEntry) {
    if (!havePrevious_) return;
    const uint32_t preferred = step.address != 0xFFFFFFFFu ? step.address : previousNext_;
    resolvePrevious(preferred, step.timeNs);
    if (tracing_) {
      put(kException);
      const uint32_t type = step.value & 0x3FF;
      if (type < 32) {
        put(static_cast<uint8_t>(type << 1));
      } else {
        put(static_cast<uint8_t>(0x80 | (type & 0x1F) << 1));
        put(static_cast<uint8_t>(type >> 5));
      }
      address(preferred, false);
      pendingEntry_ = true;
    }
    // The handler starts a new block: nothing is owed for the instruction
    // before the exception any more.
    previousWaypoint_ = false;
    return;
  }
  if (step.kind == StepKind::kInstruction) onInstruction(step);
}

void EtmEncoder::onInstruction(const ExecStep& step) {
  const uint32_t pc = step.address;
  const bool atom = resolvePrevious(pc, step.timeNs);
  const bool want = wantTrace(pc);
  if (want && (!tracing_ || needSync_)) {
    // Trace (re)starts here: a full sync, so the decoder knows where.
    sync(pc);
    pendingEntry_ = false;
  } else if (want && pendingEntry_) {
    address(pc, false);  // the exception's target
    pendingEntry_ = false;
  } else if (want && atom && sinceSync_ >= config_.syncPeriod) {
    // Periodic sync, right after an atom: there the decoder's position is
    // exact, so the sync loses nothing.
    sync(pc);
  }
  if (!want) pendingEntry_ = false;
  tracing_ = want;

  bool indirect = false;
  havePrevious_ = true;
  previous_ = pc;
  previousNext_ = pc + step.size;
  previousWaypoint_ = isThumbWaypoint(step.value, step.size, indirect);
  previousIndirect_ = indirect;
  if (started_ && std::find(config_.stopAddresses.begin(), config_.stopAddresses.end(), pc) !=
                      config_.stopAddresses.end()) {
    started_ = false;
  }
}

}  // namespace OstrandSim
