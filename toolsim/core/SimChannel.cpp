#include "SimChannel.hpp"

#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "TdfRecording.hpp"
#include "TraceRecorder.hpp"
#include "SimError.hpp"
#include "SimWorld.hpp"

namespace OstrandSim {

using namespace Qx::Nlv::Trace;

namespace {

class SimChannelDriver final : public IChannelDriver {
 public:
  explicit SimChannelDriver(std::string cpu) : cpu_(std::move(cpu)) {}
  void StopRecording(const char*& text) override {
    answer_ = SimWorld::instance().stopRecording(cpu_);
    text = answer_.c_str();
  }
  const std::string& cpu() const { return cpu_; }

 private:
  std::string cpu_;
  std::string answer_;
};

class SimFileChannelDriver final : public IFileChannelDriver {
 public:
  void StopRecording(const char*& text) override { text = ""; }  // a file does not record
};

// One receiver of the session and the CPUs it serves.
struct Receiver {
  std::string name;
  std::string text;
  std::vector<const char*> cpus;
};

class SimChannelServer final : public IChannelServer {
 public:
  explicit SimChannelServer(std::shared_ptr<const Scenario> scenario) : scenario_(std::move(scenario)) {
    // Trace receivers first: a CPU's decoder takes the first receiver that
    // serves it, and that must be its trace, not its power probe.
    for (const char* word : {"MTB", "ETB", "WL"}) {
      Receiver r{word, std::string(word) + " receiver", {}};
      for (const CpuSpec& c : scenario_->cpus) {
        if (scenario_->hasRoute(c.name, word)) r.cpus.push_back(c.name.c_str());
      }
      if (!r.cpus.empty()) receivers_.push_back(std::move(r));
    }
    for (const CpuSpec& c : scenario_->cpus) {
      drivers_[c.name] = std::make_unique<SimChannelDriver>(c.name);
      std::filesystem::path dir = std::filesystem::path(c.program).parent_path();
      sourcePaths_[c.name] = dir.string();
    }
  }
  ~SimChannelServer() { SimWorld::instance().removeChannelListeners(this); }

  void RegisterForEvents(ChannelClient* listener) override {
    SimWorld::instance().addChannelListener(listener, this);
  }
  int32_t GetNumRcvrs() override { return static_cast<int32_t>(receivers_.size()); }
  bool getReceiver(int32_t index, const char*& name, const char*& text,
                   Qx::Nlv::Xevt::NameList& cpus) override {
    if (index < 0 || static_cast<size_t>(index) >= receivers_.size()) return false;
    const Receiver& r = receivers_[static_cast<size_t>(index)];
    name = r.name.c_str();
    text = r.text.c_str();
    cpus = {r.cpus.data(), static_cast<uint32_t>(r.cpus.size())};
    return true;
  }
  bool getOutFileName(const char* cpu, const char*& file) override {
    const CpuSpec* c = find(cpu);
    file = c != nullptr ? c->program.c_str() : "";
    return c != nullptr;
  }
  bool GetSourcePaths(const char* cpu, const char*& paths) override {
    auto it = sourcePaths_.find(cpu != nullptr ? cpu : "");
    paths = it != sourcePaths_.end() ? it->second.c_str() : "";
    return it != sourcePaths_.end();
  }
  bool GetTracingCpuInfo(const char* cpu, CpuInfo* info) override {
    const CpuSpec* c = find(cpu);
    if (c == nullptr || info == nullptr) return false;
    std::string receiver = scenario_->traceReceiver(c->name);
    info->deviceKind = c->kind;
    info->processorId = processorIdOf(c->kind);
    info->traceProtocol = receiver == "MTB" ? kProtocolMtb : receiver == "ETB" ? kProtocolEtm4 : kProtocolNone;
    info->traceSourceId = c->traceSourceId;
    info->bigEndian = 0;
    info->addressBits = 32;
    info->options = receiver == "ETB" ? 1 : 0;  // cycle counts in the ETM stream
    return true;
  }
  bool GetChannelDriver(const char* cpu, IChannelDriver*& driver) override {
    auto it = drivers_.find(cpu != nullptr ? cpu : "");
    driver = it != drivers_.end() ? it->second.get() : nullptr;
    return driver != nullptr;
  }

 private:
  const CpuSpec* find(const char* cpu) const { return cpu != nullptr ? scenario_->findCpu(cpu) : nullptr; }

