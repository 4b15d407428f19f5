#include "TraceRecorder.hpp"

#include <mutex>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "EtmDecoder.hpp"
#include "EtmEncoder.hpp"
#include "MtbDecoder.hpp"
#include "MtbEncoder.hpp"
#include "TdfRecording.hpp"

namespace OstrandSim {

namespace {

// The rows of a decoded buffer in the columns of the receiver's decoder:
// the decoder's columns by name, "Index" the row's number and "Trace
// Status" "Run" on the row that opens a stretch of sequential code.
class DecodedRows final : public RowSource {
 public:
  DecodedRows(const std::string& receiver, RowTable table)
      : columns_(decoderColumns(receiver)), table_(std::move(table)) {
    for (const ColumnDef& c : columns_) from_.push_back(table_.columnIndex(c.name));
    read_ = table_.columnIndex(kReadAddress);
    // "Timestamp": the cycles counted up to the row, so a reader with the
    // CPU clock has real times.
    const int cycles = table_.columnIndex(kCycles);
    uint64_t counted = 0;
    for (size_t r = 0; cycles >= 0 && r < table_.rowCount(); ++r) {
      counted += table_.value(r, cycles).value_or(0);
      timestamps_.push_back(counted);
    }
  }

  const std::vector<ColumnDef>& columns() const override { return columns_; }
  uint64_t rowCount() const override { return table_.rowCount(); }
  void readRow(uint64_t index, RowSink& sink) const override {
    const size_t row = static_cast<size_t>(index);
    for (uint32_t c = 0; c < columns_.size(); ++c) {
      if (from_[c] >= 0) {
        if (auto v = table_.value(row, from_[c])) sink.value(c, *v);
      } else if (columns_[c].name == "Index") {
        sink.value(c, index);
      } else if (columns_[c].name == "Timestamp" && row < timestamps_.size()) {
        sink.value(c, timestamps_[row]);
      } else if (columns_[c].name == kTraceStatus && read_ >= 0 && table_.has(row, read_)) {
        sink.text(c, "Run");
      }
    }
  }

 private:
  const std::vector<ColumnDef>& columns_;
  RowTable table_;
  std::vector<int> from_;  // column of the decoded table, -1 if none
  std::vector<uint64_t> timestamps_;  // per row, when the table counts cycles
  int read_ = -1;
};

std::shared_ptr<const RowSource> mtbRows(const MtbSnapshot& trace, const ProgramImage* image, bool hierarchical) {
  MtbDecodeOptions options;
  options.hierarchical = hierarchical;
  options.maxRows = kMaxMtbRows;
  return std::make_shared<DecodedRows>("MTB", decodeMtb(trace, image, options));
}

std::shared_ptr<const RowSource> etbRows(const EtmSnapshot& trace, const ProgramImage& image) {
  return std::make_shared<DecodedRows>("ETB", decodeEtm(trace, image, nullptr, kMaxMtbRows));
}

class RecorderBase : public TraceRecorder {
 public:
  RecorderBase(std::shared_ptr<const ProgramImage> image, std::function<void(RecordingStop)> selfStop)
      : image_(std::move(image)), selfStop_(std::move(selfStop)) {}

  bool stop() override {
    std::lock_guard<std::mutex> guard(mutex_);
    if (stop_ != RecordingStop::kNone) return false;
    stop_ = RecordingStop::kUserRequest;
    return true;
  }
  RecordingStop stopped() const override {
    std::lock_guard<std::mutex> guard(mutex_);
    return stop_;
  }

  void onStep(const ExecStep& step) override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      if (stop_ == RecordingStop::kNone) feed(step);
    }
    if (pendingStop_ != RecordingStop::kNone && selfStop_) selfStop_(pendingStop_);
    pendingStop_ = RecordingStop::kNone;
  }

 protected:
  // Called with mutex_ held, while recording.
  virtual void feed(const ExecStep& step) = 0;
  // With mutex_ held by the step; the callback runs after unlocking.
  void stopBySelf(RecordingStop why) {
    if (stop_ != RecordingStop::kNone) return;
    pendingStop_ = why;
    stop_ = why;
  }

  std::shared_ptr<const ProgramImage> image_;
  std::function<void(RecordingStop)> selfStop_;
  mutable std::mutex mutex_;  // guards stop_ and the trace unit of the subclass
  RecordingStop stop_ = RecordingStop::kNone;
  RecordingStop pendingStop_ = RecordingStop::kNone;  // run thread only
};

MtbConfig mtbConfigOf(const TraceSettings& s) {
  MtbConfig c;
  c.bufferBytes = s.bufferBytes;
  c.circular = !s.oneShot;
  c.traceOn = s.traceOn;
  // POSITION can only equal a watermark inside the buffer, on a packet.
  c.watermark = s.watermark < s.bufferBytes ? s.watermark & ~7u : 0;
  c.stopAtWatermark = s.stopAtWatermark && c.watermark != 0;
  return c;
}

class MtbRecorder final : public RecorderBase {
 public:
  MtbRecorder(const TraceSettings& settings, std::shared_ptr<const ProgramImage> image,
              std::function<void(RecordingStop)> selfStop)
      : RecorderBase(std::move(image), std::move(selfStop)), mtb_(mtbConfigOf(settings)),
        hierarchical_(settings.hierarchical) {
    mtb_.setStopCallback([this] { stopBySelf(RecordingStop::kBufferFull); });
  }

