// PowerRecorder: the power probe of a simulated target. During a run it
// writes a Wattline capture (`WLData.bin`, `metadataSup.json`, `metadata`)
// into a directory, sampled in virtual time at a fixed rate.
//
// Each sample describes the device as the execution left it at that time:
// the processor running or asleep in WFI/WFE, the peripherals on (a
// peripheral is on while the last value written to its enable register has
// any bit of its mask set), the exception being served, and the address
// executing (the waiting instruction while asleep). Current comes from the
// power model (the mode's current plus that of each peripheral on), voltage
// sags with it over the source resistance, and the energy counter
// integrates voltage x current over the sample period (0.1 uJ units,
// wrapping at 32 bits). State words follow the chosen layout's description.
//
// Not thread-safe: steps come from the runner's thread. Throws
// std::runtime_error with the path when the directory or files cannot be
// written; finish() completes the capture (the destructor calls it and
// swallows a failure).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ExecStep.hpp"
#include "wattline/generator/WLCaptureGenerator.hpp"

namespace OstrandSim {

struct PeripheralSwitch {
  std::string name;
  uint32_t enableRegister = 0;
  uint32_t enableMask = 1;
  double currentMa = 0.0;
  uint32_t stateBit = 0;  // VSKTspServer::kWL* bit it shows as in the state word
};

struct PowerModel {
  double runningMa = 3.0;
  double sleepingMa = 0.9;
  double supplyVolts = 3.3;
  double sourceOhms = 2.0;
  std::vector<PeripheralSwitch> peripherals;
};

// SysTick and the UART of the test programs' boards.
PowerModel defaultPowerModel(const std::string& machine);

struct PowerConfig {
  std::string directory;
  uint32_t sampleRateHz = 100000;  // 1 to 1000000
  uint32_t recordType = 7;         // 7 with state words, 8 without
  VSKTspServer::WLStateLayout layout = VSKTspServer::WLStateLayout::kV5;
  std::string device = "sim/cpu";
  PowerModel model;
};

class PowerRecorder : public StepConsumer {
 public:
  explicit PowerRecorder(PowerConfig config);
  ~PowerRecorder() override;

  void onStep(const ExecStep& step) override;
  // Writes the companions and closes the stream; idempotent.
  void finish();

  uint64_t samples() const { return samples_; }
  // Energy integrated so far, in joules (no wrap).
  double energyJoules() const { return energy_ * 1e-7; }

 private:
  void sampleUntil(uint64_t timeNs);
  double currentMa() const;

  PowerConfig config_;
  std::unique_ptr<VSKTspServer::WLStreamWriter> stream_;
  bool finished_ = false;
  uint64_t periodNs_ = 0;
  uint64_t nextSampleNs_ = 0;
  uint64_t samples_ = 0;
  double energy_ = 0.0;  // 0.1 uJ

  bool asleep_ = false;
  uint32_t pc_ = 0;
  std::vector<uint32_t> exceptions_;  // being served, innermost last
  std::vector<bool> peripheralOn_;
};

}  // namespace OstrandSim
