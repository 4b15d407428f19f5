#include "tool_access/CloudOperation.hpp"

#include <new>

#include "symbols/CloudDisasm.hpp"
#include "symbols/ObjectFileInfo.hpp"

namespace {

struct Registry {
  std::map<uint32_t, CloudOperation*> operations;
  uint32_t nextHandle = 0;
};

// Made on first use and never destroyed: records may still be released by
// tool threads while the process ends. It lives in static storage rather
// than on the heap, so a module unloaded with no record left leaves nothing
// behind.
Registry& registry() {
  alignas(Registry) static unsigned char storage[sizeof(Registry)];
  static Registry* instance = new (storage) Registry();
  return *instance;
}

}  // namespace

// The disassembler reads the object file information's package: drop it
// first.
CloudOperation::~CloudOperation() {
  disassembler.reset();
  objectInfo.reset();
}

uint32_t CloudOperation::newOperation() {
  Registry& r = registry();
  uint32_t handle = r.nextHandle++;
  auto* operation = new CloudOperation();
  operation->handle = handle;
  // Handles are never reused, so the slot is free unless the counter has
  // gone round all 2^32 values.
  if (!r.operations.emplace(handle, operation).second) delete operation;
  return handle;
}

CloudOperation* CloudOperation::findOperation(uint32_t handle) {
  Registry& r = registry();
  auto found = r.operations.find(handle);
  return found != r.operations.end() ? found->second : nullptr;
}

void CloudOperation::deleteOperation(uint32_t handle) {
  Registry& r = registry();
  auto found = r.operations.find(handle);
  if (found == r.operations.end()) return;
  CloudOperation* operation = found->second;
  r.operations.erase(found);
  delete operation;
}

void CloudOperation::forEachOperation(const std::function<void(uint32_t)>& function) {
  Registry& r = registry();
  auto it = r.operations.begin();
  while (it != r.operations.end()) {
    uint32_t handle = it->first;
    function(handle);
    // The walk moves on from the handle, not from an iterator: the function
    // may delete its own entry and others too.
    it = r.operations.upper_bound(handle);
  }
}

size_t CloudOperation::operationCount() { return registry().operations.size(); }
