#include "PowerRecorder.hpp"

#include <cctype>
#include <filesystem>
#include <fstream>
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

namespace {

uint64_t numberOf(const nlohmann::json& v) {
  if (v.is_number_unsigned() || v.is_number_integer()) return v.get<uint64_t>();
  if (v.is_string()) {
    try {
      return std::stoull(v.get<std::string>(), nullptr, 0);
    } catch (const std::exception&) {
    }
  }
  return 0;
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// The last dotted part of an enumerated mode's name: "CPU.Sleep" is "sleep".
std::string modeWord(const std::string& choice) {
  const size_t dot = choice.rfind('.');
  return lower(dot == std::string::npos ? choice : choice.substr(dot + 1));
}

}  // namespace

StateWordLayout::StateWordLayout(const nlohmann::json& jstate,
                                 const std::vector<PeripheralSwitch>& peripherals) {
  const nlohmann::json fields = jstate.is_object() ? jstate.value("bitFields", nlohmann::json::array())
                                                   : nlohmann::json::array();
  bool haveMode = false;
  for (const nlohmann::json& f : fields) {
    if (!f.is_object() || !f.contains("Name") || !f["Name"].is_string() || !f.contains("Start")) continue;
    const std::string name = f["Name"].get<std::string>();
    const std::string text = f.contains("Description") && f["Description"].is_string()
                                 ? f["Description"].get<std::string>() : "";
    Field field{Show::kPc, static_cast<int>(numberOf(f["Start"])), 0};
    field.end = f.contains("End") ? static_cast<int>(numberOf(f["End"])) : field.start;
    if (field.end < field.start || field.start >= 64) continue;
    if (name == "PC") {
      fields_.push_back(field);
    } else if ((name == "PM" || name == "PowerMode") && f.contains("Enums") && f["Enums"].is_array()) {
      field.show = Show::kMode;
      for (const nlohmann::json& e : f["Enums"]) {
        if (!e.is_object() || !e.contains("Choice") || !e["Choice"].is_string()) continue;
        const std::string word = modeWord(e["Choice"].get<std::string>());
        if (word == "active") field.running = numberOf(e["Value"]);
        if (word == "sleep") field.sleeping = numberOf(e["Value"]);
      }
      fields_.push_back(field);
      haveMode = true;
    } else if (name.find("PWRSTATE") != std::string::npos &&
               (text.find("%CORTEXM_PM") != std::string::npos || name == "PWRSTATE0")) {
      // The processor mode numbers of that placeholder: Active 0, Sleep 2.
      field.show = Show::kMode;
      field.sleeping = 2;
      fields_.push_back(field);
      haveMode = true;
    } else if (name.find("MOD") != std::string::npos) {
      if (text.find("%HWI") != std::string::npos) {
        field.show = Show::kIrq;
        fields_.push_back(field);
        continue;
      }
      for (size_t i = 0; i < peripherals.size(); ++i) {
        if (peripherals[i].name != text) continue;
        field.show = Show::kPeripheral;
        field.peripheral = i;
        fields_.push_back(field);
      }
    }
  }
  defaultTable_ = !haveMode && jstate.is_object() && numberOf(jstate.value("version", nlohmann::json())) == 2;
}

void StateWordLayout::put(uint32_t words[2], int start, int end, uint64_t value) {
  for (int bit = start; bit <= end && bit < 64; ++bit, value >>= 1) {
    if ((value & 1u) != 0) words[bit / 32] |= 1u << (bit % 32);
  }
}

void StateWordLayout::encode(bool asleep, const std::vector<bool>& peripheralOn, uint32_t irq,
                             uint32_t pc, uint32_t words[2]) const {
  words[0] = words[1] = 0;
  if (defaultTable_) {
    // Version 2's own mode table, with the program counter beside it.
    WLDeviceState state;
    state.cpu = asleep ? WLCpuMode::kSleep : WLCpuMode::kActive;
    uint32_t table[2] = {0, 0};
    encodeStateWords(VSKTspServer::WLStateLayout::kV2, state, pc, table);
    words[0] = table[0] & 0x80000000u;
    words[1] = table[1];
  }
  for (const Field& f : fields_) {
    switch (f.show) {
      // The address in place: the field's lowest bit holds that bit of it.
      case Show::kPc: put(words, f.start, f.end, pc >> (f.start % 32)); break;
      case Show::kMode: put(words, f.start, f.end, asleep ? f.sleeping : f.running); break;
      case Show::kIrq: put(words, f.start, f.end, irq); break;
      case Show::kPeripheral:
        if (peripheralOn[f.peripheral]) put(words, f.start, f.end, ~uint64_t{0});
        break;
    }
  }
}

PowerRecorder::PowerRecorder(PowerConfig config) : config_(std::move(config)) {
  if (config_.sampleRateHz == 0 || config_.sampleRateHz > 1000000) {
    throw std::invalid_argument("Power sample rate must be 1 to 1000000 per second");
  }
  periodNs_ = 1000000000ull / config_.sampleRateHz;
  peripheralOn_.assign(config_.model.peripherals.size(), false);
  if (!config_.jstate.is_null()) {
    words_ = std::make_unique<StateWordLayout>(config_.jstate, config_.model.peripherals);
  }
  if (!config_.directory.empty()) startCapture(config_.directory, 0);
}

PowerRecorder::~PowerRecorder() {
  try {
    finish();
  } catch (const std::exception&) {
    // A destructor cannot report; finish() is the call that does.
  }
}

void PowerRecorder::startCapture(const std::string& directory, uint64_t startNs, uint32_t recordType) {
  finish();
  if (recordType != 0) {
    if (recordType != 7 && recordType != 8) throw std::invalid_argument("record type must be 7 or 8");
    config_.recordType = recordType;
  }
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) throw std::runtime_error("Cannot make " + directory + ": " + error.message());
  stream_ = std::make_unique<VSKTspServer::WLStreamWriter>(directory + "/WLData.bin", config_.recordType);
  directory_ = directory;
  startNs_ = startNs;
  nextSampleNs_ = startNs + periodNs_;
  samples_ = 0;
  energy_ = 0.0;
  const uint32_t none[2] = {0, 0};
  stream_->put(0, none, 0, 0, 0);  // the lead-in
}

