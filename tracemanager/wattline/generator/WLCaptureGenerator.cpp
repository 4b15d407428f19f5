#include "wattline/generator/WLCaptureGenerator.hpp"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <vector>

namespace VSKTspServer {

namespace {

using nlohmann::json;

using Cpu = WLCpuMode;
// Radio states carry the numbers the version-4 description uses for them.
enum class Radio : uint32_t { kOff = 0, kIdle = 1, kSynth = 2, kRxWait = 6, kTx = 10, kRx = 14 };

constexpr uint32_t kTimer = kWLTimer, kUart = kWLUart, kAdc = kWLAdc, kSpi = kWLSpi;

// Interrupt numbers as the version-4 interrupt table numbers them.
constexpr uint32_t kIrqRtc = 20, kIrqUart = 21, kIrqRfCore = 26, kIrqRfCommand = 27;

// Functions of the simulated firmware: [start, end) addresses. Sleeping
// code sits on its wait-for-interrupt instruction.
struct Function {
  uint32_t start, end;
};
constexpr Function kRtcIsr{0x000002C0, 0x00000300};
constexpr Function kRfIsr{0x00000340, 0x00000390};
constexpr Function kMainLoop{0x00000520, 0x000005A0};
constexpr Function kSensorRead{0x00000800, 0x00000900};
constexpr Function kUartWrite{0x00000A40, 0x00000AC0};
constexpr Function kRadioSend{0x00001200, 0x00001380};
constexpr uint32_t kWaitForInterrupt = 0x000005A4;

// One stretch of constant device state.
struct Phase : WLDeviceState {
  uint64_t end = 0;  // microseconds
  Function code{};
};

class Rng {
 public:
  explicit Rng(uint64_t seed) : s_(seed * 0x9E3779B97F4A7C15ull + 0x2545F4914F6CDD1Dull) {}
  uint64_t next() {
    s_ ^= s_ >> 12;
    s_ ^= s_ << 25;
    s_ ^= s_ >> 27;
    return s_ * 0x2545F4914F6CDD1Dull;
  }
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  // Roughly normal, mean 0, deviation 1.
  double normal() { return (uniform() + uniform() + uniform() + uniform() - 2.0) * 1.7320508; }
  double between(double lo, double hi) { return lo + (hi - lo) * uniform(); }

 private:
  uint64_t s_;
};

// The firmware's timeline: a wake-up every ~50 ms on the timer, some work,
// a radio exchange every fifth period, deep sleep in between.
class Firmware {
 public:
  explicit Firmware(uint64_t seed) : rng_(seed) {}

  const Phase& at(uint64_t time) {
    while (phases_.empty() || phases_.front().end <= time) {
      if (!phases_.empty()) phases_.pop_front();
      if (phases_.empty()) planPeriod();
    }
    return phases_.front();
  }

 private:
  void add(double microseconds, Cpu cpu, Radio radio, uint32_t peripherals, uint32_t irq,
           bool aux, Function code) {
    planned_ += static_cast<uint64_t>(std::max(1.0, microseconds));
    Phase p;
    p.cpu = cpu;
    p.radio = static_cast<uint32_t>(radio);
    p.peripherals = peripherals;
    p.irq = irq;
    p.auxOn = aux;
    p.end = planned_;
    p.code = code;
    phases_.push_back(p);
  }

