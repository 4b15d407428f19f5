// CTRACE: one trace decoder, made for a live CPU or for a .tdf file, and the
// reading of decoded rows from it.
//
// A CTRACE is empty when made; FillCPUInfoFromChannelServer (live) or
// readHeader (file) fills its inputs; CreateDecoder makes the decoder
// (decoderReady); ShutdownDecoder empties it again and may run on a partly
// made object, any number of times. CloudHemlock keeps CTRACE objects in the
// trace table of CTraceApp.
//
// Errors: nothing a decoder library throws leaves this class. CreateDecoder
// and StopRecording give the user's message (empty on success), the others
// false or 0; every failure leaves a log record. Only an exception that is
// neither a tool error nor a thrown text during CreateDecoder reaches the
// caller. Threads: one thread at a time per object.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tool_access/ColumnRecord.hpp"
#include "trace/ChannelFoundry.hpp"
#include "trace/CpuInfo.hpp"

// Names a .tdf file for the file form of CTRACE::CreateDecoder.
struct TdfFileName {
  std::string path;
};

class CTRACE {
 public:
  CTRACE() = default;
  ~CTRACE();
  CTRACE(const CTRACE&) = delete;
  CTRACE& operator=(const CTRACE&) = delete;

  // Live: the CPU's inputs from the channel server.
  bool FillCPUInfoFromChannelServer(const std::string& cpu);
  // Live decoder of `cpu`; empty on success, else the user's message.
  std::string CreateDecoder(const std::string& cpu);
  // File decoder of a .tdf recording; empty on success.
  std::string CreateDecoder(const TdfFileName& tdfFile);
  // Reads the header of a .tdf file into the decoder's inputs.
  bool readHeader(const std::string& tdfFile);

  uint32_t getColumnCount();
  // Fills one entry per column into each array (resized here).
  bool readColumnInfo(std::vector<std::string>& names, std::vector<uint32_t>& sizes,
                      std::vector<bool>& isString, std::vector<uint32_t>& offsets,
                      std::vector<uint32_t>& ids);
  // Rows read into the caller's buffers (rowSize, valid bytes and 16 bytes
  // per row); fewer than asked at the end of the data and on a failure.
  uint32_t DecodeTraceData(uint32_t seekPosition, double percentage,
                           const Qx::Nlv::Trace::TracePosition& position,
                           uint32_t numberOfSamples, uint8_t* dataBuffer, uint8_t* validBuffer,
                           Qx::Nlv::Trace::TracePosition* tracePositionBuffer);
  std::string StopRecording();
  bool isSTM();
  bool isITM();
  bool AreOverlaysSupported();
  void SetIsTDFFile(bool flag);
  void ShutdownDecoder();
  void ResetDecoder();

  // True when a name ends in ".tdf", any case, after at least one character
  // or none (".tdf" itself passes).
  static bool hasTdfExtension(const std::string& name);

  Qx::Nlv::Trace::IChannelDriver* channelDriver = nullptr;
  Qx::Nlv::Trace::IFileChannelDriver* fileChannelDriver = nullptr;
  Qx::Nlv::Trace::IDeviceConfigManager* configManager = nullptr;
  Qx::Nlv::Trace::IDecoder* decoder = nullptr;  // "m_pFmtrIn" in the log texts
  Qx::Nlv::Trace::IProgramDataSource* programDataSource = nullptr;
  Qx::Nlv::Trace::CpuInfo* cpuInfo = nullptr;  // owned
  uint32_t columnCount = 0;
  std::string receiverName;
  std::string coffFileName;
  double clockHz = 0;
  std::string sourcePaths;
  uint32_t headerFlags = 0;
  std::vector<ColumnRecord> columns;
  bool decoderReady = false;
  uint32_t rowSize = 0;
  std::string stringData;  // strings of the last SeekRead
  std::string tdfFile;

 private:
  void readClock(const char* property);
};
