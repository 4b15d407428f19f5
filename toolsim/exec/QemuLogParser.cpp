#include "QemuLogParser.hpp"

#include <charconv>

namespace OstrandSim {

namespace {

constexpr uint32_t kSysTickCsr = 0xE000E010u;
constexpr uint32_t kSysTickRvr = 0xE000E014u;
constexpr uint32_t kSysTickException = 15;

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

// The hexadecimal number after `key` in `line` ("0x" optional); false when
// the key or the digits are missing.
bool hexAfter(std::string_view line, std::string_view key, uint32_t& value) {
  const size_t at = line.find(key);
  if (at == std::string_view::npos) return false;
  std::string_view rest = line.substr(at + key.size());
  if (startsWith(rest, "0x")) rest.remove_prefix(2);
  uint64_t v = 0;
  const auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), v, 16);
  if (ec != std::errc() || end == rest.data()) return false;
  value = static_cast<uint32_t>(v);
  return true;
}

bool decAfter(std::string_view line, std::string_view key, uint32_t& value) {
  const size_t at = line.find(key);
  if (at == std::string_view::npos) return false;
  std::string_view rest = line.substr(at + key.size());
  const auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), value, 10);
  return ec == std::errc() && end != rest.data();
}

bool isWait(uint32_t opcode, uint8_t size) {
  if (size == 2) return opcode == 0xBF30u || opcode == 0xBF20u;  // WFI, WFE
  return opcode == 0xF3AF8003u || opcode == 0xF3AF8002u;
}

}  // namespace

QemuLogParser::QemuLogParser(const ProgramImage& image, const ClockModel& clock,
                             StepConsumer& consumer)
    : image_(image), clock_(clock), consumer_(consumer) {}

bool QemuLogParser::hasBacklog() const {
  return buffer_.find('\n', offset_) != std::string::npos;
}

bool QemuLogParser::feed(std::string_view chunk) {
  buffer_.append(chunk);
  return drain();
}

bool QemuLogParser::drain() {
  deliverReady();
  while (budget_ > 0 && ready_.empty() && (stop_ == nullptr || !stop_->load(std::memory_order_relaxed))) {
    const size_t end = buffer_.find('\n', offset_);
    if (end == std::string::npos) break;
    parseLine(std::string_view(buffer_).substr(offset_, end - offset_));
    offset_ = end + 1;
    deliverReady();
  }
  // Keep the buffer small: drop what was parsed once it is a good part of it.
  if (offset_ > 65536 && offset_ * 2 > buffer_.size()) {
    buffer_.erase(0, offset_);
    offset_ = 0;
  }
  return budget_ > 0;
}

void QemuLogParser::finish() {
  drain();
  if (budget_ > 0 && offset_ < buffer_.size() && buffer_.find('\n', offset_) == std::string::npos) {
    parseLine(std::string_view(buffer_).substr(offset_));
    buffer_.clear();
    offset_ = 0;
  }
  if (budget_ > 0) emitPending();
  resolveAll(0xFFFFFFFFu);
  deliverReady();
}

void QemuLogParser::deliverReady() {
  while (!ready_.empty() && budget_ > 0 && (stop_ == nullptr || !stop_->load(std::memory_order_relaxed))) {
    const ExecStep step = ready_.front();
    ready_.pop_front();
    consumer_.onStep(step);
    if (step.kind == StepKind::kInstruction) {
      ++delivered_;
      if (budget_ != UINT64_MAX) --budget_;
    }
  }
}

void QemuLogParser::resolveAll(uint32_t address) {
  for (size_t i : openEntries_) held_[i - heldBase_].address = address;
  for (size_t i : unresolved_) held_[i - heldBase_].address = address;
  openEntries_.clear();
  unresolved_.clear();
  for (const ExecStep& s : held_) ready_.push_back(s);
  heldBase_ += held_.size();
  held_.clear();
}

bool QemuLogParser::parseLine(std::string_view line) {
  ++lines_;
  uint32_t value = 0;
  if (startsWith(line, "Trace ")) {
    // "Trace 0: 0x7f.. [00800408/000000ee/00000110/ff020201] main"
    const size_t open = line.find('[');
    const size_t slash = line.find('/', open);
    if (open == std::string_view::npos || slash == std::string_view::npos) return false;
    if (!hexAfter(line.substr(slash + 1), "", value)) return false;
    emitPending();
    hasPending_ = true;
    pendingPc_ = value & ~1u;
    return true;
  }
  if (startsWith(line, "Stopped execution of TB chain before")) {
    const size_t open = line.find('[');
    if (open != std::string_view::npos && hexAfter(line.substr(open + 1), "", value) &&
        hasPending_ && pendingPc_ == value) {
      hasPending_ = false;
    }
    return true;
  }
  if (startsWith(line, "cpu_io_recompile: rewound execution of TB to ")) {
    if (hexAfter(line, "TB to ", value) && hasPending_ && pendingPc_ == value) hasPending_ = false;
    return true;
  }
  if (startsWith(line, "...loading from element ")) {
    emitPending();
    decAfter(line, "element ", value);
    if (value == kSysTickException) {
      // The entry takes the expiry that made it pending; when the model's
      // clock lags QEMU's a little, the entry still consumes that expiry.
      if (expiryPending_) {
        expiryPending_ = false;
      } else if (sysTickPeriodNs_ != 0) {
        nextExpiryNs_ += sysTickPeriodNs_;
      }
    }
    emit(StepKind::kExceptionEntry, 0, value, 0);
    return true;
  }
  if (startsWith(line, "Exception return: ")) {
    emitPending();
    decAfter(line, "previous exception ", returning_);
    hexAfter(line, "magic PC ", excReturn_);
    return true;
  }
  if (startsWith(line, "...successful exception return")) {
    emit(StepKind::kExceptionReturn, excReturn_, returning_, 0);
    return true;
  }
  if (line.find("memory_region_ops_write ") != std::string_view::npos) {
    uint32_t address = 0;
    if (hexAfter(line, " addr ", address) && hexAfter(line, " value ", value)) {
      emitPending();
      emit(StepKind::kBusWrite, address, value, 0);
      onBusWrite(address, value);
    }
    return true;
  }
  return false;
}

