// CloudOperation: the module's record of one tool operation, named by its
// handle, and the process-wide registry of those records.
//
// A record of kind 1 (sub-operation of a live target) or 2 (live operation)
// holds the tool's operation object; kind 3 stands for a .tdf file and holds
// none. A record may hold one slot of the trace table (traceAppIndex), the
// program's object file information and disassembler, and the state of the
// trace table read from its decoder.
//
// Ownership: the registry owns the records; a record owns what its members
// point at. The tool operation is given back by CloudHemlock before the
// record goes. Threads: the registry has no lock of its own; every use is
// under CloudHemlock's toolMutex. `lock` guards running, done and chunks for
// readers of the table while it is being read.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tool_access/ColumnInfo.hpp"
#include "tool_access/ColumnProcessing.hpp"
#include "tool_access/TraceChunk.hpp"
#include "xevt/Operation.hpp"

class ObjectFileInfo;
class CloudDisasm;

class CloudOperation {
 public:
  CloudOperation() = default;
  CloudOperation(const CloudOperation&) = delete;
  CloudOperation& operator=(const CloudOperation&) = delete;
  virtual ~CloudOperation();

  uint32_t kind = 0;
  std::string target;
  uint32_t deviceKind = 0;
  std::string filePath;
  TargetOperations::IOperation6* toolOperation = nullptr;
  int32_t traceAppIndex = -1;
  uint32_t handle = 0;
  uint32_t clientId = 0;

  // The trace table read from the decoder.
  std::unique_ptr<ColumnInfo> columnInfo;
  std::unique_ptr<ColumnProcessing> columnProcessing;
  int32_t chunkRows = 32768;
  uint64_t nextIndex = 0;
  bool running = false;  // guarded by lock
  bool done = false;     // guarded by lock; never falls back
  bool stopRequested = false;
  std::mutex lock;  // guards running, done and chunks
  std::vector<TraceChunk> chunks;  // guarded by lock

  std::shared_ptr<ObjectFileInfo> objectInfo;
  std::shared_ptr<CloudDisasm> disassembler;

  // The registry. Handles start at 0, count up and are never reused.
  // A new record with the next handle; gives the handle.
  static uint32_t newOperation();
  static CloudOperation* findOperation(uint32_t handle);
  // Deletes the record, if there is one.
  static void deleteOperation(uint32_t handle);
  // Calls `function` for each handle in order; the walk moves on before the
  // call, so `function` may delete that record.
  static void forEachOperation(const std::function<void(uint32_t)>& function);
  static size_t operationCount();
};
