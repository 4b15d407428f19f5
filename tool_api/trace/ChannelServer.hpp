// The channel server: which trace receivers serve which CPUs, the program
// file and source paths of a CPU, and the live channel driver of a CPU.
// Channel events of every CPU go to the listeners registered here.
//
// Ownership: made and destroyed by the foundry; the drivers it gives belong
// to it. Out strings stay valid until the server is destroyed. Threads: any
// caller; events come on threads of the simulation.
#pragma once

#include <cstdint>

#include "trace/ChannelClient.hpp"
#include "trace/CpuInfo.hpp"
#include "xevt/Device.hpp"

namespace Qx::Nlv::Trace {

class IChannelDriver {
 public:
  // Asks the recording to stop. The answer (a "stopped" channel event)
  // comes on a thread of the simulation, maybe before this returns. `text`
  // is empty on success, else the reason.
  virtual void StopRecording(const char*& text) = 0;

 protected:
  ~IChannelDriver() = default;
};

// The driver of a recording on disk (.tdf).
class IFileChannelDriver : public IChannelDriver {
 protected:
  ~IFileChannelDriver() = default;
};

class IChannelServer {
 public:
  virtual void RegisterForEvents(ChannelClient* listener) = 0;
  virtual int32_t GetNumRcvrs() = 0;
  // Receiver `index`: its name ("MTB", "ETB", ...), a description, and the
  // CPUs it serves.
  virtual bool getReceiver(int32_t index, const char*& name, const char*& text,
                           Qx::Nlv::Xevt::NameList& cpus) = 0;
  virtual bool getOutFileName(const char* cpu, const char*& file) = 0;
  virtual bool GetSourcePaths(const char* cpu, const char*& paths) = 0;
  // Fills the seven values of `info` (not its name).
  virtual bool GetTracingCpuInfo(const char* cpu, CpuInfo* info) = 0;
  virtual bool GetChannelDriver(const char* cpu, IChannelDriver*& driver) = 0;

 protected:
  ~IChannelServer() = default;
};

}  // namespace Qx::Nlv::Trace
