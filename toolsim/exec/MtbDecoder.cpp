#include "MtbDecoder.hpp"

namespace OstrandSim {

namespace {

struct Packet {
  uint32_t source;
  bool a;
  uint32_t destination;
  bool s;
};

// EXC_RETURN values sit at the top of the address space.
bool isExcReturn(uint32_t address) { return address >= 0xF0000000u; }

constexpr uint32_t kMaxRunInstructions = 1u << 16;

std::vector<Packet> readPackets(const MtbSnapshot& trace) {
  std::vector<Packet> packets;
  const size_t size = trace.buffer.size() & ~size_t{7};
  const size_t position = std::min<size_t>(trace.position & ~7u, size);
  auto take = [&](size_t from, size_t to) {
    for (size_t at = from; at + 8 <= to; at += 8) {
      const uint8_t* p = trace.buffer.data() + at;
      const uint32_t w0 = p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
      const uint32_t w1 = p[4] | p[5] << 8 | p[6] << 16 | static_cast<uint32_t>(p[7]) << 24;
      packets.push_back({w0 & ~1u, (w0 & 1u) != 0, w1 & ~1u, (w1 & 1u) != 0});
    }
  };
  if (trace.wrap) take(position, size);
  take(0, position);
  return packets;
}

class RowWriter {
 public:
  RowWriter(RowTable& table, const ProgramImage* image, const MtbDecodeOptions& options)
      : table_(table), image_(image), options_(options) {}

  bool full() const { return table_.rowCount() >= options_.maxRows; }

  // The last instruction executed before `preempted`, walking from `first`.
  uint32_t lastBefore(uint32_t first, uint32_t preempted) const {
    if (image_ == nullptr) return kNoAddress;
    uint32_t at = first, last = kNoAddress;
    for (uint32_t n = 0; n < kMaxRunInstructions && at != preempted; ++n) {
      uint8_t size = 0;
      image_->opcodeAt(at, size);
      if (size == 0 || at > preempted) return kNoAddress;
      last = at;
      at += size;
    }
    return at == preempted ? last : kNoAddress;
  }

  void run(uint32_t first, uint32_t last) {
    if (full()) return;
    const size_t row = table_.addRow();
    table_.set(row, 0, first);
    table_.set(row, 1, last);
    if (!options_.hierarchical || image_ == nullptr || first == kNoAddress) return;
    uint32_t at = first;
    for (uint32_t n = 0; n < kMaxRunInstructions && !full(); ++n) {
      uint8_t size = 0;
      const uint32_t opcode = image_->opcodeAt(at, size);
      if (size == 0) return;
      const size_t r = table_.addRow();
      table_.set(r, 2, at);
      table_.set(r, 3, opcode);
      // An open run (no last address) shows its first instruction only.
      if (at == last || last == kNoAddress) return;
      at += size;
      if (at > last) return;
    }
  }

 private:
  RowTable& table_;
  const ProgramImage* image_;
  const MtbDecodeOptions& options_;
};

}  // namespace

std::vector<Column> mtbColumns() {
  return {{kReadAddress, 32, false}, {kWriteAddress, 32, false}, {kProgramAddress, 32, false},
          {kProgramData, 32, false}};
}

RowTable decodeMtb(const MtbSnapshot& trace, const ProgramImage* image,
                   const MtbDecodeOptions& options) {
  RowTable table(mtbColumns());
  const std::vector<Packet> packets = readPackets(trace);
  RowWriter writer(table, image, options);

  // Where the run that packet `next` ends finishes, given its first address.
  auto endOf = [&](uint32_t first, size_t next) -> uint32_t {
    if (next >= packets.size() || packets[next].s) return kNoAddress;
    const Packet& p = packets[next];
    if (p.a && !isExcReturn(p.source)) {
      return first == kNoAddress ? kNoAddress : writer.lastBefore(first, p.source);
    }
    return p.source;
  };

  if (!packets.empty() && !packets[0].s && !(packets[0].a && isExcReturn(packets[0].source))) {
    // The oldest run started before the buffer's oldest packet.
    const uint32_t last = endOf(kNoAddress, 0);
    if (last != kNoAddress) writer.run(kNoAddress, last);
  }
  for (size_t i = 0; i < packets.size() && !writer.full(); ++i) {
    const Packet& p = packets[i];
    if (isExcReturn(p.destination)) continue;  // first half of a return
    // An exception taken before the run's first instruction: nothing ran.
    if (i + 1 < packets.size() && packets[i + 1].a && !isExcReturn(packets[i + 1].source) &&
        packets[i + 1].source == p.destination && !packets[i + 1].s) {
      continue;
    }
    writer.run(p.destination, endOf(p.destination, i + 1));
  }
  return table;
}

}  // namespace OstrandSim