  void planPeriod() {
    const uint64_t n = period_++;
    const uint64_t periodEnd = planned_ + static_cast<uint64_t>(rng_.between(45000, 55000));
    const uint32_t timer = kTimer;
    add(rng_.between(150, 400), Cpu::kActive, Radio::kOff, timer, kIrqRtc, false, kRtcIsr);
    add(rng_.between(1200, 3000), Cpu::kActive, Radio::kOff, timer, 0, false, kMainLoop);
    if (n % 4 == 1) {
      add(rng_.between(700, 1300), Cpu::kActive, Radio::kOff, timer | kAdc, 0, true, kSensorRead);
    }
    if (n % 7 == 3) {
      add(rng_.between(1500, 2500), Cpu::kActive, Radio::kOff, timer | kUart, kIrqUart, false,
          kUartWrite);
    }
    if (n % 5 == 2) {
      // The processor naps while the radio works on its own.
      add(rng_.between(300, 500), Cpu::kActive, Radio::kIdle, timer | kSpi, 0, false, kRadioSend);
      add(150, Cpu::kSleep, Radio::kSynth, timer, 0, false, kRadioSend);
      add(rng_.between(900, 1500), Cpu::kSleep, Radio::kTx, timer, kIrqRfCore, false, kRadioSend);
      add(600, Cpu::kSleep, Radio::kRxWait, timer, 0, false, kRadioSend);
      add(rng_.between(500, 1200), Cpu::kSleep, Radio::kRx, timer, 0, false, kRadioSend);
      add(200, Cpu::kActive, Radio::kIdle, timer, kIrqRfCommand, false, kRfIsr);
    }
    // Every tenth period the device stops the timer too and sleeps deepest.
    const Cpu sleep = n % 10 == 9 ? Cpu::kStop : Cpu::kDeepSleep;
    const uint32_t sleepPeripherals = sleep == Cpu::kStop ? 0 : timer;
    if (periodEnd > planned_) {
      add(static_cast<double>(periodEnd - planned_), sleep, Radio::kOff, sleepPeripherals, 0,
          false, {kWaitForInterrupt, kWaitForInterrupt + 4});
    }
  }

  Rng rng_;
  std::deque<Phase> phases_;
  uint64_t planned_ = 0;
  uint64_t period_ = 0;
};

// Current drawn in a phase, in milliamperes, before noise.
double currentOf(const Phase& p) {
  double mA = 0.0;
  switch (p.cpu) {
    case Cpu::kActive: mA = 3.1; break;
    case Cpu::kSleep: mA = 1.05; break;
    case Cpu::kDeepSleep: mA = 0.0035; break;
    case Cpu::kStop: mA = 0.0009; break;
  }
  switch (static_cast<Radio>(p.radio)) {
    case Radio::kOff: break;
    case Radio::kIdle: mA += 0.6; break;
    case Radio::kSynth: mA += 4.0; break;
    case Radio::kRxWait: mA += 5.5; break;
    case Radio::kTx: mA += 8.8; break;
    case Radio::kRx: mA += 6.1; break;
  }
  if (p.peripherals & kUart) mA += 0.25;
  if (p.peripherals & kSpi) mA += 0.3;
  if (p.peripherals & kAdc) mA += 0.45;
  if (p.auxOn) mA += 0.1;
  return mA;
}

json bit(const char* name, const char* description, int start, int end = -1) {
  if (end < 0) end = start;
  json field = {{"Name", name}, {"Start", start}, {"End", end}, {"Width", end - start + 1}};
  field["Description"] = description == nullptr ? json() : json(description);
  return field;
}

json choice(const char* name, const char* description, uint32_t value) {
  return {{"Choice", name}, {"Description", description}, {"Value", value}};
}

// Buffered writer of the stream file.
class StreamFile {
 public:
  explicit StreamFile(const std::string& path) : path_(path), file_(std::fopen(path.c_str(), "wb")) {
    if (file_ == nullptr) fail();
    buffer_.reserve(kBuffer);
  }
  ~StreamFile() {
    if (file_ != nullptr) std::fclose(file_);
  }
  StreamFile(const StreamFile&) = delete;
  StreamFile& operator=(const StreamFile&) = delete;

  void put(uint64_t value, int width) {
    for (int i = 0; i < width; ++i) buffer_.push_back(static_cast<uint8_t>(value >> (8 * i)));
  }
  void flushIfFull() {
    if (buffer_.size() >= kBuffer - 64) flush();
  }
  void close() {
    flush();
    if (std::fclose(file_) != 0) {
      file_ = nullptr;
      fail();
    }
    file_ = nullptr;
  }

