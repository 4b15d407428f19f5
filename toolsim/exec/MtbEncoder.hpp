// MtbEncoder: the Micro Trace Buffer of a core, fed by its execution.
//
// Every non-sequential change of the program counter becomes one packet of
// two little-endian words in the trace SRAM:
//   word 0: source address [31:1] | A   (A = 1: exception entry, or the
//           second packet of an exception return)
//   word 1: destination address [31:1] | S   (S = 1: first packet after
//           trace started or restarted)
// A taken branch gives (branch instruction, target). An exception entry
// gives (the preempted instruction, that is the return address | A,
// handler); when the core was taken right after a branch, the branch's own
// packet comes first. An exception return gives two packets: (returning
// instruction, EXC_RETURN) and (EXC_RETURN | A, resumed instruction).
//
// POSITION is the byte offset of the next packet, WRAP is set when the
// pointer wraps. Circular buffers wrap and overwrite; a one-shot buffer
// stops tracing when it is full. Reaching the watermark (POSITION equals
// it after a write) stops tracing when "stop at watermark" is set. Start
// and stop addresses, when given, switch tracing on and off when the core
// executes them (as TSTART and TSTOP from address comparators do).
//
// Not thread-safe: steps come from the runner's thread; read the buffer
// (snapshot) while no run is under way, or from onPause.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ExecStep.hpp"

namespace OstrandSim {

struct MtbConfig {
  uint32_t bufferBytes = 32;  // a power of two, at least 16
  bool circular = true;       // false: one-shot
  uint32_t watermark = 0;     // byte offset; 0 none
  bool stopAtWatermark = false;
  bool traceOn = true;        // tracing from the start of the run
  std::optional<uint32_t> startAddress;
  std::optional<uint32_t> stopAddress;
};

struct MtbSnapshot {
  std::vector<uint8_t> buffer;
  uint32_t position = 0;  // byte offset of the next packet
  bool wrap = false;
};

class MtbEncoder : public StepConsumer {
 public:
  // Throws std::invalid_argument for a size or watermark the hardware
  // cannot have.
  explicit MtbEncoder(const MtbConfig& config);

  void onStep(const ExecStep& step) override;

  MtbSnapshot snapshot() const { return {buffer_, position_, wrap_}; }
  bool tracing() const { return tracing_; }
  // Tracing stopped by the buffer itself (full one-shot buffer, watermark).
  bool stoppedByBuffer() const { return stoppedByBuffer_; }
  uint64_t packetsWritten() const { return packets_; }
  // Called once when the buffer stops tracing by itself.
  void setStopCallback(std::function<void()> callback) { onStop_ = std::move(callback); }

 private:
  void packet(uint32_t source, bool a, uint32_t destination);
  void onInstruction(const ExecStep& step);

  MtbConfig config_;
  std::vector<uint8_t> buffer_;
  uint32_t position_ = 0;
  bool wrap_ = false;
  bool tracing_ = false;
  bool stoppedByBuffer_ = false;
  bool restart_ = true;  // the next packet is the first after a start
  uint64_t packets_ = 0;
  std::function<void()> onStop_;

  bool havePrevious_ = false;
  uint32_t previous_ = 0;      // last instruction executed
  uint32_t previousNext_ = 0;  // its sequential successor
  enum class Pending { kNone, kEntry, kReturn } pending_ = Pending::kNone;
  uint32_t pendingSource_ = 0;  // entry: return address; return: EXC_RETURN
  static constexpr uint32_t kNoReturn = 0xFFFFFFFFu;
};

}  // namespace OstrandSim
