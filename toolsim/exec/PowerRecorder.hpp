// PowerRecorder: the power probe of a simulated target. It follows the
// device's state through every step it hears; while a capture is open it
// writes a Wattline capture (`WLData.bin`, then at finish()
// `metadataSup.json` and `metadata`) into a directory, sampled in virtual
// time at a fixed rate from the capture's start (record times count from
// there).
//
// Each sample describes the device as the execution left it at that time:
// the processor running or asleep in WFI/WFE, the peripherals on (a
// peripheral is on while the last value written to its enable register has
// any bit of its mask set), the exception being served, and the address
// executing (the waiting instruction while asleep). Current comes from the
// power model (the mode's current plus that of each peripheral on), voltage
// sags with it over the source resistance, and the energy counter
// integrates voltage x current over the sample period (0.1 uJ units,
// wrapping at 32 bits). State words follow the given state description
// (`jstate`: its power mode, peripheral, interrupt and PC fields), else the
// chosen generator layout.
//
// Not thread-safe: steps come from the runner's thread. Throws
// std::runtime_error with the path when the directory or files cannot be
// written; finish() completes the capture (the destructor calls it and
// swallows a failure).
#pragma once

#include <cstdint>
#include <memory>

#include <nlohmann/json.hpp>
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
  std::string directory;           // empty: no capture until startCapture()
  uint32_t sampleRateHz = 100000;  // 1 to 1000000
  uint32_t recordType = 7;         // 7 with state words, 8 without
  VSKTspServer::WLStateLayout layout = VSKTspServer::WLStateLayout::kV5;
  std::string device = "sim/cpu";
  PowerModel model;
  // A state description (name, version, bitFields) the words follow; a
  // peripheral field shows the peripheral of the model named by its
  // Description. Null: `layout`.
  nlohmann::json jstate;
};

// The state words of a description: where its fields lie and what each
// shows. Fields past the two words are left out.
class StateWordLayout {
 public:
  StateWordLayout(const nlohmann::json& jstate, const std::vector<PeripheralSwitch>& peripherals);
  void encode(bool asleep, const std::vector<bool>& peripheralOn, uint32_t irq, uint32_t pc,
              uint32_t words[2]) const;

 private:
  enum class Show { kPc, kMode, kPeripheral, kIrq };
  struct Field {
    Show show;
    int start;
    int end;
    uint64_t running = 0;  // kMode: the value while running, and asleep
    uint64_t sleeping = 0;
    size_t peripheral = 0;
  };
  static void put(uint32_t words[2], int start, int end, uint64_t value);
  std::vector<Field> fields_;
  bool defaultTable_ = false;  // version 2 without a mode field
};

class PowerRecorder : public StepConsumer {
 public:
  explicit PowerRecorder(PowerConfig config);
  ~PowerRecorder() override;

  void onStep(const ExecStep& step) override;
  // Opens a capture into `directory` (made if missing; a capture still open
  // is finished first) whose first sample falls one period after `startNs`,
  // of `recordType` (7 or 8; 0: the configured one).
  void startCapture(const std::string& directory, uint64_t startNs, uint32_t recordType = 0);
  // Closes the stream and writes the companions; nothing when no capture
  // is open.
  void finish();
  bool capturing() const { return stream_ != nullptr; }

  uint64_t samples() const { return samples_; }
  // Energy integrated so far, in joules (no wrap).
  double energyJoules() const { return energy_ * 1e-7; }

 private:
  void sampleUntil(uint64_t timeNs);
  double currentMa() const;

  PowerConfig config_;
  std::unique_ptr<VSKTspServer::WLStreamWriter> stream_;
  std::unique_ptr<StateWordLayout> words_;
  std::string directory_;
  uint64_t startNs_ = 0;
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
