// LocalOpManager::WLCaptureOperation: a power capture. Nothing is decoded
// here: the tool side writes the stream into the scratch directory
// `<data>/.Wattline`, and when the capture ends those files are moved into
// the capture directory for the trace server to read. The `metadata` and
// `metadataSup.json` of a power capture are those of the placeholder export
// written before the run.
//
// Threads and ownership as for every capture operation; onDataReady takes
// no tool lock (it only moves files).
#pragma once

#include "cloud_trace/source/CaptureOperation.hpp"

class LocalOpManager::WLCaptureOperation : public LocalOpManager::CaptureOperation {
 public:
  WLCaptureOperation(int32_t clientId, CloudHemlock* tools, std::string target,
                     Json::Value sessionSettings);

  uint32_t createHlOperation() override;
  void onDataReady() override;
  void exportMetaData() override;
  int32_t enableImpl(bool enable) override;
  void createDefaultSettings() override;
};
