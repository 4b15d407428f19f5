#include "MtbEncoder.hpp"

#include <cctype>
#include <stdexcept>

namespace OstrandSim {

MtbEncoder::MtbEncoder(const MtbConfig& config) : config_(config) {
  const uint32_t size = config_.bufferBytes;
  if (size < 16 || (size & (size - 1)) != 0) {
    throw std::invalid_argument("MTB buffer size must be a power of two of at least 16 bytes, not " +
                                std::to_string(size));
  }
  if (config_.watermark % 8 != 0 || config_.watermark >= size) {
    throw std::invalid_argument("MTB watermark must be a multiple of 8 inside the buffer");
  }
  buffer_.assign(size, 0);
  tracing_ = config_.traceOn && !config_.startAddress;
}

void MtbEncoder::packet(uint32_t source, bool a, uint32_t destination) {
  if (!tracing_) return;
  const uint32_t w0 = (source & ~1u) | (a ? 1u : 0u);
  const uint32_t w1 = (destination & ~1u) | (restart_ ? 1u : 0u);
  restart_ = false;
  for (int i = 0; i < 4; ++i) {
    buffer_[position_ + i] = static_cast<uint8_t>(w0 >> (8 * i));
    buffer_[position_ + 4 + i] = static_cast<uint8_t>(w1 >> (8 * i));
  }
  ++packets_;
  position_ += 8;
  if (position_ == buffer_.size()) {
    position_ = 0;
    wrap_ = true;
    if (!config_.circular) {
      tracing_ = false;
      stoppedByBuffer_ = true;
      if (onStop_) onStop_();
      return;
    }
  }
  if (config_.stopAtWatermark && config_.watermark != 0 && position_ == config_.watermark) {
    tracing_ = false;
    stoppedByBuffer_ = true;
    if (onStop_) onStop_();
  }
}

void MtbEncoder::onStep(const ExecStep& step) {
  switch (step.kind) {
    case StepKind::kInstruction:
      onInstruction(step);
      break;
    case StepKind::kExceptionEntry:
      // A taken branch right before the entry shows as a preempted address
      // other than the sequential successor: the branch's packet first.
      if (havePrevious_ && step.address != kNoReturn && step.address != previousNext_) {
        packet(previous_, false, step.address);
      }
      pending_ = Pending::kEntry;
      pendingSource_ = step.address != kNoReturn ? step.address : previousNext_;
      break;
    case StepKind::kExceptionReturn:
      if (havePrevious_) packet(previous_, false, step.address);
      pending_ = Pending::kReturn;
      pendingSource_ = step.address;
      break;
    default:
      break;
  }
}

void MtbEncoder::onInstruction(const ExecStep& step) {
  const uint32_t pc = step.address;
  if (!tracing_ && !stoppedByBuffer_ && config_.startAddress && pc == *config_.startAddress) {
    tracing_ = true;
    restart_ = true;
  }
  if (pending_ != Pending::kNone) {
    packet(pendingSource_, true, pc);
    pending_ = Pending::kNone;
  } else if (havePrevious_ && pc != previousNext_) {
    packet(previous_, false, pc);
  }
  if (tracing_ && config_.stopAddress && pc == *config_.stopAddress) tracing_ = false;
  havePrevious_ = true;
  previous_ = pc;
  previousNext_ = pc + step.size;
}

}  // namespace OstrandSim
