#include "EtmDecoder.hpp"

#include <opencsd/c_api/opencsd_c_api.h>

#include <functional>
#include <stdexcept>
#include <string>

namespace OstrandSim {

namespace {

// Identification registers of the trace unit our encoder models: ETMv4.2,
// cycle counting, no speculation (commit implied), 32-bit addresses, no
// context or VMID, no return stack, no conditional or data trace.
ocsd_etmv4_cfg traceUnitConfig(uint8_t traceId) {
  ocsd_etmv4_cfg cfg{};
  cfg.reg_idr0 = 0x20000080u;  // COMMOPT, TRCCCI
  cfg.reg_idr1 = 0x4100F424u;  // v4.2
  cfg.reg_idr2 = 0x00000004u;  // 32-bit instruction addresses
  cfg.reg_configr = 0x00000010u;  // cycle counting on
  cfg.reg_traceidr = traceId;
  cfg.arch_ver = ARCH_V7;
  cfg.core_prof = profile_CortexM;
  return cfg;
}

using ElemFn = std::function<void(const ocsd_generic_trace_elem&)>;

ocsd_datapath_resp_t onElement(const void* context, const ocsd_trc_index_t, const uint8_t,
                               const ocsd_generic_trace_elem* elem) {
  (*static_cast<const ElemFn*>(context))(*elem);
  return OCSD_RESP_CONT;
}

// Runs the bytes through a decode tree, handing every element to `fn`.
void runOpenCsd(const EtmSnapshot& trace, const ProgramImage& image, const ElemFn& fn) {
  dcd_tree_handle_t tree = ocsd_create_dcd_tree(OCSD_TRC_SRC_SINGLE, 0);
  if (tree == C_API_INVALID_TREE_HANDLE) throw std::runtime_error("OpenCSD: cannot make a decode tree");
  struct TreeCloser {
    dcd_tree_handle_t tree;
    ~TreeCloser() { ocsd_destroy_dcd_tree(tree); }
  } closer{tree};
  ocsd_etmv4_cfg cfg = traceUnitConfig(trace.traceId);
  unsigned char csid = 0;
  ocsd_err_t err = ocsd_dt_create_decoder(tree, OCSD_BUILTIN_DCD_ETMV4I, OCSD_CREATE_FLG_FULL_DECODER,
                                          &cfg, &csid);
  if (err == OCSD_OK) err = ocsd_dt_set_gen_elem_outfn(tree, onElement, &fn);
  for (const ProgramImage::Segment& s : image.segments()) {
    if (err != OCSD_OK) break;
    if (!s.executable) continue;
    err = ocsd_dt_add_buffer_mem_acc(tree, s.address, OCSD_MEM_SPACE_ANY, s.bytes.data(),
                                     static_cast<uint32_t>(s.bytes.size()));
  }
  if (err != OCSD_OK) {
    char text[256];
    ocsd_err_str(err, text, sizeof text);
    throw std::runtime_error(std::string("OpenCSD refused the trace configuration: ") + text);
  }
  uint32_t done = 0;
  const auto size = static_cast<uint32_t>(trace.bytes.size());
  while (done < size) {
    uint32_t used = 0;
    const ocsd_datapath_resp_t resp = ocsd_dt_process_data(tree, OCSD_OP_DATA, done, size - done,
                                                           trace.bytes.data() + done, &used);
    done += used;
    if (OCSD_DATA_RESP_IS_FATAL(resp)) return;  // damaged trace: the rows end here
    if (used == 0 && OCSD_DATA_RESP_IS_WAIT(resp)) {
      ocsd_dt_process_data(tree, OCSD_OP_FLUSH, 0, 0, nullptr, nullptr);
    } else if (used == 0) {
      return;
    }
  }
  ocsd_dt_process_data(tree, OCSD_OP_EOT, 0, 0, nullptr, nullptr);
}

class RowBuilder {
 public:
  RowBuilder(RowTable& table, const ProgramImage& image, EtmDecodeStats& stats, size_t maxRows)
      : table_(table), image_(image), stats_(stats), maxRows_(maxRows) {}

