// The .tdf header reader and the decoder wrapper, on headers written here
// and a decoder library made in the test.
#include "tool_access/CTRACE.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>

#include "FakeDecoderLibrary.hpp"
#include "TdfWriter.hpp"
#include "TestSupport.hpp"
#include "tool_access/CTraceApp.hpp"

namespace fs = std::filesystem;

namespace {

class CTRACETest : public ::testing::Test {
 protected:
  void SetUp() override { CTraceApp::useFoundry(&foundry, nullptr); }
  void TearDown() override { CTraceApp::useFoundry(nullptr, nullptr); }
  static std::string golden(const std::string& name) {
    return ostrand_test::sourcePath("tracemanager/tool_access/tests/golden/" + name);
  }
  std::string write(const std::string& name, const std::string& content) {
    return home.writeText(name, content);
  }

  ostrand_test::TempDir home{"ctrace"};
  fs::path dir = home.path();
  fake::Foundry foundry;
};

struct HeaderCase {
  const char* name;
  std::function<void(TdfHeader&)> change;
  bool cutInTableC = false;
};

using H = HeaderCase;

// clang-format off
const HeaderCase kHeaderCases[] = {
    H{"Current", [](TdfHeader&) {}},
    H{"Older", [](TdfHeader& h) { h.current = false; }},
    H{"Version4", [](TdfHeader& h) { h.version = 4; }},
    H{"Version20", [](TdfHeader& h) { h.version = 20; }},
    H{"Version3", [](TdfHeader& h) { h.version = 3; }},
    H{"Version21", [](TdfHeader& h) { h.version = 21; }},
    H{"OlderVersion21", [](TdfHeader& h) { h.current = false; h.version = 21; }},
    H{"HeaderSizeZero", [](TdfHeader& h) { h.headerSize = 0; }},
    H{"OlderFirstWordZero", [](TdfHeader& h) { h.current = false; h.headerSize = 0; }},
    H{"WrongSignature", [](TdfHeader& h) { h.current = false; h.signature = "X"; }},
    H{"SignatureInCurrentFormIsComponent", [](TdfHeader& h) { h.component = "TraceDataFile"; }},
    H{"WrongComponent", [](TdfHeader& h) { h.component = "TraceQx"; }},
    H{"String10239", [](TdfHeader& h) { h.sourcePaths.assign(10239, 's'); }},
    H{"String10240", [](TdfHeader& h) { h.sourcePaths.assign(10240, 's'); }},
    H{"EmptyCoff", [](TdfHeader& h) { h.coff.clear(); }},
    // The program file is taken up to the first NUL.
    H{"CoffWithNul", [](TdfHeader& h) { h.coff = std::string("/p/prog.elf\0junk", 16); }},
    H{"NoClockForNonStm", [](TdfHeader& h) { h.clock = false; }},
    H{"StmHasNoClock", [](TdfHeader& h) {
      h.values[2] = Qx::Nlv::Trace::kProtocolStm;
      h.clock = false;
    }},
    // A cut in table C fails and keeps what was read before it.
    H{"CutInTableC", [](TdfHeader&) {}, true},
};
// clang-format on

// One line per header: whether it reads, and what reached the decoder
// inputs.
TEST_F(CTRACETest, HeadersGolden) {
  std::ostringstream out;
  for (const HeaderCase& c : kHeaderCases) {
    TdfHeader header;
    c.change(header);
    std::string bytes = header.bytes();
    if (c.cutInTableC) bytes.resize(header.tableCOffset + 10);
    CTRACE trace;
    const std::string path = write("t.tdf", bytes);
    const bool read = trace.readHeader(path);
    EXPECT_EQ(trace.tdfFile, read ? path : trace.tdfFile) << c.name;
    const Qx::Nlv::Trace::CpuInfo none;
    const Qx::Nlv::Trace::CpuInfo& cpu = trace.cpuInfo != nullptr ? *trace.cpuInfo : none;
    const std::string& paths = trace.sourcePaths;
    out << c.name << (read ? ": read" : ": refused") << " receiver=" << trace.receiverName
        << " cpu=" << (cpu.name != nullptr ? cpu.name : "-") << std::hex
        << " id=" << cpu.processorId << " options=" << cpu.options
        << " flags=" << trace.headerFlags << std::dec << " coff=" << trace.coffFileName
        << " paths=" << (paths.size() > 16 ? std::to_string(paths.size()) + " chars" : paths)
        << " clock=" << trace.clockHz << "\n";
  }
  EXPECT_TRUE(ostrand_test::matchesGolden(out.str(), golden("tdf_headers.txt")));
}

TEST_F(CTRACETest, NameTestAndMissingFile) {
  for (const char* good : {"TRACE.TDF", "a.tdf", ".tdf", "dir/x.TdF"}) {
    EXPECT_TRUE(CTRACE::hasTdfExtension(good)) << good;
  }
  for (const char* bad : {"tdf", "a.tdfx", "atdf", "a.tdf ", ""}) {
    EXPECT_FALSE(CTRACE::hasTdfExtension(bad)) << bad;
  }
  CTRACE trace;
  EXPECT_FALSE(trace.readHeader(write("t.bin", TdfHeader().bytes())));
  EXPECT_FALSE(trace.readHeader((dir / "absent.tdf").string()));
}

// One line per recording: CreateDecoder's answer and what reached the
// decoder library (the paths below the test's folder as <dir>); a decoder
// shut down twice is destroyed once.
TEST_F(CTRACETest, FileDecodersGolden) {
  std::ostringstream out;
  auto create = [&](const char* name, TdfHeader header, bool shutDownTwice = false) {
    foundry.decoder.loadedPath = foundry.config.loadedPath = foundry.coffGiven = "";
    CTRACE trace;
    const std::string answer = trace.CreateDecoder(TdfFileName{write("rec.tdf", header.bytes())});
    out << name << ": '" << answer << "' ready=" << trace.decoderReady
        << " decoder=" << (trace.decoder != nullptr) << " loaded=" << foundry.decoder.loadedPath
        << " config=" << foundry.config.loadedPath << " program=" << trace.coffFileName
        << " given=" << foundry.coffGiven << " clock=" << trace.clockHz
        << " destroyed=" << foundry.decodersDestroyed << "/" << foundry.driversDestroyed << "\n";
    if (!shutDownTwice) return;
    trace.ShutdownDecoder();
    trace.ShutdownDecoder();
    out << "  shut down twice: ready=" << trace.decoderReady
        << " cpu=" << (trace.cpuInfo != nullptr) << " destroyed=" << foundry.decodersDestroyed
        << "/" << foundry.driversDestroyed << "\n";
  };
  // The clock of an STM source is read again once the configuration is in.
  TdfHeader stm;
  stm.values[2] = Qx::Nlv::Trace::kProtocolStm;
  stm.clock = false;
  foundry.config.afterLoad["STM_DTC_target_clock_hz"] = 25000000;
  create("Stm", stm);
  // The older form is read, then refused and shut down again.
  TdfHeader older;
  older.current = false;
  create("Older", older);
  TdfHeader broken;
  broken.version = 2;
  create("Unread", broken);
  // A program file that is not where the header says is looked for beside
  // the recording.
  TdfHeader moved;
  moved.coff = "/nowhere/build/prog.elf";
  create("ProgramMissing", moved);
  write("prog.elf", "ELF");
  create("ProgramBesideTheRecording", moved, true);
  foundry.decoder.loadFailure = "trace data damaged";
  create("LoadFails", TdfHeader());
  const std::string text = ostrand_test::replaceAll(out.str(), dir.string(), "<dir>");
  EXPECT_TRUE(ostrand_test::matchesGolden(text, golden("file_decoders.txt")));
}

// Ten columns, the fourth a string and the last one bit wide: the model
// the decoder inputs are read by, one line per column.
TEST_F(CTRACETest, ColumnModelGolden) {
  for (int i = 0; i < 10; ++i) {
    foundry.decoder.columns.push_back({"c" + std::to_string(i), i == 9 ? 1u : 32u, i == 3});
  }
  ASSERT_EQ(CTRACE().getColumnCount(), 0u);
  CTRACE trace;
  ASSERT_EQ(trace.CreateDecoder(TdfFileName{write("t.tdf", TdfHeader().bytes())}), "");
  std::vector<std::string> names;
  std::vector<uint32_t> sizes, offsets, ids;
  std::vector<bool> isString;
  ASSERT_TRUE(trace.readColumnInfo(names, sizes, isString, offsets, ids));
  std::ostringstream out;
  out << "row size " << trace.rowSize << ", " << trace.getColumnCount() << " columns\n";
  for (size_t i = 0; i < trace.columns.size(); ++i) {
    const ColumnRecord& c = trace.columns[i];
    out << names[i] << " id=" << ids[i] << " string=" << isString[i] << " offset=" << offsets[i]
        << " size=" << sizes[i] << " bits=" << c.bitWidth << " mask=" << std::hex << c.valueMask
        << std::dec << " validByte.mask=" << c.validByte << "." << int{c.validBit} << " '"
        << c.sizeText << "'\n";
  }
  EXPECT_TRUE(ostrand_test::matchesGolden(out.str(), golden("column_model.txt")));
  EXPECT_EQ(foundry.decoder.prepared, 10);
}

TEST_F(CTRACETest, DecodeFailuresGiveNoRows) {
  CTRACE trace;
  std::vector<uint8_t> data(64), valid(8);
  std::vector<Qx::Nlv::Trace::TracePosition> positions(8);
  EXPECT_EQ(trace.DecodeTraceData(0, 0, {}, 8, data.data(), valid.data(), positions.data()), 0u);
  foundry.decoder.columns = {{"Message", 48, true}};
  foundry.decoder.rows = {{{"Message", std::string("abc")}}, {}, {}, {}};
  ASSERT_EQ(trace.CreateDecoder(TdfFileName{write("t.tdf", TdfHeader().bytes())}), "");
  EXPECT_EQ(trace.DecodeTraceData(0, 0, {}, 8, nullptr, valid.data(), positions.data()), 0u);
  EXPECT_EQ(trace.DecodeTraceData(0, 0, {}, 8, data.data(), valid.data(), positions.data()), 4u);
  EXPECT_EQ(trace.stringData, std::string("abc", 4));
  foundry.decoder.seekFailure = [] { throw std::string("end of buffer"); };
  EXPECT_EQ(trace.DecodeTraceData(3, 0, {}, 8, data.data(), valid.data(), positions.data()), 0u);
  foundry.decoder.seekFailure = [] { throw CloudHLError("bad packet", CloudHLError::Error); };
  EXPECT_EQ(trace.DecodeTraceData(3, 0, {}, 8, data.data(), valid.data(), positions.data()), 0u);
}

TEST_F(CTRACETest, StopRecordingAnswersWithText) {
  CTRACE trace;
  EXPECT_EQ(trace.StopRecording(), "");
  trace.channelDriver = &foundry.driver;
  foundry.driver.answer = "already stopped";
  EXPECT_EQ(trace.StopRecording(), "already stopped");
  foundry.driver.failure = [] { throw CloudHLError("probe lost", CloudHLError::Error); };
  EXPECT_EQ(trace.StopRecording(), "probe lost");
  foundry.driver.failure = [] { throw 42; };
  EXPECT_EQ(trace.StopRecording(), "Unexpected exception");
}

}  // namespace