  std::shared_ptr<const Scenario> scenario_;
  std::vector<Receiver> receivers_;
  std::map<std::string, std::unique_ptr<SimChannelDriver>> drivers_;
  std::map<std::string, std::string> sourcePaths_;
};

class SimProgramDataSource final : public IProgramDataSource {
 public:
  explicit SimProgramDataSource(std::string file) : file_(std::move(file)) {}
  const char* getProgramFile() override { return file_.c_str(); }

 private:
  std::string file_;
};

class SimConfigManager final : public IDeviceConfigManager {
 public:
  SimConfigManager(std::string cpu, uint64_t clockHz) : cpu_(std::move(cpu)) {
    if (clockHz > 0) properties_["Timing Clock Frequency"] = Json::UInt64{clockHz};
  }
  void RegisterEventHandler(CDeviceConfigEvents* listener) override { listener_ = listener; }
  // The live configuration is what the host says the device is; the
  // decoder keeps the text it is given.
  void applyLiveConfiguration() override {
    if (listener_ != nullptr) listener_->OnDeviceConfig(cpu_.c_str(), nullptr, configuration_);
  }
  // A recording's configuration: the properties its run was made with.
  void LoadConfiguration(const char* path, uint32_t) override {
    const std::string file = path != nullptr ? path : "";
    TdfRecording recording;
    try {
      recording = readTdf(file);
    } catch (const std::exception& e) {
      throw SimError(e.what());
    }
    Json::Value conf;
    std::string errors;
    std::istringstream in(recording.configuration);
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &conf, &errors) || !conf.isObject()) {
      throw SimError("Cannot read trace recording " + file + ": its configuration is no JSON object");
    }
    properties_ = conf;
    if (!properties_.isMember("Timing Clock Frequency") && recording.clockHz > 0) {
      properties_["Timing Clock Frequency"] = Json::UInt64{static_cast<uint64_t>(recording.clockHz)};
    }
  }
  bool getProperty(const char* name, ConfigProperty& value) override {
    const Json::Value& v = properties_[name != nullptr ? name : ""];
    if (v.isBool()) {
      value.integer = v.asBool() ? 1 : 0;
    } else if (v.isIntegral()) {
      value.integer = v.asInt64();
      value.real = static_cast<double>(value.integer);
    } else if (v.isDouble()) {
      value.real = v.asDouble();
      value.integer = static_cast<int64_t>(value.real);
    } else if (v.isString()) {
      text_ = v.asString();
      value.text = text_.c_str();
    } else {
      return false;
    }
    return true;
  }

 private:
  std::string cpu_;
  CDeviceConfigEvents* listener_ = nullptr;
  std::string configuration_;
  Json::Value properties_{Json::objectValue};
  std::string text_;
};

// Lays the rows of a source out as the column model says: values at their
// offsets, valid bits, string cells as offset and length into `strings`.
class BlockWriter final : public RowSink {
 public:
  BlockWriter(const std::vector<ColumnDef>& columns, const std::vector<uint32_t>& offsets,
              const std::vector<uint32_t>& sizes, uint8_t* row, uint8_t* valid, std::string& strings)
      : columns_(columns), offsets_(offsets), sizes_(sizes), row_(row), valid_(valid), strings_(strings) {}

  void value(uint32_t column, uint64_t v) override {
    for (uint32_t b = 0; b < sizes_[column]; ++b) row_[offsets_[column] + b] = static_cast<uint8_t>(v >> (8 * b));
    valid_[column / 8] |= static_cast<uint8_t>(1u << (column % 8));
  }
  void text(uint32_t column, std::string_view text) override {
    uint32_t offset = static_cast<uint32_t>(strings_.size());
    uint16_t length = static_cast<uint16_t>(std::min<size_t>(text.size(), 0xFFFF));
    strings_.append(text.substr(0, length));
    strings_.push_back('\0');
    uint8_t* cell = row_ + offsets_[column];
    for (int b = 0; b < 4; ++b) cell[b] = static_cast<uint8_t>(offset >> (8 * b));
    cell[4] = static_cast<uint8_t>(length);
    cell[5] = static_cast<uint8_t>(length >> 8);
    valid_[column / 8] |= static_cast<uint8_t>(1u << (column % 8));
  }

