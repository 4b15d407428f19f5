#include "kit/CapstoneDisasmManager.hpp"

#include <capstone/capstone.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "kit/ElfSymbolManager.hpp"

namespace hostkit {

namespace {

constexpr uint32_t kArmFamily = 470;

std::string hex32(uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "%08" PRIX64, value);
  return text;
}

}  // namespace

class CapstoneDisassembler final : public disasm_lite::IDisassembler {
 public:
  CapstoneDisassembler(const ElfSymbolPackage* package, bool bigEndian)
      : package_(package), bigEndian_(bigEndian) {}

  ~CapstoneDisassembler() {
    if (insn_) cs_free(insn_, 1);
    if (arm_) cs_close(&arm_);
    if (thumb_) cs_close(&thumb_);
  }

  bool open(char profile) {
    const cs_mode endian = bigEndian_ ? CS_MODE_BIG_ENDIAN : CS_MODE_LITTLE_ENDIAN;
    // M-profile code is Thumb only, and its system-register instructions
    // (MRS/MSR of PRIMASK and the like) decode only in the M-class mode.
    mClass_ = profile == 'M';
    const int thumbMode = CS_MODE_THUMB | endian | (mClass_ ? CS_MODE_MCLASS : 0);
    if (cs_open(CS_ARCH_ARM, static_cast<cs_mode>(thumbMode), &thumb_) != CS_ERR_OK) return false;
    if (!mClass_ && cs_open(CS_ARCH_ARM, static_cast<cs_mode>(CS_MODE_ARM | endian), &arm_) !=
                        CS_ERR_OK)
      return false;
    insn_ = cs_malloc(thumb_);
    return insn_ != nullptr;
  }

  void disassembleRange(const Debugger::Address& from, const Debugger::Address& to,
                        IResultInserter* inserter) override {
    uint64_t address = from.value;
    while (address <= to.value) {
      disasm_lite::DisassemblyRecord record{};
      const uint64_t step = decode(address, &record);
      if (step == 0) {
        // Outside every section of the files: go on at the next section.
        address = nextSection(address);
        if (address == 0) break;
        continue;
      }
      if (inserter) inserter->insert(&record);
      if (address + step < address) break;  // the top of the address space
      address += step;
    }
  }

  void disassembleOne(disasm_lite::DisassemblyRecord* out,
                      const Debugger::Address& address) override {
    *out = {};
    decode(address.value, out);
  }

 private:
  // Decodes the unit at `address` into `record` (size 0 if undecodable) and
  // gives the step to the next unit; 0 if no file has bytes there.
  uint64_t decode(uint64_t address, disasm_lite::DisassemblyRecord* record) {
    *record = {0, address, "", ""};
    const ElfImage* image = package_->imageAt(address);
    const ElfSection* section = image ? image->sectionAt(address) : nullptr;
    if (!section || !section->bytes) return 0;
    const uint64_t offset = address - section->address;
    const uint8_t* bytes = section->bytes + offset;
    const uint64_t available = section->size - offset;
    const Function* function = image->findFunction(address);
    label_ = function ? std::string(function->scope.name) + "+0x" +
                            hexLower(address - function->scope.start)
                      : std::string();
    record->first = label_.c_str();

    char kind = image->mappingAt(*section, address);
    if (kind == 0) kind = mClass_ || (function && function->thumb) ? 't' : 'a';
    if (mClass_ && kind == 'a') kind = 't';
    // Sections that hold no code (vector tables, initialised data) are data.
    if (!section->executable) kind = 'd';
    if (kind == 'd') return data(address, bytes, available, *image, *section, record);

    csh handle = kind == 't' ? thumb_ : arm_;
    const uint64_t unit = kind == 't' ? 2 : 4;
    const uint8_t* code = bytes;
    size_t size = static_cast<size_t>(std::min<uint64_t>(available, 4));
    uint64_t at = address;
    if (!cs_disasm_iter(handle, &code, &size, &at, insn_)) {
      text_ = hex32(address) + " " + opcode(bytes, std::min(available, unit), unit) +
              "    <undefined>";
      record->second = text_.c_str();
      return std::min(available, unit);
    }
    text_ = hex32(address) + " " + opcode(bytes, insn_->size, unit) + "    ";
    // "mov r8, r8" is what the assembler writes for "nop" on cores without
    // the hint instruction (Armv6-M padding, for one): show it as written.
    if (std::strcmp(insn_->mnemonic, "mov") == 0 && std::strcmp(insn_->op_str, "r8, r8") == 0)
      text_ += "nop";
    else if (insn_->op_str[0])
      text_ += std::string(insn_->mnemonic) + " " + insn_->op_str;
    else
      text_ += insn_->mnemonic;
    record->size = insn_->size;
    record->second = text_.c_str();
    return insn_->size;
  }