void QemuLogParser::emitPending() {
  if (!hasPending_) return;
  hasPending_ = false;
  advanceSysTick();
  if (waiting_) {
    // The wait ends at the SysTick expiry that wakes it, unless one is
    // already pending (then WFI falls through).
    waiting_ = false;
    if (sysTickPeriodNs_ != 0 && !expiryPending_ && nextExpiryNs_ > timeNs()) {
      emit(StepKind::kSleep, waitPc_, 0, 0);
      sleptNs_ += nextExpiryNs_ - timeNs();
      advanceSysTick();
      emit(StepKind::kWake, waitPc_, 0, 0);
    }
  }
  uint8_t size = 0;
  const uint32_t opcode = image_.opcodeAt(pendingPc_, size);
  emit(StepKind::kInstruction, pendingPc_, opcode, size == 0 ? 2 : size);
  ++instructions_;
  if (isWait(opcode, size)) {
    waiting_ = true;
    waitPc_ = pendingPc_;
  }
}

void QemuLogParser::emit(StepKind kind, uint32_t address, uint32_t value, uint8_t size) {
  ExecStep step;
  step.kind = kind;
  step.address = address;
  step.value = value;
  step.size = size;
  step.instructions = instructions_;
  step.timeNs = timeNs();
  if (openEntries_.empty() && unresolved_.empty()) {
    if (kind == StepKind::kExceptionEntry) {
      openEntries_.push_back(heldBase_ + held_.size());
      held_.push_back(step);
    } else {
      ready_.push_back(step);
    }
    return;
  }
  // Inside a handler, or just out of one: hold the step.
  if (kind == StepKind::kInstruction && !unresolved_.empty()) {
    // The first instruction after a return is where the preempted code
    // resumes: the return address of every entry returned from since.
    for (size_t i : unresolved_) held_[i - heldBase_].address = step.address;
    unresolved_.clear();
  }
  if (kind == StepKind::kExceptionEntry) openEntries_.push_back(heldBase_ + held_.size());
  if (kind == StepKind::kExceptionReturn && !openEntries_.empty()) {
    unresolved_.push_back(openEntries_.back());
    openEntries_.pop_back();
  }
  held_.push_back(step);
  if (openEntries_.empty() && unresolved_.empty()) {
    resolveAll(0);
  } else if (held_.size() > kMaxHeld) {
    resolveAll(0xFFFFFFFFu);
  }
}

void QemuLogParser::onBusWrite(uint32_t address, uint32_t value) {
  if (address == kSysTickRvr) {
    sysTickReload_ = value & 0x00FFFFFFu;
    if (sysTickCsr_ & 1u) startSysTick();
  } else if (address == kSysTickCsr) {
    const bool wasOn = (sysTickCsr_ & 1u) != 0;
    sysTickCsr_ = value;
    if (!(value & 1u)) {
      sysTickPeriodNs_ = 0;
      expiryPending_ = false;
    } else if (!wasOn) {
      startSysTick();
    }
  }
}

void QemuLogParser::startSysTick() {
  const uint64_t hz = (sysTickCsr_ & 4u) ? clock_.sysTickClockHz : clock_.sysTickRefHz;
  sysTickPeriodNs_ = hz == 0 || sysTickReload_ == 0
                         ? 0
                         : (uint64_t{sysTickReload_} + 1) * 1000000000ull / hz;
  // The write that enables it completes with the instruction in flight.
  nextExpiryNs_ = timeNs() + clock_.nsPerInstruction + sysTickPeriodNs_;
  expiryPending_ = false;
}

void QemuLogParser::advanceSysTick() {
  if (sysTickPeriodNs_ == 0) return;
  const uint64_t now = timeNs();
  while (nextExpiryNs_ <= now) {
    if (sysTickCsr_ & 2u) expiryPending_ = true;
    nextExpiryNs_ += sysTickPeriodNs_;
  }
}

}  // namespace OstrandSim
