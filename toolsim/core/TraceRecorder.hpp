// A trace recorder hears the steps of a run and keeps what the trace
// hardware of the CPU would hold: a buffer of the configured size, filled
// circularly or once, narrowed by ranges and triggers. Its rows are what the
// decoder of that receiver hands out.
//
// Thread-safe: steps come on the run thread; stop() and rows() may come
// from any thread. The self-stop callback runs on the run thread, under no
// lock of the recorder.
#pragma once

#include <functional>
#include <memory>

#include "RunSettings.hpp"
#include "SimStep.hpp"
#include "TraceRows.hpp"

namespace OstrandSim {

enum class RecordingStop { kNone, kUserRequest, kBufferFull, kTrigger };

class TraceRecorder : public StepSink {
 public:
  // Ends the recording; later steps are not kept. Returns false if it had
  // already ended.
  virtual bool stop() = 0;
  virtual RecordingStop stopped() const = 0;
  // The rows of what is recorded so far.
  virtual std::shared_ptr<const RowSource> rows() const = 0;
};

// Rows a decoder hands out at most in one table.
inline constexpr uint64_t kMaxMtbRows = 16384;

// A recorder for settings.receiver ("MTB" or "ETB"); `selfStop` hears the
// recording end by itself (a full buffer set to stop, a trigger).
std::unique_ptr<TraceRecorder> makeRecorder(const TraceSettings& settings,
                                            std::function<void(RecordingStop)> selfStop);

// The columns of the receiver's decoder ("MTB", "ETB").
const std::vector<ColumnDef>& decoderColumns(const std::string& receiver);

}  // namespace OstrandSim