  // A literal pool word (or halfword before the next mapping symbol).
  uint64_t data(uint64_t address, const uint8_t* bytes, uint64_t available, const ElfImage& image,
                const ElfSection& section, disasm_lite::DisassemblyRecord* record) {
    uint64_t size = std::min<uint64_t>(available, 4);
    for (uint64_t probe = 1; probe < size; ++probe) {
      const char next = image.mappingAt(section, address + probe);
      if (next == 'a' || next == 't') {
        size = probe;
        break;
      }
    }
    if (size == 3) size = 2;
    uint64_t value = 0;
    for (uint64_t i = 0; i < size; ++i) {
      const uint64_t byte = bytes[i];
      value |= bigEndian_ ? byte << (8 * (size - 1 - i)) : byte << (8 * i);
    }
    char text[64];
    const char* directive = size == 4 ? ".word" : size == 2 ? ".short" : ".byte";
    std::snprintf(text, sizeof text, "%0*" PRIX64 "    %s 0x%0*" PRIx64, int(2 * size), value,
                  directive, int(2 * size), value);
    text_ = hex32(address) + " " + text;
    record->size = static_cast<int32_t>(size);
    record->second = text_.c_str();
    return size;
  }

  // Opcode text: halfwords (Thumb) or words (Arm) as the core reads them.
  std::string opcode(const uint8_t* bytes, uint64_t size, uint64_t unit) const {
    std::string text;
    for (uint64_t i = 0; i + unit <= size; i += unit) {
      uint64_t value = 0;
      for (uint64_t b = 0; b < unit; ++b)
        value |= bigEndian_ ? uint64_t{bytes[i + b]} << (8 * (unit - 1 - b))
                            : uint64_t{bytes[i + b]} << (8 * b);
      char part[12];
      std::snprintf(part, sizeof part, "%0*" PRIX64, int(2 * unit), value);
      text += part;
    }
    return text.empty() ? "??" : text;
  }

  static std::string hexLower(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "%" PRIx64, value);
    return text;
  }

  uint64_t nextSection(uint64_t address) const {
    uint64_t best = 0;
    for (const auto& image : package_->images())
      for (uint64_t probe : image->sectionStarts())
        if (probe > address && (best == 0 || probe < best)) best = probe;
    return best;
  }

  const ElfSymbolPackage* package_;
  bool bigEndian_;
  bool mClass_ = false;
  csh thumb_ = 0;
  csh arm_ = 0;
  cs_insn* insn_ = nullptr;
  std::string label_;  // the texts of the last record
  std::string text_;
};

CapstoneDisasmManager::CapstoneDisasmManager() = default;

CapstoneDisasmManager::~CapstoneDisasmManager() {
  for (auto* disassembler : disassemblers_) delete disassembler;
}

disasm_lite::IDisassembler* CapstoneDisasmManager::createDisassembler(
    disasm_lite::ITargetEnvironment* environment, void* symbolHandle) {
  if (!environment || !symbolHandle) return nullptr;
  if ((environment->processorId() >> 22) != kArmFamily) return nullptr;
  auto* package = static_cast<const ElfSymbolPackage*>(symbolHandle);
  if (package->images().empty()) return nullptr;
  // The byte order is the environment's to say: the object file may differ
  // from what the core runs.
  uint64_t endian = 0;
  environment->setRegisterQuery("REG_ENDIAN", 0, 0, 0);
  environment->registerValue(&endian);
  auto disassembler = std::make_unique<CapstoneDisassembler>(package, endian != 0);
  if (!disassembler->open(package->images().front()->profile())) return nullptr;
  std::lock_guard lock(mutex_);
  disassemblers_.insert(disassembler.get());
  return disassembler.release();
}

void CapstoneDisasmManager::destroyDisassembler(disasm_lite::IDisassembler* disassembler) {
  auto* own = static_cast<CapstoneDisassembler*>(disassembler);
  {
    std::lock_guard lock(mutex_);
    if (disassemblers_.erase(own) == 0) return;
  }
  delete own;
}

}  // namespace hostkit