 private:
  const std::vector<ColumnDef>& columns_;
  const std::vector<uint32_t>& offsets_;
  const std::vector<uint32_t>& sizes_;
  uint8_t* row_;
  uint8_t* valid_;
  std::string& strings_;
};

uint32_t bytesOf(uint32_t bits) { return bits <= 8 ? 1 : bits <= 16 ? 2 : bits <= 32 ? 4 : 8; }

class SimDecoder final : public IDecoder {
 public:
  SimDecoder(std::string cpu, std::string receiver, std::string program, bool file, uint64_t clockHz)
      : cpu_(std::move(cpu)), receiver_(std::move(receiver)), file_(file), columns_(decoderColumns(receiver_)),
        programData_(std::move(program)), config_(cpu_, clockHz) {
    for (const ColumnDef& c : columns_) {
      offsets_.push_back(rowSize_);
      sizes_.push_back(c.isString ? 6 : bytesOf(c.bits));
      rowSize_ += sizes_.back();
    }
  }

  void getColumnCount(uint32_t& count) override { count = static_cast<uint32_t>(columns_.size()); }
  void getColumnInfo(uint32_t index, uint32_t& id, uint32_t& bitWidth, bool& isString, const char*& name,
                     const char*& text1, const char*& text2) override {
    if (index >= columns_.size()) throw SimError("Column " + std::to_string(index) + " does not exist");
    const ColumnDef& c = columns_[index];
    id = index;
    bitWidth = c.isString ? 48 : c.bits;
    isString = c.isString;
    name = c.name.c_str();
    text1 = receiver_.c_str();
    text2 = "";
  }
  void bitsToBytes(uint32_t bitWidth, uint32_t& size) override { size = bytesOf(bitWidth); }
  void prepareColumn(uint32_t index, bool) override {
    if (index >= columns_.size()) throw SimError("Column " + std::to_string(index) + " does not exist");
  }

  void SeekRead(uint32_t seekPosition, double, TracePosition, uint32_t numberOfSamples, uint32_t& rows,
                uint8_t* dataBuffer, TracePosition* positions, uint8_t* validBuffer, std::string& strings) override {
    rows = 0;
    strings.clear();
    if (seekPosition == kSeekStart) {
      try {
        source_ = file_ ? fileRows_ : SimWorld::instance().capture(cpu_);
      } catch (const std::exception& e) {
        throw std::string(e.what());
      }
      next_ = 0;
    } else if (seekPosition != kSeekContinue) {
      throw std::string("seek position " + std::to_string(seekPosition) + " is not supported");
    }
    if (!source_ || dataBuffer == nullptr || validBuffer == nullptr) return;
    uint32_t validBytes = static_cast<uint32_t>((columns_.size() + 7) / 8);
    while (rows < numberOfSamples && next_ < source_->rowCount()) {
      uint8_t* row = dataBuffer + static_cast<size_t>(rows) * rowSize_;
      uint8_t* valid = validBuffer + static_cast<size_t>(rows) * validBytes;
      std::memset(row, 0, rowSize_);
      std::memset(valid, 0, validBytes);
      BlockWriter writer(columns_, offsets_, sizes_, row, valid, strings);
      source_->readRow(next_, writer);
      if (positions != nullptr) positions[rows] = TracePosition{next_, 0};
      ++next_;
      ++rows;
    }
  }

  // Reads a recording's trace and decodes it with the program the decoder
  // was made with (or else the one the recording names).
  void LoadFile(const char* path, uint32_t, uint32_t) override {
    const std::string file = path != nullptr ? path : "";
    if (!file_) throw SimError("A live decoder reads its CPU's trace, not a file ('" + file + "')");
    try {
      const TdfRecording recording = readTdf(file);
      if (recording.receiverName != receiver_) {
        throw SimError("Trace recording " + file + " holds " + recording.receiverName + " trace, not " + receiver_);
      }
      std::string program = programData_.getProgramFile();
      if (program.empty()) program = recording.programFile;
      std::unique_ptr<ProgramImage> image;
      try {
        image = std::make_unique<ProgramImage>(program);
      } catch (const std::exception& e) {
        throw SimError("Trace recording " + file + ": its program file cannot be read: " + e.what());
      }
      fileRows_ = decodeTraceRows(recording, *image);
    } catch (const SimError&) {
      throw;
    } catch (const std::exception& e) {
      throw SimError(e.what());
    }
  }
  IOverlayInfo* getOverlayInfo() override { return nullptr; }

