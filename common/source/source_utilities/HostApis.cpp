#include "source_utilities/HostApis.hpp"

#include <atomic>

namespace QX_NLV {
namespace {
std::atomic<void*> symbolManager{nullptr};
std::atomic<void*> disAsmManager{nullptr};
}  // namespace

void setSymbolManagerApi(void* api) { symbolManager.store(api); }
void* symbolManagerApi() { return symbolManager.load(); }
void setDisAsmManagerApi(void* api) { disAsmManager.store(api); }
void* disAsmManagerApi() { return disAsmManager.load(); }

}  // namespace QX_NLV
