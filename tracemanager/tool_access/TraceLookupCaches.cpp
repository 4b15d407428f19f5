#include "tool_access/TraceLookupCaches.hpp"

namespace {
const FunctionInfo kNoFunction;
const LineInfo kNoLine;
}  // namespace

const FunctionInfo& TraceLookupCaches::lookupFunctionInfo(uint32_t address,
                                                          ObjectFileInfo* objectInfo) {
  if (objectInfo == nullptr) return kNoFunction;
  auto [entry, inserted] = functionCache.try_emplace(address);
  if (inserted) {
    FunctionInfo& info = entry->second;
    // A miss is stored as well: an address without a symbol repeats as
    // often as one with.
    if (!objectInfo->lookupFunction(address, info.function, info.file, info.directory))
      info = FunctionInfo{};
  }
  return entry->second;
}

const LineInfo& TraceLookupCaches::lookupLine(uint32_t address, ObjectFileInfo* objectInfo) {
  if (objectInfo == nullptr) return kNoLine;
  auto [entry, inserted] = lineCache.try_emplace(address);
  if (inserted) {
    LineInfo& info = entry->second;
    const char* text = nullptr;
    info.found = objectInfo->lookupSourceLine(address, &info.line, &text);
    if (info.found && text != nullptr) info.text = text;
    if (!info.found) info.line = 0;
  }
  return entry->second;
}

const disasm_lite::DisassemblySourceLine& TraceLookupCaches::disassembleOne(
    uint32_t address, const CloudDisasm& disassembler) {
  auto [entry, inserted] = disassemblyCache.try_emplace(address);
  if (inserted) entry->second = disassembler.DisassembleOne(Debugger::Address{address});
  return entry->second;
}

void TraceLookupCaches::clear() {
  functionCache.clear();
  lineCache.clear();
  disassemblyCache.clear();
}