  std::shared_ptr<const RowSource> rows() const override {
    MtbSnapshot snapshot;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      snapshot = mtb_.snapshot();
    }
    return mtbRows(snapshot, image_.get(), hierarchical_);
  }
  void saveTrace(TdfRecording& out) const override {
    std::lock_guard<std::mutex> guard(mutex_);
    out.receiverName = "MTB";
    out.mtb = mtb_.snapshot();
    out.etm.reset();
  }

 private:
  void feed(const ExecStep& step) override { mtb_.onStep(step); }

  MtbEncoder mtb_;
  bool hierarchical_;
};

EtmConfig etmConfigOf(const TraceSettings& s, uint32_t traceId, uint64_t clockHz) {
  EtmConfig c;
  c.bufferBytes = s.bufferBytes;
  c.circular = !s.oneShot;
  c.traceOn = s.traceOn;
  for (const AddressRange& r : s.ranges) {
    c.ranges.push_back({static_cast<uint32_t>(r.start), static_cast<uint32_t>(r.end)});
  }
  if (s.startAddress) c.startAddresses.push_back(static_cast<uint32_t>(*s.startAddress));
  if (s.stopAddress) c.stopAddresses.push_back(static_cast<uint32_t>(*s.stopAddress));
  c.nsPerCycle = clockHz != 0 ? static_cast<uint32_t>(std::max<uint64_t>(1, 1000000000ull / clockHz)) : 32;
  if (traceId != 0) c.traceId = static_cast<uint8_t>(traceId & 0x7F);
  return c;
}

class EtbRecorder final : public RecorderBase {
 public:
  EtbRecorder(const TraceSettings& settings, uint32_t traceId, uint64_t clockHz,
              std::shared_ptr<const ProgramImage> image, std::function<void(RecordingStop)> selfStop)
      : RecorderBase(std::move(image), std::move(selfStop)), etm_(etmConfigOf(settings, traceId, clockHz)),
        startAddress_(settings.startAddress), stopAddress_(settings.stopAddress) {
    etm_.setStopCallback([this] { stopBySelf(RecordingStop::kBufferFull); });
    started_ = !startAddress_;
  }

  std::shared_ptr<const RowSource> rows() const override {
    EtmSnapshot snapshot;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      snapshot = etm_.snapshot();
    }
    if (!image_) return std::make_shared<TableRows>(decoderColumns("ETB"));
    return etbRows(snapshot, *image_);
  }
  void saveTrace(TdfRecording& out) const override {
    std::lock_guard<std::mutex> guard(mutex_);
    out.receiverName = "ETB";
    out.etm = etm_.snapshot();
    out.mtb.reset();
  }

 private:
  // The "End Trace" address ends the recording: the unit switches trace off
  // after it, and the next instruction still goes in, so the stretch that
  // ends there is complete in the stream.
  void feed(const ExecStep& step) override {
    etm_.onStep(step);
    if (step.kind != StepKind::kInstruction) return;
    if (triggered_) return stopBySelf(RecordingStop::kTrigger);
    if (!started_ && startAddress_ && step.address == *startAddress_) started_ = true;
    if (started_ && stopAddress_ && step.address == *stopAddress_) triggered_ = true;
  }

  EtmEncoder etm_;
  std::optional<uint64_t> startAddress_;
  std::optional<uint64_t> stopAddress_;
  bool started_ = false;    // guarded by mutex_, like triggered_
  bool triggered_ = false;
};

}  // namespace

std::unique_ptr<TraceRecorder> makeRecorder(const TraceSettings& settings, uint32_t traceId,
                                            uint64_t clockHz, std::shared_ptr<const ProgramImage> image,
                                            std::function<void(RecordingStop)> selfStop) {
  if (settings.receiver == "ETB") {
    return std::make_unique<EtbRecorder>(settings, traceId, clockHz, std::move(image), std::move(selfStop));
  }
  return std::make_unique<MtbRecorder>(settings, std::move(image), std::move(selfStop));
}

std::shared_ptr<const RowSource> decodeTraceRows(const TdfRecording& recording, const ProgramImage& image) {
  if (recording.etm) return etbRows(*recording.etm, image);
  if (!recording.mtb) return std::make_shared<TableRows>(decoderColumns(recording.receiverName));
  // "Hierarchical Decode" of the run's configuration, as the recording keeps it.
  bool hierarchical = true;
  const nlohmann::json conf = nlohmann::json::parse(recording.configuration, nullptr, false);
  if (conf.is_object() && conf.contains("Hierarchical Decode") && conf["Hierarchical Decode"].is_boolean()) {
    hierarchical = conf["Hierarchical Decode"].get<bool>();
  }
  return mtbRows(*recording.mtb, &image, hierarchical);
}

const std::vector<ColumnDef>& decoderColumns(const std::string& receiver) {
  static const std::vector<ColumnDef> mtb = {{"Index", 32, false},         {"Read Address", 32, false},
                                             {"Write Address", 32, false}, {"Program Address", 32, false},
                                             {"Program Data", 32, false},  {"Trace Status", 0, true}};
  static const std::vector<ColumnDef> etb = {
      {"Index", 32, false},        {"Program Address", 32, false}, {"Program Data", 32, false},
      {"Cycles", 32, false},       {"Read Address", 32, false},    {"Write Address", 32, false},
      {"Timestamp", 64, false},    {"Trace Status", 0, true}};
  return receiver == "ETB" ? etb : mtb;
}

}  // namespace OstrandSim
