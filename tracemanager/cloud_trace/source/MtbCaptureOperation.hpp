// LocalOpManager::MtbCaptureOperation: a capture of a Micro Trace Buffer.
//
// One tool operation of kind 2 with the MTB receiver tree. When the capture
// stops, the buffer is decoded on the tool's thread into instruction rows
// with symbols and disassembly (`data`, the form of `mtb_data.json`), and
// `metadata` and `mtb_data.json` are delivered into the capture directory.
//
// Threads and ownership as for every capture operation: the manager owns it
// and calls it holding its state lock; tool calls hold the tool lock.
// Failures: createHlOperation throws with the fixed prefixes; a decoder
// failure in onDataReady throws "DecodeMTBTrace failed: " and leaves the
// placeholder metadata on disk.
#pragma once

#include "cloud_trace/source/CaptureOperation.hpp"

class LocalOpManager::MtbCaptureOperation : public LocalOpManager::CaptureOperation {
 public:
  MtbCaptureOperation(int32_t clientId, CloudHemlock* tools, std::string target,
                      Json::Value sessionSettings);

  uint32_t createHlOperation() override;
  void onDataReady() override;
  int32_t enableImpl(bool enable) override;
  void createDefaultSettings() override;
};
