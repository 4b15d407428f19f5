// LocalOpManager::EtbCaptureOperation: a capture into an Embedded Trace
// Buffer.
//
// It is configured from the use cases the user edited
// (`sessionSettings[target].useCases.properties`), not from receiver
// properties alone. createDefaultSettings turns them into up to four
// sub-operation trees beside the main receiver tree: trace on from the
// start, trace in an address range, start or end trace at an address.
// createHlOperation resolves the addresses, which may be symbols of the
// loaded program or hexadecimal texts, once the main tool operation exists
// and so knows the program, then makes one tool operation per tree.
//
// When the capture stops, the buffer is decoded on the tool's thread: the
// instruction records go into the trace server's record store, which the
// ETB tables show, and the run rows into `data` (`etb_data.json`). Without
// a trace server the records go into a store of the operation's own, so a
// capture without a viewer still decodes and exports.
//
// Threads and ownership as for every capture operation: the manager owns
// it and calls it holding its state lock; tool calls hold the tool lock.
// Failures: createHlOperation throws with the fixed prefixes, and for an
// address it cannot evaluate shows a status through the owner first; a
// decoder failure throws "DecodeETBTrace failed: ".
#pragma once

#include <array>
#include <memory>
#include <string>

#include "cloud_trace/source/CaptureOperation.hpp"

namespace VSKTspServer {
class EtbRecordStore;
}

class LocalOpManager::EtbCaptureOperation : public LocalOpManager::CaptureOperation {
 public:
  // How many ranges and how many triggers one capture takes.
  static constexpr uint32_t kMaxRanges = 2;
  static constexpr uint32_t kMaxTriggers = 2;
  // How many sub-operations the tool takes beside the main operation.
  static constexpr uint32_t kMaxSubOperations = 4;

  EtbCaptureOperation(int32_t clientId, CloudHemlock* tools, std::string target,
                      Json::Value sessionSettings, LocalOpManager* owner);
  ~EtbCaptureOperation() override;

  uint32_t createHlOperation() override;
  void onDataReady() override;
  int32_t enableImpl(bool enable) override;
  void createDefaultSettings() override;

  // What the use-case evaluation found, for the manager's messages and for
  // tests.
  struct Evaluation {
    uint32_t rangeCount = 0;
    uint32_t startStopCount = 0;
    bool traceOnValid = false;
    bool rangeValid = false;
    bool startStopValid = false;
    bool hasStartTrace = false;
    uint32_t triggerCase = 0;
  };
  Evaluation evaluation() const;
  bool hasTriggerForm() const { return coreHasTriggerForm; }
  uint32_t getSubOperationCount() const { return subOperationCount; }
  const Json::Value& getSubOperationProps(uint32_t i) const { return subOperationProps.at(i); }
  uint32_t getSubOperationHandle(uint32_t i) const { return subOperationHandles.at(i); }
  // The records of a capture decoded without a trace server; null while
  // every decode went to the server's store.
  const VSKTspServer::EtbRecordStore* ownRecordStore() const { return ownRecords.get(); }

  // The address a text names when it is no symbol: hexadecimal, with or
  // without "0x", digits up to the first character that is none. False
  // when no digit can be read or the number does not fit 32 bits.
  static bool parseHexAddress(const std::string& text, uint32_t& address, bool& overflow);

 private:
  enum class AddressRole { kRangeStart, kRangeEnd, kTrigger };
  // The address of a symbol or hexadecimal text; shows the status and
  // throws "Failed to set properties: " when neither reads.
  uint32_t evaluateAddress(const std::string& text, AddressRole role);
  Json::Value traceOnTree() const;
  Json::Value rangeTree() const;
  Json::Value triggerTree(const std::string& action) const;
  VSKTspServer::EtbRecordStore& storeForDecode();

  LocalOpManager* owner;            // not owned; shows status messages
  bool coreHasTriggerForm = false;  // target holds "Dsb" or "Dsc"

  // The use-case evaluation of createDefaultSettings.
  uint32_t bufferCase = 0;
  uint32_t traceOnCase = 1;
  uint32_t rangeCase = 2;
  uint32_t triggerCase = 0;
  uint32_t rangeCount = 0;
  uint32_t startStopCount = 0;
  uint32_t traceOnCount = 1;
  bool rangeValid = false;
  bool startStopValid = false;
  bool hasStartTrace = false;
  bool traceOnValid = false;
  uint32_t rangeActionIndex = 1;
  uint32_t triggerActionIndex = 1;
  std::array<std::string, kMaxRanges> rangeStart, rangeEnd;
  std::array<std::string, kMaxTriggers> triggerAddress, triggerType;

  std::unique_ptr<VSKTspServer::EtbRecordStore> ownRecords;  // without a server
};
