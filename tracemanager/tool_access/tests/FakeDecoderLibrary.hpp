// A decoder library made in the test: a foundry, a decoder that serves the
// test's rows through the real row-block format, a configuration manager
// with named properties and a channel driver, each of which can be told to
// fail. Enough to drive CTRACE and the table readers through every path
// without the real library.
#pragma once

#include <functional>
#include <algorithm>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "tool_access/CloudHLError.hpp"
#include "trace/ChannelFoundry.hpp"

namespace fake {

using namespace Qx::Nlv::Trace;

struct Column {
  std::string name;
  uint32_t bitWidth;
  bool isString = false;
};
using Cell = std::variant<uint64_t, std::string>;
using Row = std::map<std::string, Cell>;

class Config : public IDeviceConfigManager {
 public:
  void RegisterEventHandler(CDeviceConfigEvents*) override {}
  void applyLiveConfiguration() override {}
  void LoadConfiguration(const char* path, uint32_t) override {
    loadedPath = path;
    for (auto& [name, value] : afterLoad) properties[name] = value;
  }
  bool getProperty(const char* name, ConfigProperty& value) override {
    auto found = properties.find(name);
    if (found == properties.end()) return false;
    value.integer = found->second;
    return true;
  }
  std::map<std::string, int64_t> properties;
  std::map<std::string, int64_t> afterLoad;  // known once a configuration is loaded
  std::string loadedPath;
};

class Decoder : public IDecoder {
 public:
  void getColumnCount(uint32_t& count) override { count = static_cast<uint32_t>(columns.size()); }
  void getColumnInfo(uint32_t index, uint32_t& id, uint32_t& bitWidth, bool& isString,
                     const char*& name, const char*& text1, const char*& text2) override {
    id = 100 + index;
    bitWidth = columns[index].bitWidth;
    isString = columns[index].isString;
    name = columns[index].name.c_str();
    text1 = "t1";
    text2 = nullptr;
  }
  void bitsToBytes(uint32_t bitWidth, uint32_t& size) override { size = (bitWidth + 7) / 8; }
  void prepareColumn(uint32_t, bool) override { ++prepared; }
  // Serves `rows` by the column layout the module computes: sizes in column
  // order, strings as offset and length into the block's strings.
  void SeekRead(uint32_t seek, double, TracePosition, uint32_t count, uint32_t& read,
                uint8_t* data, TracePosition* positions, uint8_t* valid,
                std::string& strings) override {
    ++reads;
    if (seekFailure) seekFailure();
    if (seek == kSeekStart) cursor = 0;
    strings.clear();
    const size_t validBytes = (columns.size() + 7) / 8;
    for (read = 0; read < count && cursor < rows.size(); ++read, ++cursor) {
      std::fill_n(valid + read * validBytes, validBytes, 0);
      positions[read].row = cursor;
      for (size_t c = 0; c < columns.size(); ++c) {
        const uint32_t size = columns[c].isString ? 6 : (columns[c].bitWidth + 7) / 8;
        auto cell = rows[cursor].find(columns[c].name);
        // An absent value keeps the filler: what it holds must not matter.
        uint64_t value = 0xA5A5A5A5A5A5A5A5;
        if (cell != rows[cursor].end()) {
          if (auto* text = std::get_if<std::string>(&cell->second)) {
            value = strings.size() | uint64_t{text->size()} << 32;
            strings += *text + '\0';
          } else {
            value = std::get<uint64_t>(cell->second);
          }
          valid[read * validBytes + c / 8] |= static_cast<uint8_t>(1 << (c % 8));
        }
        for (uint32_t b = 0; b < size; ++b) *data++ = static_cast<uint8_t>(value >> (8 * b));
      }
    }
  }
  void LoadFile(const char* path, uint32_t, uint32_t) override {
    if (loadFailure) throw CloudHLError(loadFailure, Qx::Nlv::Hemlock::hemlockErrorIF::Error);
    loadedPath = path;
  }
  IOverlayInfo* getOverlayInfo() override { return nullptr; }

  std::vector<Column> columns;
  std::vector<Row> rows;
  uint32_t cursor = 0;
  int reads = 0;
  std::function<void()> seekFailure;
  const char* loadFailure = nullptr;
  std::string loadedPath;
  int prepared = 0;
};

class Driver : public IFileChannelDriver {
 public:
  void StopRecording(const char*& text) override {
    if (failure) failure();
    text = answer;
  }
  std::function<void()> failure;
  const char* answer = nullptr;
};

class Foundry : public IChannelFoundry {
 public:
  void CreateChannelServer(IChannelServer*&, uint32_t) override {
    throw CloudHLError("no probe", Qx::Nlv::Hemlock::hemlockErrorIF::Error);
  }
  void DestroyChannelServer(IChannelServer*, uint32_t) override {}
  void CreateFileChannelDriver(IFileChannelDriver*& made) override { made = &driver; }
  void DestroyFileChannelDriver(IFileChannelDriver*) override { ++driversDestroyed; }
  void CreateDecoder(IChannelDriver*, const char*, const CpuInfo*, const char* coff,
                     IDecoder*& made) override {
    coffGiven = coff != nullptr ? coff : "(null)";
    made = &decoder;
  }
  void LookupProgramDataSource(IDecoder*, IProgramDataSource*& source) override {
    source = nullptr;
  }
  void LookupDeviceConfigManager(IDecoder*, IDeviceConfigManager*& manager) override {
    manager = &config;
  }
  void DestroyDecoder(IDecoder*) override { ++decodersDestroyed; }
  void CreateDecoder(IFileChannelDriver* fileDriver, const char* receiver, const CpuInfo* info,
                     const char* coff, IDecoder*& made, const char*) override {
    CreateDecoder(static_cast<IChannelDriver*>(fileDriver), receiver, info, coff, made);
  }
  bool isSTM(const CpuInfo* info, const char*, const char*) override {
    return info->traceProtocol == kProtocolStm;
  }
  bool isITM(const CpuInfo* info, const char*, const char*) override {
    return info->traceProtocol == kProtocolItm;
  }

  Decoder decoder;
  Config config;
  Driver driver;
  std::string coffGiven;
  int decodersDestroyed = 0;
  int driversDestroyed = 0;
};

}  // namespace fake