  IProgramDataSource* programData() { return &programData_; }
  IDeviceConfigManager* config() { return &config_; }

 private:
  std::string cpu_;
  std::string receiver_;
  bool file_;
  const std::vector<ColumnDef>& columns_;
  std::vector<uint32_t> offsets_;
  std::vector<uint32_t> sizes_;
  uint32_t rowSize_ = 0;
  std::shared_ptr<const RowSource> source_;
  std::shared_ptr<const RowSource> fileRows_;  // a file decoder's rows, after LoadFile
  uint64_t next_ = 0;
  SimProgramDataSource programData_;
  SimConfigManager config_;
};

class SimFoundry final : public IChannelFoundry {
 public:
  void CreateChannelServer(IChannelServer*& server, uint32_t) override {
    auto scenario = SimWorld::instance().scenario();
    if (!scenario) throw SimError("No debug session: the channel server cannot run");
    server = new SimChannelServer(std::move(scenario));
  }
  void DestroyChannelServer(IChannelServer* server, uint32_t) override {
    delete static_cast<SimChannelServer*>(server);
  }
  void CreateFileChannelDriver(IFileChannelDriver*& driver) override { driver = new SimFileChannelDriver(); }
  void DestroyFileChannelDriver(IFileChannelDriver* driver) override {
    delete static_cast<SimFileChannelDriver*>(driver);
  }
  void CreateDecoder(IChannelDriver* driver, const char* receiverName, const CpuInfo* cpuInfo,
                     const char* coffFile, IDecoder*& decoder) override {
    auto* live = dynamic_cast<SimChannelDriver*>(driver);
    if (live == nullptr) throw SimError("A live decoder needs the channel driver of a CPU");
    std::string receiver = receiverName != nullptr ? receiverName : "";
    if (receiver != "MTB" && receiver != "ETB") {
      throw SimError("No trace decoder for receiver '" + receiver + "' of CPU " + live->cpu());
    }
    const CpuSpec* spec = nullptr;
    auto scenario = SimWorld::instance().scenario();
    if (scenario) spec = scenario->findCpu(live->cpu());
    decoder = new SimDecoder(live->cpu(), receiver, coffFile != nullptr ? coffFile : "", false,
                             spec != nullptr ? spec->clockHz : 0);
  }
  void LookupProgramDataSource(IDecoder* decoder, IProgramDataSource*& source) override {
    source = decoder != nullptr ? static_cast<SimDecoder*>(decoder)->programData() : nullptr;
  }
  void LookupDeviceConfigManager(IDecoder* decoder, IDeviceConfigManager*& manager) override {
    manager = decoder != nullptr ? static_cast<SimDecoder*>(decoder)->config() : nullptr;
  }
  void DestroyDecoder(IDecoder* decoder) override { delete static_cast<SimDecoder*>(decoder); }
  void CreateDecoder(IFileChannelDriver* driver, const char* receiverName, const CpuInfo* cpuInfo,
                     const char* coffFile, IDecoder*& decoder, const char* tdfFile) override {
    std::string receiver = receiverName != nullptr ? receiverName : "";
    if (receiver != "MTB" && receiver != "ETB") {
      throw SimError("No trace decoder for receiver '" + receiver + "' of the recording");
    }
    if (driver == nullptr) throw SimError("A file decoder needs a file channel driver");
    decoder = new SimDecoder(cpuInfo != nullptr && cpuInfo->name != nullptr ? cpuInfo->name : "", receiver,
                             coffFile != nullptr ? coffFile : "", true, 0);
  }
  bool isSTM(const CpuInfo*, const char*, const char*) override { return false; }
  // Both trace units count in core cycles: their clock is the device
  // configuration's "Timing Clock Frequency" (the CPU clock).
  bool isITM(const CpuInfo*, const char* receiverName, const char*) override {
    const std::string receiver = receiverName != nullptr ? receiverName : "";
    return receiver == "MTB" || receiver == "ETB";
  }
};

}  // namespace

IChannelFoundry* createFoundry() { return new SimFoundry(); }
void destroyFoundry(IChannelFoundry* foundry) { delete static_cast<SimFoundry*>(foundry); }

}  // namespace OstrandSim
