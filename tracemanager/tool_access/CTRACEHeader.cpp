// CTRACE::readHeader: the header of a .tdf recording, read field by field.
//
// Two forms exist. The current one starts with the magic "TDF2"; the older
// one starts with the header size and has a signature string after the
// format version. Integers are unsigned 32-bit little-endian, strings a
// 32-bit length and that many bytes. The reader follows the fields and never
// seeks: the header size is only tested against 0.

#include <cstdio>
#include <cstring>
#include <vector>

#include "source_utilities/Logger.hpp"
#include "tool_access/CTRACE.hpp"

namespace {

constexpr uint32_t kMagic = 0x32464454;  // "TDF2" read as a little-endian number
constexpr uint32_t kMaxString = 10240;   // a length at or above this is a failure

// One small read per field from a file it closes. Every read gives false
// when the file comes back short; the caller then fails without a message.
class HeaderReader {
 public:
  explicit HeaderReader(std::FILE* file) : file_(file), buffer_(kMaxString + 1) {}
  ~HeaderReader() { std::fclose(file_); }
  HeaderReader(const HeaderReader&) = delete;
  HeaderReader& operator=(const HeaderReader&) = delete;

  bool bytes(void* into, size_t size) { return std::fread(into, 1, size, file_) == size; }

  bool u32(uint32_t& value) {
    uint8_t b[4];
    if (!bytes(b, 4)) return false;
    value = uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
    return true;
  }

  // The text is taken up to its first NUL.
  bool string(std::string& value) {
    uint32_t length = 0;
    if (!u32(length) || length >= kMaxString) return false;
    if (!bytes(buffer_.data(), length)) return false;
    buffer_[length] = '\0';
    value = buffer_.data();
    return true;
  }

  bool skipString() {
    std::string ignored;
    return string(ignored);
  }

  bool skipU32(int count) {
    uint32_t ignored = 0;
    for (int i = 0; i < count; ++i) {
      if (!u32(ignored)) return false;
    }
    return true;
  }

  bool f64(double& value) {
    uint8_t b[8];
    if (!bytes(b, 8)) return false;
    uint64_t bits = 0;
    for (int i = 7; i >= 0; --i) bits = bits << 8 | b[i];
    std::memcpy(&value, &bits, sizeof value);
    return true;
  }

  // The four tables between the source paths and the clock. Their entries
  // mean nothing to the module; they are read only to find the clock.
  bool skipTables() {
    uint32_t count = 0;
    uint32_t inner = 0;
    if (!u32(count)) return false;  // A: string, 3 x u32 (the last is m), m x (u32, string)
    for (uint32_t i = 0; i < count; ++i) {
      if (!skipString() || !skipU32(2) || !u32(inner)) return false;
      for (uint32_t j = 0; j < inner; ++j) {
        if (!skipU32(1) || !skipString()) return false;
      }
    }
    if (!u32(count)) return false;  // B: 3 x u32
    for (uint32_t i = 0; i < count; ++i) {
      if (!skipU32(3)) return false;
    }
    if (!u32(count)) return false;  // C: u32, m, m x (5 x u32, 3 strings)
    for (uint32_t i = 0; i < count; ++i) {
      if (!skipU32(1) || !u32(inner)) return false;
      for (uint32_t j = 0; j < inner; ++j) {
        if (!skipU32(5) || !skipString() || !skipString() || !skipString()) return false;
      }
    }
    if (!u32(count)) return false;  // D: 16 bytes, string
    for (uint32_t i = 0; i < count; ++i) {
      uint8_t ignored[16];
      if (!bytes(ignored, sizeof ignored) || !skipString()) return false;
    }
    return true;
  }

 private:
  std::FILE* file_;
  std::vector<char> buffer_;
};

}  // namespace

bool CTRACE::readHeader(const std::string& path) {
  QX_TRACE_FUNCTION("CTRACE::readHeader");
  tdfFile = path;
  Qx::Nlv::Trace::freeCpuInfo(cpuInfo);
  if (!hasTdfExtension(path)) {
    QX_LOG_ERROR("Binary trace file must have .tdf extension: %s", path.c_str());
    return false;
  }
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    QX_LOG_ERROR("Failure opening binary trace file: %s", path.c_str());
    return false;
  }
  HeaderReader in(file);

  uint32_t first = 0;
  if (!in.u32(first)) return false;
  bool current = first == kMagic;
  uint32_t headerSize = first;
  if (current && !in.u32(headerSize)) return false;
  if (headerSize == 0) {
    QX_LOG_ERROR("Display header size in binary trace file is invalid (zero).");
    return false;
  }
  uint32_t formatVersion = 0;
  if (!in.u32(formatVersion)) return false;
  if (formatVersion < 4 || formatVersion > 20) {
    QX_LOG_ERROR("File type is correct, but this format version is not supported.");
    return false;
  }
  std::string text;
  if (!current) {
    if (!in.string(text)) return false;
    if (text != "TraceDataFile") {
      QX_LOG_ERROR("File signature is incorrect.");
      return false;
    }
  }
  if (!in.string(text)) return false;
  if (text != "TraceQX") {
    QX_LOG_ERROR("Wrong component name.");
    return false;
  }
  if (!in.string(receiverName)) return false;
  cpuInfo = new Qx::Nlv::Trace::CpuInfo();
  if (!in.string(text)) return false;
  Qx::Nlv::Trace::setCpuInfoName(*cpuInfo, text.c_str());
  for (uint32_t* value : {&cpuInfo->deviceKind, &cpuInfo->processorId, &cpuInfo->traceProtocol,
                          &cpuInfo->traceSourceId, &cpuInfo->bigEndian, &cpuInfo->addressBits,
                          &cpuInfo->options}) {
    if (!in.u32(*value)) return false;
  }
  if (!in.string(coffFileName) || !in.u32(headerFlags) || !in.string(sourcePaths)) return false;
  if (!in.skipTables()) return false;
  // An STM source has no clock here: it comes from the device configuration.
  if (!isSTM() && !in.f64(clockHz)) return false;
  return true;
}
