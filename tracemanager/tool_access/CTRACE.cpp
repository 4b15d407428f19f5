#include "tool_access/CTRACE.hpp"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "hemlock/hemlockErrorIF.hpp"
#include "source_utilities/Logger.hpp"
#include "tool_access/CTraceApp.hpp"
#include "tool_access/CloudTraceEventHandler.hpp"

using Qx::Nlv::Hemlock::hemlockErrorIF;
using Qx::Nlv::Trace::ConfigProperty;
using Qx::Nlv::Trace::IChannelFoundry;
using Qx::Nlv::Trace::IChannelServer;

namespace {

constexpr const char* kStmClock = "STM_DTC_target_clock_hz";
constexpr const char* kItmClock = "Timing Clock Frequency";

bool fileOpens(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return file.is_open();
}

// The last component of a path written on either kind of system.
std::string fileNamePart(const std::string& path) {
  size_t cut = path.find_last_of("/\\");
  return cut == std::string::npos ? path : path.substr(cut + 1);
}

uint64_t maskOf(uint32_t bitWidth) {
  if (bitWidth == 0) return 0;
  if (bitWidth >= 64) return ~uint64_t{0};
  return ~uint64_t{0} >> (64 - bitWidth);
}

// A step of the file form failed with the library's text.
struct StepFailure {
  std::string text;
};

// Runs one step of decoder creation; a tool error or a thrown text is
// logged with `format` ("... %p ... %s") and becomes a StepFailure.
template <typename Step>
void runStep(const void* self, const char* format, Step&& step) {
  try {
    step();
  } catch (const hemlockErrorIF& e) {
    QX_LOG_ERROR(format, self, e.GetErrorText());
    throw StepFailure{e.GetErrorText()};
  } catch (const std::string& text) {
    QX_LOG_ERROR(format, self, text.c_str());
    throw StepFailure{text};
  } catch (const char* text) {
    std::string copy = text != nullptr ? text : "";
    QX_LOG_ERROR(format, self, copy.c_str());
    throw StepFailure{copy};
  }
}

}  // namespace

CTRACE::~CTRACE() { ShutdownDecoder(); }

bool CTRACE::hasTdfExtension(const std::string& name) {
  if (name.size() < 4 || name[name.size() - 4] != '.') return false;
  for (size_t i = 0; i < 3; ++i) {
    char c = name[name.size() - 3 + i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != "tdf"[i]) return false;
  }
  return true;
}

bool CTRACE::FillCPUInfoFromChannelServer(const std::string& cpu) {
  IChannelServer* server = CTraceApp::getChannelServer();
  if (server == nullptr) {
    QX_LOG_ERROR("CTRACE %p: Channel Server does not exist!", static_cast<void*>(this));
    return false;
  }
  try {
    Qx::Nlv::Trace::freeCpuInfo(cpuInfo);
    cpuInfo = new Qx::Nlv::Trace::CpuInfo();
    server->GetTracingCpuInfo(cpu.c_str(), cpuInfo);
    Qx::Nlv::Trace::setCpuInfoName(*cpuInfo, cpu.c_str());
    if (!CTraceApp::GetReceiverName(cpu.c_str(), receiverName)) {
      QX_LOG_ERROR("CTRACE %p: FillCPUInfoFromChannelServer(): Receiver name for CPU not found.",
                   static_cast<void*>(this));
      receiverName = "None";
    }
    const char* file = nullptr;
    server->getOutFileName(cpu.c_str(), file);
    coffFileName = file != nullptr ? file : "";
    const char* paths = nullptr;
    server->GetSourcePaths(cpu.c_str(), paths);
    sourcePaths = paths != nullptr ? paths : "";
    server->GetChannelDriver(cpu.c_str(), channelDriver);
    return true;
  } catch (const hemlockErrorIF& e) {
    QX_LOG_ERROR("CTRACE %p: FillCPUInfoFromChannelServer(): hemlock Exception: %s",
                 static_cast<void*>(this), e.GetErrorText());
  } catch (...) {
    QX_LOG_ERROR(
        "CTRACE %p: FillCPUInfoFromChannelServer(): Unexpected exception - caught possible "
        "crash!",
        static_cast<void*>(this));
  }
  return false;
}

