// Fuzz target: the MTB packet decoder, on a buffer as the trace hardware
// leaves it. Input: two bytes of POSITION (low 15 bits) and the wrap flag
// (bit 15), then the buffer. Any buffer decodes to at most the row limit,
// with instruction rows read from the test program's image; nothing may
// crash, read outside the buffer or the image, or hang.
#include <cstdint>
#include <cstring>

#include "MtbDecoder.hpp"
#include "MtbEncoder.hpp"
#include "ProgramImage.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const OstrandSim::ProgramImage image(OSTRAND_FUZZ_ELF);
  if (size < 2) return 0;
  const uint16_t head = static_cast<uint16_t>(data[0] | (data[1] << 8));
  OstrandSim::MtbSnapshot trace;
  trace.buffer.assign(data + 2, data + size);
  trace.position = head & 0x7FFF;
  trace.wrap = (head & 0x8000) != 0;
  try {
    OstrandSim::decodeMtb(trace, &image);
  } catch (const std::exception&) {
    // A refusal with a reason is an answer.
  }
  return 0;
}