  void onElement(const ocsd_generic_trace_elem& e) {
    switch (e.elem_type) {
      case OCSD_GEN_TRC_ELEM_INSTR_RANGE:
        ++stats_.ranges;
        addRange(static_cast<uint32_t>(e.st_addr), static_cast<uint32_t>(e.en_addr));
        if (e.has_cc) setCycles(e.cycle_count);
        break;
      case OCSD_GEN_TRC_ELEM_CYCLE_COUNT:
        setCycles(e.cycle_count);
        break;
      case OCSD_GEN_TRC_ELEM_EXCEPTION:
        ++stats_.exceptions;
        endStretch();
        break;
      case OCSD_GEN_TRC_ELEM_TRACE_ON:
      case OCSD_GEN_TRC_ELEM_NO_SYNC:
      case OCSD_GEN_TRC_ELEM_EO_TRACE:
      case OCSD_GEN_TRC_ELEM_ADDR_NACC:
      case OCSD_GEN_TRC_ELEM_I_RANGE_NOPATH:
        endStretch();
        break;
      default:
        break;
    }
  }

  void endStretch() {
    if (stretch_.empty()) return;
    if (table_.rowCount() + 1 + stretch_.size() > maxRows_) {
      stretch_.clear();
      return;
    }
    const size_t run = table_.addRow();
    table_.set(run, 0, stretch_.front().address);
    table_.set(run, 1, stretch_.back().address);
    for (const Instr& i : stretch_) {
      const size_t r = table_.addRow();
      table_.set(r, 2, i.address);
      table_.set(r, 3, i.opcode);
      if (i.hasCycles) table_.set(r, 4, i.cycles);
    }
    stretch_.clear();
  }

 private:
  struct Instr {
    uint32_t address;
    uint32_t opcode;
    bool hasCycles;
    uint32_t cycles;
  };

  void addRange(uint32_t start, uint32_t end) {
    if (!stretch_.empty() && nextAddress_ != start) endStretch();
    for (uint32_t at = start; at < end;) {
      uint8_t size = 0;
      const uint32_t opcode = image_.opcodeAt(at, size);
      if (size == 0) break;
      stretch_.push_back({at, opcode, false, 0});
      ++stats_.instructions;
      at += size;
    }
    nextAddress_ = end;
  }

  void setCycles(uint32_t cycles) {
    ++stats_.cycleCounts;
    if (stretch_.empty()) return;
    stretch_.back().hasCycles = true;
    stretch_.back().cycles = cycles;
  }

  RowTable& table_;
  const ProgramImage& image_;
  EtmDecodeStats& stats_;
  size_t maxRows_;
  std::vector<Instr> stretch_;
  uint32_t nextAddress_ = 0;
};

}  // namespace

std::vector<Column> etmColumns() {
  return {{kReadAddress, 32, false},   {kWriteAddress, 32, false}, {kProgramAddress, 32, false},
          {kProgramData, 32, false}, {kCycles, 32, false}};
}

RowTable decodeEtm(const EtmSnapshot& trace, const ProgramImage& image, EtmDecodeStats* stats,
                   size_t maxRows) {
  RowTable table(etmColumns());
  EtmDecodeStats local;
  RowBuilder builder(table, image, stats != nullptr ? *stats : local, maxRows);
  const ElemFn fn = [&](const ocsd_generic_trace_elem& e) { builder.onElement(e); };
  runOpenCsd(trace, image, fn);
  builder.endStretch();
  return table;
}

uint64_t decodeEtmRangesOnly(const EtmSnapshot& trace, const ProgramImage& image) {
  uint64_t ranges = 0;
  const ElemFn fn = [&](const ocsd_generic_trace_elem& e) {
    ranges += e.elem_type == OCSD_GEN_TRC_ELEM_INSTR_RANGE;
  };
  runOpenCsd(trace, image, fn);
  return ranges;
}

}  // namespace OstrandSim