void CTRACE::readClock(const char* property) {
  if (configManager == nullptr) return;
  ConfigProperty value;
  if (configManager->getProperty(property, value)) clockHz = static_cast<double>(value.integer);
}

std::string CTRACE::CreateDecoder(const std::string& cpu) {
  QX_LOG_MESSAGE("CTRACE %p: CreateDecoder(%s): Entering", static_cast<void*>(this), cpu.c_str());
  try {
    IChannelFoundry* f = CTraceApp::obtainFoundry();
    if (f == nullptr) return "Could not create Channel Foundry";
    const char* coff = coffFileName.c_str();
    if (coffFileName.empty()) {
      QX_LOG_ERROR("CTRACE %p: CreateDecoder(%s): No out file available.",
                   static_cast<void*>(this), cpu.c_str());
      coff = nullptr;
    }
    f->CreateDecoder(channelDriver, receiverName.c_str(), cpuInfo, coff, decoder);
    if (decoder == nullptr) {
      ShutdownDecoder();
      return "Could not create decoder";
    }
    f->LookupProgramDataSource(decoder, programDataSource);
    f->LookupDeviceConfigManager(decoder, configManager);
    if (isSTM()) {
      readClock(kStmClock);
    } else if (isITM()) {
      readClock(kItmClock);
    }
    if (AreOverlaysSupported()) SetIsTDFFile(false);
    if (configManager != nullptr) {
      configManager->RegisterEventHandler(CTraceApp::eventHandler());
      configManager->applyLiveConfiguration();
    }
    decoderReady = true;
    QX_LOG_MESSAGE("CTRACE %p: CreateDecoder(%s): Successfully completed.",
                   static_cast<void*>(this), cpu.c_str());
    return "";
  } catch (const hemlockErrorIF& e) {
    std::string text = e.GetErrorText();
    QX_LOG_ERROR("CTRACE %p: Exception during initializing: %s", static_cast<void*>(this),
                 text.c_str());
    ShutdownDecoder();
    return text;
  } catch (const std::string& text) {
    QX_LOG_ERROR("CTRACE %p: Exception during initializing: %s", static_cast<void*>(this),
                 text.c_str());
    ShutdownDecoder();
    return text;
  }
}

