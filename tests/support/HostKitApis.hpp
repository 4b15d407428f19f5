// The host kit's symbol and disassembly managers handed to the module as a
// debug host hands its own, for tests that link the host kit.
#pragma once

#include "kit/CapstoneDisasmManager.hpp"
#include "kit/ElfSymbolManager.hpp"
#include "source_utilities/HostApis.hpp"

namespace ostrand_test {

struct HostKitApis {
  static hostkit::ElfSymbolManager& symbols() {
    static hostkit::ElfSymbolManager manager;
    return manager;
  }
  static hostkit::CapstoneDisasmManager& disassembly() {
    static hostkit::CapstoneDisasmManager manager;
    return manager;
  }
  static void install() {
    QX_NLV::setSymbolManagerApi(static_cast<sym_lite::ISymbolManager*>(&symbols()));
    QX_NLV::setDisAsmManagerApi(static_cast<disasm_lite::IDisassemblyManager*>(&disassembly()));
  }
  static void uninstall() {
    QX_NLV::setSymbolManagerApi(nullptr);
    QX_NLV::setDisAsmManagerApi(nullptr);
  }
};

}  // namespace ostrand_test
