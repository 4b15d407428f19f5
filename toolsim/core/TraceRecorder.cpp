#include "TraceRecorder.hpp"

#include <deque>
#include <mutex>

namespace OstrandSim {

namespace {

enum MtbColumn : uint32_t { kMtbIndex, kMtbRead, kMtbWrite, kMtbProgram, kMtbData, kMtbStatus };
enum EtbColumn : uint32_t {
  kEtbIndex, kEtbProgram, kEtbData, kEtbCycles, kEtbRead, kEtbWrite, kEtbTime, kEtbStatus
};

// A stretch of sequential code between two discontinuities: what one MTB
// packet pair bounds.
struct Stretch {
  uint32_t first = 0;
  uint32_t last = 0;
  uint32_t exception = 0;  // entered at its start, 0 if none
  std::vector<std::pair<uint32_t, uint32_t>> instructions;  // address, opcode
};

class RecorderBase : public TraceRecorder {
 public:
  RecorderBase(TraceSettings settings, std::function<void(RecordingStop)> selfStop)
      : settings_(std::move(settings)), selfStop_(std::move(selfStop)) {}

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

 protected:
  // Called with mutex_ held by the step; the callback runs after unlocking.
  void stopBySelf(RecordingStop why) { pendingStop_ = why, stop_ = why; }
  void announce() {
    if (pendingStop_ != RecordingStop::kNone && selfStop_) selfStop_(pendingStop_);
    pendingStop_ = RecordingStop::kNone;
  }

  TraceSettings settings_;
  std::function<void(RecordingStop)> selfStop_;
  mutable std::mutex mutex_;
  RecordingStop stop_ = RecordingStop::kNone;     // guarded by mutex_
  RecordingStop pendingStop_ = RecordingStop::kNone;  // run thread only
};

class MtbRecorder final : public RecorderBase {
 public:
  using RecorderBase::RecorderBase;

  void onStep(const SimStep& step) override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      if (stop_ != RecordingStop::kNone || !settings_.traceOn) return;
      if (step.kind == SimStepKind::kExceptionEntry) {
        pendingException_ = step.value;
        breakNext_ = true;
      } else if (step.kind == SimStepKind::kExceptionReturn) {
        breakNext_ = true;
      } else {
        instruction(step);
      }
    }
    announce();
  }

  std::shared_ptr<const RowSource> rows() const override {
    auto table = std::make_shared<TableRows>(decoderColumns("MTB"));
    std::lock_guard<std::mutex> guard(mutex_);
    uint32_t index = 0;
    auto emit = [&](const Stretch& s) {
      if (table->rowCount() >= kMaxMtbRows) return;
      std::string status = s.exception != 0 ? "Exception " + std::to_string(s.exception) : "Run";
      table->addRow({{kMtbIndex, index++, ""}, {kMtbRead, s.first, ""}, {kMtbWrite, s.last, ""},
                     {kMtbStatus, 0, status}});
      if (!settings_.hierarchical) return;
      for (const auto& [address, opcode] : s.instructions) {
        if (table->rowCount() >= kMaxMtbRows) return;
        table->addRow({{kMtbIndex, index++, ""}, {kMtbProgram, address, ""}, {kMtbData, opcode, ""}});
      }
    };
    for (const Stretch& s : kept_) emit(s);
    return table;
  }

 private:
  // Each closed stretch stands for one packet of 8 bytes in the buffer.
  void instruction(const SimStep& step) {
    bool discontinuity = breakNext_ || (open_ && step.address != nextAddress_);
    if (open_ && discontinuity) close();
    if (!open_) {
      current_ = Stretch{step.address, step.address, pendingException_, {}};
      pendingException_ = 0;
      open_ = true;
    }
    breakNext_ = false;
    current_.last = step.address;
    current_.instructions.emplace_back(step.address, step.value);
    nextAddress_ = step.address + step.size;
  }

  void close() {
    open_ = false;
    size_t capacity = std::max<size_t>(1, settings_.bufferBytes / 8);
    if (kept_.size() == capacity) {
      if (settings_.oneShot) return stopBySelf(RecordingStop::kBufferFull);
      kept_.pop_front();  // the hardware's POSITION wrapped
    }
    kept_.push_back(std::move(current_));
    if (settings_.oneShot && kept_.size() == capacity) stopBySelf(RecordingStop::kBufferFull);
    if (settings_.stopAtWatermark && settings_.watermark > 0 &&
        kept_.size() * 8 >= settings_.watermark) {
      stopBySelf(RecordingStop::kBufferFull);
    }
  }

