// LocalOpManager::TdfCaptureOperation: a trace recording on disk opened as
// if it were a capture. There is no target and no run: the manager's file
// capture thread enables it, steps it through Collecting to data ready and
// disables it again. The decoded table (`data`, the form of
// `tdf_data.json`) and `metadata` go into the capture directory of the file
// session, whose name stands where a target's would.
//
// The file name comes from the session's TDF `opProp`, either an object
// with a `File` member or a property tree with "File" inside "File
// Settings". Only an absolute path to an existing file is taken.
//
// Threads: only the file capture thread calls it, without the manager's
// locks; tool calls hold the tool lock. Failures: createHlOperation throws
// "Invalid TDF file name: " or "Failed to create operation: ".
#pragma once

#include "cloud_trace/source/CaptureOperation.hpp"

namespace Qx::Nlv::Xevt {
class ISession;
}

class LocalOpManager::TdfCaptureOperation : public LocalOpManager::CaptureOperation {
 public:
  TdfCaptureOperation(int32_t clientId, CloudHemlock* tools, std::string target,
                      Json::Value sessionSettings);

  uint32_t createHlOperation() override;
  void onDataReady() override;
  int32_t enableImpl(bool enable) override;
  void createDefaultSettings() override;

  const std::string& getTdfPath() const { return tdfPath; }

  // The path a TDF `opProp` names, as given (before any normalisation);
  // empty when neither form holds one.
  static std::string pathFromOpProp(const Json::Value& opProp);
  // The normalised path, and whether it names a file the module can open:
  // absolute, lexically normal, existing.
  static bool normalizePath(std::string& path);

 private:
  std::string tdfPath;                          // normalised file path
  Qx::Nlv::Xevt::ISession* session = nullptr;   // the tool's file session; set by enableImpl(true)
};