 private:
  static constexpr size_t kBuffer = size_t{1} << 20;
  void flush() {
    if (!buffer_.empty() && std::fwrite(buffer_.data(), 1, buffer_.size(), file_) != buffer_.size()) fail();
    buffer_.clear();
  }
  [[noreturn]] void fail() {
    throw std::runtime_error("Cannot write " + path_ + ": " + std::strerror(errno));
  }
  std::string path_;
  FILE* file_;
  std::vector<uint8_t> buffer_;
};

std::string utcNow() {
  char text[32];
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::strftime(text, sizeof text, "%FT%TZ", &utc);
  return text;
}

void writeJson(const std::string& path, const json& value) {
  std::ofstream out(path, std::ios::trunc);
  out << value.dump(3) << "\n";
  if (!out) throw std::runtime_error("Cannot write " + path + ": " + std::strerror(errno));
}

}  // namespace

// Lays the device state into the two state words as the layout's
// description reads them.
void encodeStateWords(WLStateLayout layout, const WLDeviceState& p, uint32_t pc, uint32_t w[2]) {
  const bool radioOn = p.radio != 0;
  switch (layout) {
    case WLStateLayout::kV2:
    case WLStateLayout::kV2Enums: {
      w[0] = ((p.peripherals & kTimer) ? 1u : 0u) | ((p.peripherals & kUart) ? 2u : 0u) |
             ((p.peripherals & kAdc) ? 4u : 0u) | ((p.peripherals & kSpi) ? 8u : 0u) |
             (radioOn ? 0x20u : 0u);
      if (layout == WLStateLayout::kV2) {
        // The default table: Active, LPM0 (needs bit 31 of word 0), LPM3, LPM4.
        static constexpr uint32_t kMode[] = {0x03400000, 0x82400000, 0x80400000, 0x80000000};
        w[1] = kMode[static_cast<int>(p.cpu)] | ((pc >> 1) & 0x000FFFFE);
        if (p.cpu == Cpu::kSleep) w[0] |= 0x80000000u;
      } else {
        w[1] = (static_cast<uint32_t>(p.cpu) + 1) << 28 | (pc & 0x000FFFFE);
      }
      return;
    }
    case WLStateLayout::kV5: {
      static constexpr uint32_t kMode[] = {0, 1, 2, 3};
      w[0] = kMode[static_cast<int>(p.cpu)] | (p.radio == static_cast<uint32_t>(Radio::kTx) ? 1u << 8 : 0) |
             (p.radio == static_cast<uint32_t>(Radio::kRx) || p.radio == static_cast<uint32_t>(Radio::kRxWait) ? 1u << 9 : 0) |
             ((p.peripherals & kAdc) ? 1u << 10 : 0) | ((p.peripherals & kUart) ? 1u << 11 : 0) |
             ((p.peripherals & kSpi) ? 1u << 12 : 0) | ((p.peripherals & kTimer) ? 1u << 13 : 0);
      w[1] = pc;
      return;
    }
    case WLStateLayout::kNone:
    case WLStateLayout::kV4: {
      // Processor mode numbers: Active 0, DeepSleep 1, Sleep 2, Stop 3.
      static constexpr uint32_t kMode[] = {0, 2, 1, 3};
      w[0] = kMode[static_cast<int>(p.cpu)] | p.radio << 4 | p.irq << 8 |
             (p.auxOn ? 3u : 1u) << 14 | ((p.peripherals & kUart) ? 1u << 16 : 0) |
             ((p.peripherals & kSpi) ? 1u << 17 : 0) | ((p.peripherals & kAdc) ? 1u << 18 : 0) |
             ((p.peripherals & kTimer) ? 1u << 19 : 0);
      w[1] = pc;
      return;
    }
  }
}

struct WLStreamWriter::File : StreamFile {
  using StreamFile::StreamFile;
};

WLStreamWriter::WLStreamWriter(const std::string& path, uint32_t recordType)
    : file_(std::make_unique<File>(path)), withWords_(recordType == 7),
      tag_(recordType == 7 ? 0x27 : 0x08) {
  if (recordType != 7 && recordType != 8) throw std::invalid_argument("record type must be 7 or 8");
}

WLStreamWriter::~WLStreamWriter() = default;

void WLStreamWriter::put(uint64_t timeUs, const uint32_t words[2], uint32_t current,
                         uint16_t millivolts, uint32_t energy) {
  file_->put(tag_ | (timeUs << 8), 8);
  if (withWords_) {
    file_->put(words[0], 4);
    file_->put(words[1], 4);
  }
  file_->put(current, 4);
  file_->put(millivolts, 2);
  file_->put(energy, 4);
  file_->flushIfFull();
}

void WLStreamWriter::close() { file_->close(); }

void writeCaptureCompanions(const std::string& directory, uint32_t recordType,
                            WLStateLayout layout, const std::string& device) {
  const bool withWords = recordType == 7;
  // As the capture side leaves it: `dataFile` is not known there.
  const json metadata = {{"typeId", withWords ? "WL+" : "WL"}, {"device", device},
                         {"deviceId", "unknown"},              {"source", "VSK Vireo"},
                         {"time", utcNow()},                   {"dataFile", "unknown"},
                         {"cpu", "unknown"},                   {"dFormat", "unknown"}};
  json sup = json::object();
  if (withWords && layout != WLStateLayout::kNone) sup["JState"] = stateDescription(layout);
  writeJson(directory + "/metadataSup.json", sup);
  // Written last: a directory becomes a trace by its metadata file.
  writeJson(directory + "/metadata", metadata);
}

bool parseStateLayout(const std::string& text, WLStateLayout& layout) {
  if (text == "none") layout = WLStateLayout::kNone;
  else if (text == "v2") layout = WLStateLayout::kV2;
  else if (text == "v2-enums") layout = WLStateLayout::kV2Enums;
  else if (text == "v4") layout = WLStateLayout::kV4;
  else if (text == "v5") layout = WLStateLayout::kV5;
  else return false;
  return true;
}

json stateDescription(WLStateLayout layout) {
  switch (layout) {
    case WLStateLayout::kNone:
      return json();
    case WLStateLayout::kV2:
    case WLStateLayout::kV2Enums: {
      json fields = json::array({bit("MOD_TIMER0", "Timer0", 0), bit("MOD_UART0", "UART0", 1),
                                 bit("MOD_ADC", "ADC", 2), bit("MOD_SPI0", "SPI0", 3),
                                 bit("MOD_RSVD", "NA", 4), bit("MOD_RADIO", "Radio", 5)});
      if (layout == WLStateLayout::kV2Enums) {
        json pm = bit("PM", "Power mode", 60, 62);
        pm["Enums"] = json::array({choice("Active", "processor running", 0x10000000),
                                   choice("LPM0", "processor clock off", 0x20000000),
                                   choice("LPM3", "low-frequency clock only", 0x30000000),
                                   choice("LPM4", "all clocks off", 0x40000000)});
        fields.push_back(pm);
        fields.push_back(bit("PC", "Program counter", 33, 51));
      }
      return {{"name", "sim-mcu16"}, {"version", 2}, {"bitFields", fields}};
    }
    case WLStateLayout::kV4:
      return {{"name", "sim-wireless-m3"},
              {"version", 4},
              {"bitFields", json::array({bit("PWRSTATE0", "%CORTEXM_PM", 0, 1),
                                         bit("PWRSTATE1", "RF%LPRF_PM", 4, 7),
                                         bit("MOD_HWI", "%HWI", 8, 13),
                                         bit("MOD_AUX", "AUX%V_DOMAIN", 14, 15),
                                         bit("MOD_UART0", "UART0", 16), bit("MOD_SSI0", "SSI0", 17),
                                         bit("MOD_ADC", "ADC", 18), bit("MOD_GPT0", "GPTimer0", 19),
                                         bit("PC", "Program counter", 32, 63)})}};
    case WLStateLayout::kV5: {
      json pm = bit("PowerMode", "Processor mode", 0, 1);
      // Mode names end in names of the state graph's style table, so that
      // every span a viewer gets has a look of its own.
      pm["Enums"] = json::array({choice("CPU.Active", "running", 0), choice("CPU.Sleep", "clock gated", 1),
                                 choice("CPU.DeepSleep", "retention", 2), choice("CPU.Off", "off", 3)});
      return {{"name", "sim-mcu-m4"},
              {"version", 5},
              {"bitFields", json::array({pm, bit("MOD_RFTX", "Radio.TX", 8), bit("MOD_RFRX", "Radio.RX", 9),
                                         bit("MOD_ADC", "Sensor.ADC", 10),
                                         bit("MOD_UART0", "Serial.UART0", 11),
                                         bit("MOD_SPI0", "Serial.SPI0", 12),
                                         bit("MOD_RTC", "Timer.RTC", 13),
                                         bit("PC", "Program counter", 32, 63)})}};
    }
  }
  return json();
}

WLGeneratorResult writeStream(const std::string& path, const WLGeneratorOptions& options,
                              const std::function<void(double)>& progress) {
  if (options.recordType != 7 && options.recordType != 8) {
    throw std::invalid_argument("record type must be 7 or 8");
  }
  if (options.sampleRate == 0 || options.sampleRate > 1000000) {
    throw std::invalid_argument("sample rate must be 1 to 1000000 samples per second");
  }
  if (!(options.durationSeconds > 0.0)) throw std::invalid_argument("duration must be positive");

  const bool withWords = options.recordType == 7;
  const uint8_t tag = withWords ? 0x27 : 0x08;
  const uint64_t records =
      static_cast<uint64_t>(options.durationSeconds * static_cast<double>(options.sampleRate));
  StreamFile out(path);
  auto putRecord = [&](uint64_t time, const uint32_t* words, uint32_t current, uint16_t voltage,
                       uint32_t energy) {
    out.put(tag | (time << 8), 8);
    if (withWords) {
      out.put(words[0], 4);
      out.put(words[1], 4);
    }
    out.put(current, 4);
    out.put(voltage, 2);
    out.put(energy, 4);
    out.flushIfFull();
  };

  // The counter is left running from earlier use; with wrapEnergy it is
  // started where an average device crosses 2^32 early in the capture.
  Rng rng(options.seed ^ 0x5EED);
  const double estimate = 3000.0 * options.durationSeconds;  // ~0.3 mW in 0.1 uJ per second
  const uint64_t start = options.wrapEnergy ? (uint64_t{1} << 32) - static_cast<uint64_t>(
                                                  std::min(estimate, 2.0e9) + 1)
                                            : rng.next() % 0x40000000u;
  double energy = static_cast<double>(start);  // 0.1 uJ, unwrapped
  uint32_t wraps = 0;
  uint32_t lastCounter = static_cast<uint32_t>(start);

  const uint32_t zeroWords[2] = {0, 0};
  putRecord(0, zeroWords, 0, 0, lastCounter);  // lead-in: not a sample

  Firmware firmware(options.seed);
  uint32_t pc = kMainLoop.start;
  Function running = kMainLoop;
  const double period = 1e6 / options.sampleRate;
  uint64_t previous = 0;
  const uint64_t progressStep = std::max<uint64_t>(records / 200, 1);
  for (uint64_t i = 0; i < records; ++i) {
    const uint64_t time = static_cast<uint64_t>(static_cast<double>(i) * period);
    const Phase& p = firmware.at(time);
    double mA = currentOf(p) * (1.0 + 0.02 * rng.normal()) + 0.0004 * rng.normal();
    if (mA < 0.0) mA = 0.0;
    const double volts = 3.0 - mA * 0.006 + 0.001 * rng.normal();
    if (i > 0) energy += volts * mA * 1e-3 * static_cast<double>(time - previous) * 10.0;
    previous = time;

    // The program counter walks through the running function and starts
    // over at its top; a sleeping core stays on its wait instruction.
    if (p.code.start != running.start) {
      running = p.code;
      pc = running.start;
    } else if (p.cpu == Cpu::kActive) {
      pc += 4 * (1 + static_cast<uint32_t>(rng.next() % 3));
      if (pc >= running.end) pc = running.start;
    }
    if (p.cpu != Cpu::kActive) pc = kWaitForInterrupt;

    uint32_t words[2] = {0, 0};
    if (withWords) encodeStateWords(options.layout, p, pc, words);
    // The first sample is taken before the converters settle: no reading.
    const bool settled = i > 0;
    const uint32_t current = settled ? static_cast<uint32_t>(mA * 1e6) : 0xFFFFFFFFu;
    const uint16_t millivolts = settled ? static_cast<uint16_t>(volts * 1000.0) : 0xFFFF;
    const uint32_t counter = static_cast<uint32_t>(static_cast<uint64_t>(energy));
    if (counter < lastCounter) ++wraps;
    lastCounter = counter;
    putRecord(time, words, current, millivolts, counter);
    if (progress && i % progressStep == 0) progress(static_cast<double>(i) / records);
  }
  out.close();
  if (progress) progress(1.0);
  const uint64_t size = (records + 1) * (withWords ? 26u : 18u);
  return {records, size, wraps};
}

WLGeneratorResult writeCaptureDirectory(const std::string& directory,
                                        const WLGeneratorOptions& options,
                                        const std::function<void(double)>& progress) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) throw std::runtime_error("Cannot make " + directory + ": " + error.message());
  WLGeneratorResult result = writeStream(directory + "/WLData.bin", options, progress);
  writeCaptureCompanions(directory, options.recordType, options.layout, options.device);
  return result;
}

}  // namespace VSKTspServer
