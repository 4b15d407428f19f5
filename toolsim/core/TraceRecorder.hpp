// A trace recorder is the trace unit of a CPU during a run: it hears the
// run's steps and feeds the unit's model, which writes what the hardware
// writes (MTB packets into a circular or one-shot SRAM buffer with POSITION
// and WRAP; an ETMv4 byte stream into an ETB buffer, narrowed by trace-on,
// ranges and start/stop triggers). Its rows are that buffer decoded by the
// receiver's decoder, with the program image from the ELF.
//
// Thread-safe: steps come on the run thread; stop() and rows() may come
// from any thread. The self-stop callback runs on the run thread, under no
// lock of the recorder.
#pragma once

#include <functional>
#include <memory>

#include "ProgramImage.hpp"
#include "RunSettings.hpp"
#include "SimStep.hpp"
#include "TraceRows.hpp"

namespace OstrandSim {

struct TdfRecording;

enum class RecordingStop { kNone, kUserRequest, kBufferFull, kTrigger };

class TraceRecorder : public StepConsumer {
 public:
  // Ends the recording; later steps are not kept. Returns false if it had
  // already ended.
  virtual bool stop() = 0;
  virtual RecordingStop stopped() const = 0;
  // The rows of what the buffer holds now.
  virtual std::shared_ptr<const RowSource> rows() const = 0;
  // The receiver and the bytes the trace unit holds now, as a recording
  // saves them.
  virtual void saveTrace(TdfRecording& out) const = 0;
};

// Rows a decoder hands out at most in one table.
inline constexpr uint64_t kMaxMtbRows = 16384;

// A recorder for settings.receiver ("MTB" or "ETB") of a CPU whose trace
// source id is `traceId` and whose clock is `clockHz`; `image` (may be null
// when the program cannot be read) decodes the buffer; `selfStop` hears the
// recording end by itself (a full buffer set to stop, a trigger). Throws
// std::invalid_argument for settings the trace unit cannot take.
std::unique_ptr<TraceRecorder> makeRecorder(const TraceSettings& settings, uint32_t traceId,
                                            uint64_t clockHz, std::shared_ptr<const ProgramImage> image,
                                            std::function<void(RecordingStop)> selfStop);

// The rows of a saved trace (TdfRecording), decoded as the recorder of its
// receiver decodes its buffer: the file decoder's rows are the live ones.
// Throws std::runtime_error when the ETM decoder refuses the stream.
std::shared_ptr<const RowSource> decodeTraceRows(const TdfRecording& recording, const ProgramImage& image);

// The columns of the receiver's decoder ("MTB", "ETB").
const std::vector<ColumnDef>& decoderColumns(const std::string& receiver);

}  // namespace OstrandSim