  std::deque<Stretch> kept_;  // guarded by mutex_, like all below
  Stretch current_;
  bool open_ = false;
  bool breakNext_ = false;
  uint32_t pendingException_ = 0;
  uint32_t nextAddress_ = 0;
};

class EtbRecorder final : public RecorderBase {
 public:
  using RecorderBase::RecorderBase;

  void onStep(const SimStep& step) override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      if (stop_ != RecordingStop::kNone || !settings_.traceOn) return;
      if (step.kind != SimStepKind::kInstruction) {
        breakNext_ = true;
        exception_ = step.kind == SimStepKind::kExceptionEntry ? step.value : 0;
      } else {
        instruction(step);
      }
    }
    announce();
  }

  std::shared_ptr<const RowSource> rows() const override {
    auto table = std::make_shared<TableRows>(decoderColumns("ETB"));
    std::lock_guard<std::mutex> guard(mutex_);
    uint32_t index = 0;
    for (const Row& r : kept_) {
      if (r.run) {
        table->addRow({{kEtbIndex, index++, ""}, {kEtbRead, r.address, ""}, {kEtbWrite, r.from, ""},
                       {kEtbTime, r.timeNs, ""},
                       {kEtbStatus, 0, r.exception != 0 ? "Exception " + std::to_string(r.exception) : "Branch"}});
      } else {
        table->addRow({{kEtbIndex, index++, ""}, {kEtbProgram, r.address, ""}, {kEtbData, r.opcode, ""},
                       {kEtbCycles, r.cycles, ""}, {kEtbTime, r.timeNs, ""}});
      }
    }
    return table;
  }

 private:
  struct Row {
    bool run = false;
    uint32_t address = 0;  // instruction, or the destination of a run row
    uint32_t from = 0;     // run row: the last instruction before it
    uint32_t opcode = 0;
    uint32_t cycles = 0;
    uint32_t exception = 0;
    uint64_t timeNs = 0;
  };

  bool inRanges(uint32_t address) const {
    if (settings_.ranges.empty()) return true;
    for (const AddressRange& r : settings_.ranges) {
      if (address >= r.start && address <= r.end) return true;
    }
    return false;
  }

  void instruction(const SimStep& step) {
    if (!started_) {
      if (settings_.startAddress && step.address != *settings_.startAddress) return;
      started_ = true;
    }
    if (settings_.stopAddress && step.address == *settings_.stopAddress) {
      return stopBySelf(RecordingStop::kTrigger);
    }
    bool discontinuity = breakNext_ || (seen_ && step.address != nextAddress_);
    uint32_t from = lastAddress_;
    lastAddress_ = step.address;
    nextAddress_ = step.address + step.size;
    seen_ = true;
    breakNext_ = false;
    if (!inRanges(step.address)) {
      skipped_ = true;
      return;
    }
    uint32_t cycles = static_cast<uint32_t>(step.instructions - lastInstructions_);
    lastInstructions_ = step.instructions;
    if (discontinuity || skipped_) push({true, step.address, from, 0, 0, exception_, step.timeNs});
    exception_ = 0;
    skipped_ = false;
    push({false, step.address, 0, step.value, cycles == 0 ? 1 : cycles, 0, step.timeNs});
  }

  // Roughly four bytes of encoded trace per kept row.
  void push(Row row) {
    size_t capacity = std::max<size_t>(1, settings_.bufferBytes / 4);
    if (kept_.size() == capacity) {
      if (settings_.oneShot) return stopBySelf(RecordingStop::kBufferFull);
      kept_.pop_front();
    }
    kept_.push_back(row);
  }

  std::deque<Row> kept_;  // guarded by mutex_, like all below
  bool started_ = false;
  bool seen_ = false;
  bool breakNext_ = false;
  bool skipped_ = false;
  uint32_t exception_ = 0;
  uint32_t lastAddress_ = 0;
  uint32_t nextAddress_ = 0;
  uint64_t lastInstructions_ = 0;
};

}  // namespace

std::unique_ptr<TraceRecorder> makeRecorder(const TraceSettings& settings,
                                            std::function<void(RecordingStop)> selfStop) {
  if (settings.receiver == "ETB") return std::make_unique<EtbRecorder>(settings, std::move(selfStop));
  return std::make_unique<MtbRecorder>(settings, std::move(selfStop));
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
