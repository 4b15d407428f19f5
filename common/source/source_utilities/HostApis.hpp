// The two interfaces a host may hand to the module: its symbol manager and
// its disassembly manager. Opaque module-wide pointers, null until the host
// sets them through InitializeSymbolManagerAPI / InitializeDisAsmManagerAPI.
// A later call replaces the value. Thread-safe (atomic pointers).
#pragma once

namespace QX_NLV {

void setSymbolManagerApi(void* api);
void* symbolManagerApi();
void setDisAsmManagerApi(void* api);
void* disAsmManagerApi();

}  // namespace QX_NLV
