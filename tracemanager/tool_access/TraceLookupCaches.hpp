// TraceLookupCaches: per-address answers of the symbol package and the
// disassembler, kept while a trace is read.
//
// Trace rows repeat the same addresses many times, so each function, source
// line and disassembly question is asked once per address and capture. The
// caches are keyed by the 32-bit address only: whoever starts reading a
// capture with another program empties them first (clear()).
//
// Ownership: one per CloudHemlock. Threads: callers hold the tool mutex.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "symbols/CloudDisasm.hpp"
#include "symbols/ObjectFileInfo.hpp"

struct FunctionInfo {
  std::string function;
  std::string file;
  std::string directory;
};

struct LineInfo {
  bool found = false;
  std::string text;
  uint32_t line = 0;
};

class TraceLookupCaches {
 public:
  // Function, file and directory of an address; empty strings when the
  // package knows none. Without `objectInfo` nothing is asked or stored.
  const FunctionInfo& lookupFunctionInfo(uint32_t address, ObjectFileInfo* objectInfo);
  // The source line of an address; not found without `objectInfo`.
  const LineInfo& lookupLine(uint32_t address, ObjectFileInfo* objectInfo);
  // The disassembled line at an address (size 0 when it cannot be decoded).
  const disasm_lite::DisassemblySourceLine& disassembleOne(uint32_t address,
                                                           const CloudDisasm& disassembler);
  void clear();

 private:
  std::unordered_map<uint32_t, FunctionInfo> functionCache;
  std::unordered_map<uint32_t, LineInfo> lineCache;
  std::unordered_map<uint32_t, disasm_lite::DisassemblySourceLine> disassemblyCache;
};