std::string CTRACE::CreateDecoder(const TdfFileName& file) {
  const std::string& path = file.path;
  QX_LOG_MESSAGE("CTRACE %p: CreateDecoder(%s): Entering", static_cast<void*>(this),
                 path.c_str());
  IChannelFoundry* f = CTraceApp::obtainFoundry();
  if (f == nullptr) return "Could not create Channel Foundry";
  if (!readHeader(path)) return "Could not read TDF header";

  // The program may have moved together with the recording: try the file
  // name of the recorded path beside the .tdf file.
  QX_LOG_MESSAGE("CTRACE: coffFileName=%s", coffFileName.c_str());
  if (!coffFileName.empty() && !fileOpens(coffFileName)) {
    std::filesystem::path beside =
        std::filesystem::path(path).parent_path() / fileNamePart(coffFileName);
    QX_LOG_MESSAGE("CTRACE: Try location: %s", beside.string().c_str());
    if (!fileOpens(beside.string())) return "Could not open coff file '" + coffFileName + "'";
    coffFileName = beside.string();
  }

  void* self = this;
  try {
    runStep(self, "CTRACE %p: Exception in ChannelFoundry's CreateFileChannelDriver(): %s",
            [&] { f->CreateFileChannelDriver(fileChannelDriver); });
    runStep(self, "CTRACE %p: Exception in ChannelFoundry's CreateDecoder(): %s", [&] {
      f->CreateDecoder(fileChannelDriver, receiverName.c_str(), cpuInfo,
                       coffFileName.empty() ? nullptr : coffFileName.c_str(), decoder,
                       path.c_str());
    });
    if (decoder == nullptr) throw StepFailure{"Could not create decoder"};
    runStep(self, "CTRACE %p: Exception in ChannelFoundry's LookupProgramDataSource(): %s",
            [&] { f->LookupProgramDataSource(decoder, programDataSource); });
    runStep(self, "CTRACE %p: Exception in ChannelFoundry's LookupDeviceConfigManager(): %s",
            [&] { f->LookupDeviceConfigManager(decoder, configManager); });
    if (isSTM()) {
      readClock(kStmClock);
    } else if (isITM()) {
      readClock(kItmClock);
    }
    runStep(self, "CTRACE %p: Exception in RegisterEventHandler(): %s", [&] {
      if (configManager != nullptr) configManager->RegisterEventHandler(CTraceApp::eventHandler());
    });
    if (AreOverlaysSupported()) SetIsTDFFile(true);

    if (!hasTdfExtension(path)) {
      std::fprintf(stderr, "CTraceApp: File extension not .tdf!\n");
      QX_LOG_ERROR("CTRACE %p: File extension not .tdf!", self);
      throw StepFailure{"File extension not .tdf!"};
    }
    {
      std::ifstream in(path, std::ios::binary);
      if (!in.is_open()) {
        std::fprintf(stderr, "CTraceApp: Opening of the TDF failed!\n");
        QX_LOG_ERROR("CTRACE %p: Opening of the TDF failed!", self);
        throw StepFailure{"Opening of the TDF failed!"};
      }
      char magic[4] = {0, 0, 0, 0};
      in.read(magic, 4);
      if (in.gcount() != 4 || std::string(magic, 4) != "TDF2") {
        QX_LOG_ERROR("CTRACE %p: Unsupported TDF file format v1", self);
        throw StepFailure{"Unsupported TDF file format v1"};
      }
    }
    runStep(self, "CTRACE %p: Exception in LoadFile(): %s",
            [&] { decoder->LoadFile(path.c_str(), 0, 0); });
    runStep(self, "CTRACE %p: Exception in LoadConfiguration(): %s", [&] {
      if (configManager != nullptr) configManager->LoadConfiguration(path.c_str(), 0);
    });
    // The configuration now loaded is where an STM source keeps its clock.
    if (isSTM()) readClock(kStmClock);
  } catch (const StepFailure& failure) {
    ShutdownDecoder();
    return failure.text;
  } catch (const hemlockErrorIF& e) {
    std::string text = e.GetErrorText();
    QX_LOG_ERROR("CTRACE %p: Exception during CreateDecoder(): %s", self, text.c_str());
    ShutdownDecoder();
    return text;
  }
  decoderReady = true;
  QX_LOG_MESSAGE("CTRACE %p: CreateDecoder(tdfFile): Successfully completed.", self);
  return "";
}

uint32_t CTRACE::getColumnCount() {
  if (decoder == nullptr) return 0;
  uint32_t count = 0;
  try {
    decoder->getColumnCount(count);
  } catch (const hemlockErrorIF& e) {
    QX_LOG_ERROR("CTRACE %p: getColumnCount(): %s", static_cast<void*>(this), e.GetErrorText());
    return 0;
  } catch (...) {
    QX_LOG_ERROR("CTRACE %p: getColumnCount(): Unexpected exception", static_cast<void*>(this));
    return 0;
  }
  return count;
}

