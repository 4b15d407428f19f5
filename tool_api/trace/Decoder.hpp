// A trace decoder and its companions: the column model it hands rows out
// through, the device configuration manager, the overlay information and the
// program data source.
//
// Row block filled by SeekRead: `count` rows of the row size (the sum of the
// column sizes the module computes with bitsToBytes, in column order; a
// string column takes 6 bytes: a 32-bit offset into `strings` and a 16-bit
// length), little-endian; per row (columnCount + 7) / 8 valid bytes, bit
// (index % 8) of byte (index / 8) set when the column has a value; 16 bytes
// of TracePosition per row.
//
// Ownership: made and destroyed by the foundry. Threads: one caller at a
// time. Failures throw hemlockErrorIF (or, from SeekRead, a std::string).
#pragma once

#include <cstdint>
#include <string>

#include "trace/ChannelClient.hpp"
#include "trace/CpuInfo.hpp"

namespace Qx::Nlv::Trace {

class IOverlayInfo {
 public:
  virtual void SetIsTDFFile(bool isTdf) = 0;

 protected:
  ~IOverlayInfo() = default;
};

// The decoder's view of the program image. The module only looks it up.
class IProgramDataSource {
 public:
  virtual const char* getProgramFile() = 0;

 protected:
  ~IProgramDataSource() = default;
};

struct ConfigProperty {
  int64_t integer = 0;
  double real = 0;
  const char* text = nullptr;
};

class IDeviceConfigManager {
 public:
  virtual void RegisterEventHandler(CDeviceConfigEvents* listener) = 0;
  virtual void applyLiveConfiguration() = 0;
  virtual void LoadConfiguration(const char* path, uint32_t flags) = 0;
  // true if the property is known.
  virtual bool getProperty(const char* name, ConfigProperty& value) = 0;

 protected:
  ~IDeviceConfigManager() = default;
};

class IDecoder {
 public:
  virtual void getColumnCount(uint32_t& count) = 0;
  virtual void getColumnInfo(uint32_t index, uint32_t& id, uint32_t& bitWidth, bool& isString,
                             const char*& name, const char*& text1, const char*& text2) = 0;
  virtual void bitsToBytes(uint32_t bitWidth, uint32_t& size) = 0;
  virtual void prepareColumn(uint32_t index, bool isString) = 0;
  // Reads up to `numberOfSamples` rows from `position` (kSeekStart: from the
  // first row; kSeekContinue: after the last row read). `rows` is the number
  // read; fewer than asked means the end. `strings` is replaced.
  virtual void SeekRead(uint32_t seekPosition, double percentage, TracePosition position,
                        uint32_t numberOfSamples, uint32_t& rows, uint8_t* dataBuffer,
                        TracePosition* tracePositionBuffer, uint8_t* validBuffer,
                        std::string& strings) = 0;
  virtual void LoadFile(const char* path, uint32_t a, uint32_t b) = 0;
  // Null if overlays are not supported.
  virtual IOverlayInfo* getOverlayInfo() = 0;

 protected:
  ~IDecoder() = default;
};

}  // namespace Qx::Nlv::Trace