void PowerRecorder::finish() {
  if (!stream_) return;
  auto stream = std::move(stream_);
  stream->close();
  if (config_.jstate.is_null()) {
    VSKTspServer::writeCaptureCompanions(directory_, config_.recordType, config_.layout, config_.device);
    return;
  }
  VSKTspServer::writeCaptureCompanions(directory_, config_.recordType, VSKTspServer::WLStateLayout::kNone,
                                       config_.device);
  if (config_.recordType != 7) return;
  const std::string sup = directory_ + "/metadataSup.json";
  std::ofstream out(sup, std::ios::trunc);
  out << nlohmann::json{{"JState", config_.jstate}}.dump(2) << "\n";
  if (!out.flush()) throw std::runtime_error("Cannot write " + sup);
}

double PowerRecorder::currentMa() const {
  double mA = asleep_ ? config_.model.sleepingMa : config_.model.runningMa;
  for (size_t i = 0; i < peripheralOn_.size(); ++i) {
    if (peripheralOn_[i]) mA += config_.model.peripherals[i].currentMa;
  }
  return mA;
}

void PowerRecorder::sampleUntil(uint64_t timeNs) {
  if (!stream_) return;
  while (nextSampleNs_ <= timeNs) {
    const double mA = currentMa();
    const double volts = config_.model.supplyVolts - mA * 1e-3 * config_.model.sourceOhms;
    const uint32_t current = static_cast<uint32_t>(mA * 1e6 + 0.5);
    const auto millivolts = static_cast<uint16_t>(volts * 1000.0 + 0.5);
    // Integrate what the record says, so the stream's own numbers add up.
    energy_ += current * 1e-9 * millivolts * 1e-3 * static_cast<double>(periodNs_) * 1e-9 * 1e7;
    const uint32_t irq = exceptions_.empty() ? 0 : exceptions_.back();
    uint32_t words[2] = {0, 0};
    if (config_.recordType == 7 && words_) {
      words_->encode(asleep_, peripheralOn_, irq, pc_, words);
    } else if (config_.recordType == 7) {
      WLDeviceState state;
      state.cpu = asleep_ ? WLCpuMode::kSleep : WLCpuMode::kActive;
      for (size_t i = 0; i < peripheralOn_.size(); ++i) {
        if (peripheralOn_[i]) state.peripherals |= config_.model.peripherals[i].stateBit;
      }
      state.irq = irq;
      VSKTspServer::encodeStateWords(config_.layout, state, pc_, words);
    }
    stream_->put((nextSampleNs_ - startNs_) / 1000, words, current, millivolts,
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
