// EtmEncoder: an ETMv4 instruction trace unit of an M-profile core, fed by
// its execution, writing into a trace buffer (ETB) of the configured size.
//
// The stream: an alignment sync, a trace info packet (cycle counting on),
// trace on and the address with context of the first traced instruction;
// then one atom per executed waypoint (branch) instruction, E taken or N
// not taken, each followed by a cycle count packet (cycles since the last
// count) and, for a taken indirect branch (BX, BLX, POP {pc}, LDR pc, TBB,
// exception return), the target's address; an exception packet with the
// preferred return address and then the handler's address. The sync
// sequence is repeated at a waypoint every `syncPeriod` bytes, so a
// circular buffer that wrapped still decodes from its oldest sync.
// Addresses are always sent in full (32-bit, Thumb); no return stack, no
// speculation (every element committed), no timestamps.
//
// Filtering, as the ETB sub-operations set it: `traceOn` traces from the
// start; each range [start, end] (both inclusive) limits tracing to
// instructions inside one of the ranges; a start address switches tracing
// on when it executes, a stop address off after it executes. Tracing that
// goes off ends with the last waypoint before it: the instructions after it
// are not in the trace (the decoder cannot place them).
//
// Not thread-safe: steps come from the runner's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "ExecStep.hpp"

namespace OstrandSim {

struct EtmAddressRange {
  uint32_t start = 0;
  uint32_t end = 0;  // inclusive
};

struct EtmConfig {
  uint32_t bufferBytes = 64 * 1024;
  bool circular = true;  // false: stop when full
  bool traceOn = true;
  std::vector<EtmAddressRange> ranges;
  std::vector<uint32_t> startAddresses;
  std::vector<uint32_t> stopAddresses;
  bool cycleCounts = true;
  uint32_t nsPerCycle = 32;  // the core clock, for cycle counts
  uint32_t syncPeriod = 1024;
  uint8_t traceId = 0x10;
};

struct EtmSnapshot {
  std::vector<uint8_t> bytes;  // oldest first
  bool wrapped = false;
  uint8_t traceId = 0x10;
};

// Whether a Thumb instruction is a waypoint, and whether its target comes
// from a register or memory (indirect).
bool isThumbWaypoint(uint32_t opcode, uint8_t size, bool& indirect);

class EtmEncoder : public StepConsumer {
 public:
  explicit EtmEncoder(const EtmConfig& config);

  void onStep(const ExecStep& step) override;

  EtmSnapshot snapshot() const;
  bool stoppedByBuffer() const { return stoppedByBuffer_; }
  uint64_t bytesWritten() const { return written_; }
  void setStopCallback(std::function<void()> callback) { onStop_ = std::move(callback); }

 private:
  void put(uint8_t byte);
  void address(uint32_t address, bool withContext);
  void sync(uint32_t address);
  void cycleCount(uint64_t timeNs);
  bool resolvePrevious(uint32_t next, uint64_t timeNs);
  bool wantTrace(uint32_t pc);
  void onInstruction(const ExecStep& step);

  EtmConfig config_;
  std::vector<uint8_t> buffer_;
  size_t position_ = 0;
  bool wrapped_ = false;
  bool stoppedByBuffer_ = false;
  uint64_t written_ = 0;
  uint64_t sinceSync_ = 0;
  std::function<void()> onStop_;

  bool tracing_ = false;    // the previous instruction was traced
  bool started_ = false;    // between a start and a stop address
  bool needSync_ = true;    // no sync written yet
  uint64_t lastCountNs_ = 0;

  bool havePrevious_ = false;
  uint32_t previous_ = 0;
  uint32_t previousNext_ = 0;
  bool previousWaypoint_ = false;
  bool previousIndirect_ = false;
  bool pendingEntry_ = false;  // an exception was just entered
};

}  // namespace OstrandSim
