#include "PowerRecorder.hpp"

#include <filesystem>
#include <stdexcept>

namespace OstrandSim {

using VSKTspServer::WLCpuMode;
using VSKTspServer::WLDeviceState;

PowerModel defaultPowerModel(const std::string& machine) {
  PowerModel model;
  model.peripherals.push_back({"SysTick", 0xE000E010u, 1u, 0.05, VSKTspServer::kWLTimer});
  if (machine == "microbit") {
    model.peripherals.push_back({"UART0", 0x40002500u, 0xFu, 1.2, VSKTspServer::kWLUart});
  } else {
    model.peripherals.push_back({"UART0", 0x40004008u, 0x1u, 1.2, VSKTspServer::kWLUart});
  }
  return model;
}

PowerRecorder::PowerRecorder(PowerConfig config) : config_(std::move(config)) {
  if (config_.sampleRateHz == 0 || config_.sampleRateHz > 1000000) {
    throw std::invalid_argument("Power sample rate must be 1 to 1000000 per second");
  }
  std::error_code error;
  std::filesystem::create_directories(config_.directory, error);
  if (error) throw std::runtime_error("Cannot make " + config_.directory + ": " + error.message());
  stream_ = std::make_unique<VSKTspServer::WLStreamWriter>(config_.directory + "/WLData.bin",
                                                           config_.recordType);
  periodNs_ = 1000000000ull / config_.sampleRateHz;
  nextSampleNs_ = periodNs_;
  peripheralOn_.assign(config_.model.peripherals.size(), false);
  const uint32_t none[2] = {0, 0};
  stream_->put(0, none, 0, 0, 0);  // the lead-in
}

PowerRecorder::~PowerRecorder() {
  try {
    finish();
  } catch (const std::exception&) {
    // A destructor cannot report; finish() is the call that does.
  }
}

void PowerRecorder::finish() {
  if (finished_) return;
  finished_ = true;
  stream_->close();
  VSKTspServer::writeCaptureCompanions(config_.directory, config_.recordType, config_.layout,
                                       config_.device);
}

double PowerRecorder::currentMa() const {
  double mA = asleep_ ? config_.model.sleepingMa : config_.model.runningMa;
  for (size_t i = 0; i < peripheralOn_.size(); ++i) {
    if (peripheralOn_[i]) mA += config_.model.peripherals[i].currentMa;
  }
  return mA;
}

void PowerRecorder::sampleUntil(uint64_t timeNs) {
  if (finished_) return;
  while (nextSampleNs_ <= timeNs) {
    const double mA = currentMa();
    const double volts = config_.model.supplyVolts - mA * 1e-3 * config_.model.sourceOhms;
    const uint32_t current = static_cast<uint32_t>(mA * 1e6 + 0.5);
    const auto millivolts = static_cast<uint16_t>(volts * 1000.0 + 0.5);
    // Integrate what the record says, so the stream's own numbers add up.
    energy_ += current * 1e-9 * millivolts * 1e-3 * static_cast<double>(periodNs_) * 1e-9 * 1e7;
    WLDeviceState state;
    state.cpu = asleep_ ? WLCpuMode::kSleep : WLCpuMode::kActive;
    for (size_t i = 0; i < peripheralOn_.size(); ++i) {
      if (peripheralOn_[i]) state.peripherals |= config_.model.peripherals[i].stateBit;
    }
    state.irq = exceptions_.empty() ? 0 : exceptions_.back();
    uint32_t words[2] = {0, 0};
    if (config_.recordType == 7) VSKTspServer::encodeStateWords(config_.layout, state, pc_, words);
    stream_->put(nextSampleNs_ / 1000, words, current, millivolts,
                 static_cast<uint32_t>(static_cast<uint64_t>(energy_)));
    ++samples_;
    nextSampleNs_ += periodNs_;
  }
}

void PowerRecorder::onStep(const ExecStep& step) {
  sampleUntil(step.timeNs);
  switch (step.kind) {
    case StepKind::kInstruction:
      pc_ = step.address;
      break;
    case StepKind::kSleep:
      asleep_ = true;
      pc_ = step.address;
      break;
    case StepKind::kWake:
      asleep_ = false;
      break;
    case StepKind::kExceptionEntry:
      exceptions_.push_back(step.value);
      break;
    case StepKind::kExceptionReturn:
      if (!exceptions_.empty()) exceptions_.pop_back();
      break;
    case StepKind::kBusWrite:
      for (size_t i = 0; i < peripheralOn_.size(); ++i) {
        if (config_.model.peripherals[i].enableRegister == step.address) {
          peripheralOn_[i] = (step.value & config_.model.peripherals[i].enableMask) != 0;
        }
      }
      break;
  }
}

}  // namespace OstrandSim