bool CTRACE::readColumnInfo(std::vector<std::string>& names, std::vector<uint32_t>& sizes,
                            std::vector<bool>& isString, std::vector<uint32_t>& offsets,
                            std::vector<uint32_t>& ids) {
  if (decoder == nullptr) return false;
  try {
    uint32_t count = 0;
    decoder->getColumnCount(count);
    ResetDecoder();
    columns.resize(count);
    columnCount = count;
    names.assign(count, "");
    sizes.assign(count, 0);
    isString.assign(count, false);
    offsets.assign(count, 0);
    ids.assign(count, 0);
    for (uint32_t i = 0; i < count; ++i) {
      ColumnRecord& column = columns[i];
      const char* name = nullptr;
      const char* text1 = nullptr;
      const char* text2 = nullptr;
      decoder->getColumnInfo(i, column.id, column.bitWidth, column.isString, name, text1, text2);
      column.name = name != nullptr ? name : "";
      column.text1 = text1 != nullptr ? text1 : "";
      column.text2 = text2 != nullptr ? text2 : "";
      decoder->prepareColumn(i, column.isString);
      column.offset = rowSize;
      if (column.isString) {
        column.bitWidth = 48;
        column.size = 6;
      } else {
        decoder->bitsToBytes(column.bitWidth, column.size);
      }
      column.valueMask = maskOf(column.bitWidth);
      column.validByte = i / 8;
      column.validBit = static_cast<uint8_t>(1u << (i % 8));
      column.sizeText = "Size = " + std::to_string(static_cast<int>(column.size));
      names[i] = column.name;
      sizes[i] = column.size;
      isString[i] = column.isString;
      offsets[i] = column.offset;
      ids[i] = column.id;
      rowSize += column.size;
    }
    return true;
  } catch (const hemlockErrorIF& e) {
    QX_LOG_ERROR("CTRACE %p: readColumnInfo(): %s", static_cast<void*>(this), e.GetErrorText());
  } catch (...) {
    QX_LOG_ERROR("CTRACE %p: readColumnInfo(): Unexpected exception", static_cast<void*>(this));
  }
  return false;
}

uint32_t CTRACE::DecodeTraceData(uint32_t seekPosition, double percentage,
                                 const Qx::Nlv::Trace::TracePosition& position,
                                 uint32_t numberOfSamples, uint8_t* dataBuffer,
                                 uint8_t* validBuffer,
                                 Qx::Nlv::Trace::TracePosition* tracePositionBuffer) {
  void* self = this;
  if (decoder == nullptr) {
    QX_LOG_ERROR("CTRACE %p: DecodeTraceData(): Error - decoder not instantiated!", self);
    return 0;
  }
  if (dataBuffer == nullptr || validBuffer == nullptr || tracePositionBuffer == nullptr) {
    QX_LOG_ERROR("CTRACE %p: DecodeTraceData(): Error - Decoded data buffers not allocated!",
                 self);
    return 0;
  }
  uint32_t rows = 0;
  try {
    Qx::Nlv::Trace::TracePosition from = position;
    decoder->SeekRead(seekPosition, percentage, from, numberOfSamples, rows, dataBuffer,
                      tracePositionBuffer, validBuffer, stringData);
    return rows;
  } catch (const std::string& text) {
    QX_LOG_ERROR("CTRACE %p: %s", self, ("SeekRead error: " + text + "\n").c_str());
  } catch (const char* text) {
    QX_LOG_ERROR("CTRACE %p: %s", self,
                 ("SeekRead error: " + std::string(text != nullptr ? text : "") + "\n").c_str());
  } catch (const hemlockErrorIF& e) {
    QX_LOG_ERROR("CTRACE %p: %s", self, (std::string("Error: ") + e.GetErrorText()).c_str());
  } catch (const std::exception& e) {
    QX_LOG_ERROR("CTRACE %p: %s", self, (std::string("Error: ") + e.what()).c_str());
  }
  return 0;
}

std::string CTRACE::StopRecording() {
  if (channelDriver == nullptr) return "";
  try {
    const char* text = nullptr;
    channelDriver->StopRecording(text);
    return text != nullptr ? text : "";
  } catch (const hemlockErrorIF& e) {
    QX_LOG_ERROR("CTRACE %p: %s!", static_cast<void*>(this), e.GetErrorText());
    return e.GetErrorText();
  } catch (...) {
    QX_LOG_ERROR(
        "CTRACE %p: StopRecording(): Unexpected exception - caught possible crash on "
        "channelDriver->StopRecording()!",
        static_cast<void*>(this));
    return "Unexpected exception";
  }
}

