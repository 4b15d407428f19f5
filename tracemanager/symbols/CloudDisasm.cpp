#include "symbols/CloudDisasm.hpp"

#include <stdexcept>

#include "source_utilities/HostApis.hpp"
#include "source_utilities/Logger.hpp"

namespace disasm_lite {

namespace {

// Copies every delivered line, valid or not, in delivery order.
class myInserter : public IDisassembler::IResultInserter {
 public:
  void insert(const DisassemblyRecord* record) override {
    DisassemblySourceLine& line = lines.emplace_back();
    line.size = record->size;
    line.address = record->address;
    line.label = record->first ? record->first : "";
    line.text = record->second ? record->second : "";
  }
  std::vector<DisassemblySourceLine> lines;
};

}  // namespace

std::vector<DisassemblySourceLine> Disassembler::Disassemble(const Debugger::Address& from,
                                                             const Debugger::Address& to) const {
  myInserter inserter;
  if (disassembler_) disassembler_->disassembleRange(from, to, &inserter);
  return std::move(inserter.lines);
}

DisassemblySourceLine Disassembler::DisassembleOne(const Debugger::Address& address) const {
  DisassemblySourceLine line;
  if (!disassembler_) return line;
  DisassemblyRecord record{};
  disassembler_->disassembleOne(&record, address);
  // The texts are valid only during the call, and only for a valid line.
  if (record.size > 0) {
    line.size = record.size;
    line.address = record.address;
    line.label = record.first ? record.first : "";
    line.text = record.second ? record.second : "";
  }
  return line;
}

}  // namespace disasm_lite

CloudDisasm::CloudDisasm(std::shared_ptr<ObjectFileInfo>& objectInfo, uint32_t processorId) {
  QX_TRACE_FUNCTION("CloudDisasm::CloudDisasm");
  const auto& package = objectInfo ? objectInfo->package() : nullptr;
  const bool bigEndian = package && (package->isBigEndian() & 0xFFu) != 0;
  environment_ = disasm_lite::makeTargetEnvironment(processorId, bigEndian);
  void* symbolHandle = package ? package->symbolHandle() : nullptr;
  auto* manager = static_cast<disasm_lite::IDisassemblyManager*>(QX_NLV::disAsmManagerApi());
  if (!manager || manager->getVersion() != disasm_lite::IDisassemblyManager::kVersion)
    throw std::runtime_error("Mismatch API version");
  auto* made = manager->createDisassembler(environment_.get(), symbolHandle);
  if (!made) throw std::runtime_error("Failed to create the disassembler interface");
  disassembler_ = disasm_lite::Disassembler(std::shared_ptr<disasm_lite::IDisassembler>(
      made, [manager](disasm_lite::IDisassembler* d) { manager->destroyDisassembler(d); }));
}
