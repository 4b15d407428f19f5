// The decoder library's factory: the channel server, file channel drivers,
// and decoders for a live CPU or a .tdf file.
//
// Ownership: every Create* has its Destroy*; the foundry outlives what it
// made. Threads: any caller, one at a time per object. Failures throw
// hemlockErrorIF; CreateChannelServer throws when no server can run, which
// leaves the caller in stand-alone (file only) mode.
#pragma once

#include <cstdint>

#include "trace/ChannelServer.hpp"
#include "trace/CpuInfo.hpp"
#include "trace/Decoder.hpp"

namespace Qx::Nlv::Trace {

class IChannelFoundry {
 public:
  virtual void CreateChannelServer(IChannelServer*& server, uint32_t flags) = 0;
  virtual void DestroyChannelServer(IChannelServer* server, uint32_t flags) = 0;
  virtual void CreateFileChannelDriver(IFileChannelDriver*& driver) = 0;
  virtual void DestroyFileChannelDriver(IFileChannelDriver* driver) = 0;
  // Live decoder; `coffFile` may be null.
  virtual void CreateDecoder(IChannelDriver* driver, const char* receiverName,
                             const CpuInfo* cpuInfo, const char* coffFile, IDecoder*& decoder) = 0;
  virtual void LookupProgramDataSource(IDecoder* decoder, IProgramDataSource*& source) = 0;
  virtual void LookupDeviceConfigManager(IDecoder* decoder, IDeviceConfigManager*& manager) = 0;
  virtual void DestroyDecoder(IDecoder* decoder) = 0;
  // File decoder of a .tdf recording.
  virtual void CreateDecoder(IFileChannelDriver* driver, const char* receiverName,
                             const CpuInfo* cpuInfo, const char* coffFile, IDecoder*& decoder,
                             const char* tdfFile) = 0;
  // The kind of trace source; `tdfFile` is null for a live decoder.
  virtual bool isSTM(const CpuInfo* cpuInfo, const char* receiverName, const char* tdfFile) = 0;
  virtual bool isITM(const CpuInfo* cpuInfo, const char* receiverName, const char* tdfFile) = 0;

 protected:
  ~IChannelFoundry() = default;
};

}  // namespace Qx::Nlv::Trace