bool CTRACE::isSTM() {
  if (cpuInfo == nullptr) {
    QX_LOG_ERROR("CTRACE %p: isSTM(): Error - CPUInfo not instantiated!",
                 static_cast<void*>(this));
    return false;
  }
  IChannelFoundry* f = CTraceApp::obtainFoundry();
  if (f == nullptr) return false;
  try {
    return f->isSTM(cpuInfo, receiverName.c_str(), tdfFile.empty() ? nullptr : tdfFile.c_str());
  } catch (...) {
    QX_LOG_ERROR("CTRACE %p: isSTM(): Unexpected exception", static_cast<void*>(this));
    return false;
  }
}

bool CTRACE::isITM() {
  if (cpuInfo == nullptr) {
    QX_LOG_ERROR("CTRACE %p: isITM(): Error - CPUInfo not instantiated!",
                 static_cast<void*>(this));
    return false;
  }
  IChannelFoundry* f = CTraceApp::obtainFoundry();
  if (f == nullptr) return false;
  try {
    return f->isITM(cpuInfo, receiverName.c_str(), tdfFile.empty() ? nullptr : tdfFile.c_str());
  } catch (...) {
    QX_LOG_ERROR("CTRACE %p: isITM(): Unexpected exception", static_cast<void*>(this));
    return false;
  }
}

bool CTRACE::AreOverlaysSupported() {
  if (decoder == nullptr) return false;
  try {
    return decoder->getOverlayInfo() != nullptr;
  } catch (...) {
    return false;
  }
}

void CTRACE::SetIsTDFFile(bool flag) {
  if (decoder == nullptr) {
    QX_LOG_ERROR("CTRACE %p: SetIsTDFFile(): Error - decoder not instantiated!",
                 static_cast<void*>(this));
    return;
  }
  Qx::Nlv::Trace::IOverlayInfo* overlay = decoder->getOverlayInfo();
  if (overlay == nullptr) {
    QX_LOG_ERROR("CTRACE %p: SetIsTDFFile(): Error - overlayInfo not instantiated!",
                 static_cast<void*>(this));
    return;
  }
  overlay->SetIsTDFFile(flag);
}

void CTRACE::ResetDecoder() {
  columns.clear();
  columnCount = 0;
  rowSize = 0;
}

void CTRACE::ShutdownDecoder() {
  QX_TRACE_FUNCTION("CTRACE::ShutdownDecoder");
  ResetDecoder();
  void* self = this;
  IChannelFoundry* f = CTraceApp::foundry();
  if (decoder != nullptr && f != nullptr) {
    try {
      f->DestroyDecoder(decoder);
    } catch (const hemlockErrorIF& e) {
      QX_LOG_ERROR("CTRACE %p: DestroyDecoder() failed: %s", self, e.GetErrorText());
    } catch (...) {
      QX_LOG_ERROR(
          "CTRACE %p: DestroyDecoder(): Unexpected exception - caught possible crash on "
          "channelFoundry->DestroyDecoder()",
          self);
    }
  }
  decoder = nullptr;
  configManager = nullptr;
  programDataSource = nullptr;
  decoderReady = false;
  Qx::Nlv::Trace::freeCpuInfo(cpuInfo);
  if (fileChannelDriver != nullptr && f != nullptr) {
    try {
      f->DestroyFileChannelDriver(fileChannelDriver);
    } catch (const hemlockErrorIF& e) {
      QX_LOG_ERROR("CTRACE %p: DestroyFileChannelDriver() failed: %s", self, e.GetErrorText());
    } catch (...) {
      QX_LOG_ERROR("CTRACE %p: DestroyFileChannelDriver(): Unexpected exception", self);
    }
  }
  fileChannelDriver = nullptr;
}
