// The three table readers on rows that an in-test decoder serves through the
// real row-block format, with the test firmware's symbols and disassembly
// from the host kit. Documents are compared with golden files
// (OSTRAND_UPDATE_GOLDEN=1 rewrites them); the symbol answers they hold are
// those host/tests/AgreementTest checks against the GNU binutils.
#include <gtest/gtest.h>

#include <filesystem>

#include "FakeDecoderLibrary.hpp"
#include "HostKitApis.hpp"
#include "TestSupport.hpp"
#include "tool_access/CTRACE.hpp"
#include "tool_access/InstructionTraceDecoder.hpp"
#include "tool_access/TdfTableReader.hpp"

namespace {

using namespace Qx::Nlv::Trace;
using fake::Column;
using fake::Row;
const std::string kFirmware = OSTRAND_SOURCE_DIR "/testdata/firmware/m0plus.elf";

class TraceTableReaderTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The firmware's debug information names its sources relative to the
    // repository root.
    std::filesystem::current_path(OSTRAND_SOURCE_DIR);
    ostrand_test::HostKitApis::install();
  }
  static void TearDownTestSuite() { ostrand_test::HostKitApis::uninstall(); }

  void SetUp() override { trace.decoder = &decoder; }
  void TearDown() override { trace.decoder = nullptr; }

  void withProgram() {
    record.objectInfo = ObjectFileInfo::create(kFirmware);
    ASSERT_TRUE(record.objectInfo);
    record.disassembler = std::make_shared<CloudDisasm>(record.objectInfo, 0x75803800);
  }

  static std::string golden(const std::string& name) {
    return ostrand_test::sourcePath("tracemanager/tool_access/tests/golden/" + name);
  }
  static void expectGolden(const Json::Value& document, const std::string& name) {
    EXPECT_TRUE(ostrand_test::matchesGolden(document.toStyledString(), golden(name)));
  }
  static Json::Value json(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
    return value;
  }

  fake::Decoder decoder;
  CTRACE trace;
  CloudOperation record;
  TraceLookupCaches caches;
  std::string lastError;
  TraceReadContext context{record, &trace, caches, lastError};
};

// Every format by every size, string cells (the status column in lower
// case, NUL-ended and out-of-range references), and the symbol columns.
TEST_F(TraceTableReaderTest, TdfTableGolden) {
  decoder.columns = {{"Program Address", 32},
                     {"Trace Status", 48, true},
                     {"Message", 48, true},
                     {"Byte", 8},
                     {"Half", 16},
                     {"Triple", 24},
                     {"Wide", 64}};
  decoder.rows = {
      {{"Program Address", uint64_t{0xE6}},
       {"Trace Status", std::string("RUNNING Ok")},
       {"Message", std::string("Keep CASE")},
       {"Byte", uint64_t{7}},
       {"Half", uint64_t{0xBEEF}},
       {"Triple", uint64_t{0x123456}},
       {"Wide", uint64_t{0x0123456789ABCDEF}}},
      {{"Program Address", uint64_t{0x142}}, {"Message", std::string("cut\0here", 8)}},
      {{"Byte", uint64_t{255}}, {"Message", std::string()}},
  };
  withProgram();
  Json::Value data;
  ASSERT_EQ(readTdfTable(context, data, nullptr), 0);
  expectGolden(data, "tdf_table.json");
  EXPECT_EQ(data["Rows"][0][7].asString(), "main");
  EXPECT_EQ(data["Rows"][1][7].asString(), "sensor_record");
}

TEST_F(TraceTableReaderTest, TdfAddressAboveSignedRangeEndsTheTable) {
  decoder.columns = {{"Program Address", 32}};
  decoder.rows = {{{"Program Address", uint64_t{0x80000000}}}};
  Json::Value data;
  EXPECT_THROW(readTdfTable(context, data, nullptr), std::out_of_range);
}

TEST_F(TraceTableReaderTest, TdfWithoutProgramColumnHasNoSymbolColumns) {
  decoder.columns = {{"Value", 16}};
  Json::Value data;
  ASSERT_EQ(readTdfTable(context, data, [] { FAIL() << "no program to look for"; }), 0);
  EXPECT_EQ(data["Columns"].size(), 1u);
  EXPECT_TRUE(data["Rows"].isArray());
  EXPECT_EQ(data["Rows"].size(), 0u);
  EXPECT_TRUE(record.done);
}

// Every transform, the unsigned format, and a 6-byte column read as a
// 48-bit number.
TEST_F(TraceTableReaderTest, TransformsGolden) {
  decoder.columns = {{"Zero", 8}, {"Program Address", 32}, {"Stamp", 48}, {"Count", 64}};
  decoder.rows = {{{"Zero", uint64_t{9}},
                   {"Program Address", uint64_t{0xE6}},
                   {"Stamp", uint64_t{0x0000123456789A}},
                   {"Count", uint64_t{1} << 63}},
                  {{"Zero", uint64_t{9}}, {"Program Address", uint64_t{0x142}}},
                  {{"Program Address", uint64_t{0x10000000}}}};
  trace.clockHz = 1000000;
  withProgram();
  // The columns asked for: each transform, both number formats, and a
  // column the table does not have.
  const Json::Value asked = json(ostrand_test::readFile(golden("transforms_columns.json")));
  ASSERT_EQ(readTraceColumnNames(record, trace, lastError), 0);
  ASSERT_EQ(setupColumnProcessing(record, asked, lastError), 0);
  ASSERT_EQ(fetchTraceData(context), 0);
  Json::Value rows;
  ASSERT_EQ(getReducedGraphData(context, rows), 0);
  expectGolden(rows, "transforms.json");
  EXPECT_EQ(rows[0][0], 0.0) << "column 0 gives the value 0 to a transform";
  EXPECT_DOUBLE_EQ(rows[0][8].asDouble(), 0x123456789AULL * 1000.0 / 1e6);
}

TEST_F(TraceTableReaderTest, ProcessingErrorsKeepTheEarlierSetup) {
  const Json::Value good = json(R"([{"name":"a","index":0,"format":"hex"}])");
  ASSERT_EQ(setupColumnProcessing(record, good, lastError), 0);
  EXPECT_EQ(setupColumnProcessing(record, Json::Value("x"), lastError), -3);
  EXPECT_EQ(lastError, "Column info parameter is not a JSON array");
  const Json::Value badFormat = json(R"([{"name":"a","index":0,"format":"octal"}])");
  EXPECT_EQ(setupColumnProcessing(record, badFormat, lastError), -4);
  EXPECT_EQ(lastError, "Illegal format specified 'octal'");
  const Json::Value badTransform = json(R"([{"index":0,"format":"hex","transform":{"type":"x"}}])");
  EXPECT_EQ(setupColumnProcessing(record, badTransform, lastError), -4);
  EXPECT_EQ(lastError, "Illegal transform specified 'x'");
  EXPECT_EQ(record.columnProcessing->names, std::vector<std::string>{"a"});
  EXPECT_EQ(setupColumnProcessing(record, Json::Value(Json::arrayValue), lastError), 0);
  EXPECT_EQ(record.columnProcessing->count, 0u);

  Json::Value rows = "untouched";
  EXPECT_EQ(getReducedGraphData(context, rows), -3);
  EXPECT_EQ(rows, "untouched");
  EXPECT_EQ(readRows(context), -1);
  EXPECT_EQ(lastError, "Missing column information");
}

// Blocks of 32768: a short read ends the table, and an exactly full table
// needs one more, empty, read.
class ChunkTest : public TraceTableReaderTest,
                  public ::testing::WithParamInterface<std::pair<uint32_t, size_t>> {};

TEST_P(ChunkTest, RowsAndChunks) {
  const auto [rowCount, chunkCount] = GetParam();
  decoder.columns = {{"Value", 32}};
  for (uint32_t i = 0; i < rowCount; ++i) decoder.rows.push_back({{"Value", uint64_t{i}}});
  Json::Value data;
  ASSERT_EQ(readTdfTable(context, data, nullptr), 0);
  ASSERT_EQ(data["Rows"].size(), rowCount);
  EXPECT_EQ(record.chunks.size(), chunkCount);
  EXPECT_EQ(decoder.reads, static_cast<int>(rowCount / 32768 + 1));
  if (rowCount > 0) {
    EXPECT_EQ(data["Rows"][rowCount - 1][0].asString(), hex8(rowCount - 1));
  }
  EXPECT_EQ(fetchTraceData(context), 0);
  EXPECT_EQ(decoder.reads, static_cast<int>(rowCount / 32768 + 1)) << "read only once";
}

INSTANTIATE_TEST_SUITE_P(Sizes, ChunkTest,
                         ::testing::Values(std::pair<uint32_t, size_t>{0, 0},
                                           std::pair<uint32_t, size_t>{32768, 1},
                                           std::pair<uint32_t, size_t>{40000, 2}));

const std::vector<Column> kInstructionColumns = {{"Read Address", 32},
                                                 {"Write Address", 32},
                                                 {"Program Address", 32},
                                                 {"Program Data", 16},
                                                 {"Cycles", 32}};

Row run(uint64_t from, uint64_t to) { return {{"Read Address", from}, {"Write Address", to}}; }
Row instruction(uint64_t address, uint64_t opcode) {
  return {{"Program Address", address}, {"Program Data", opcode}, {"Cycles", uint64_t{3}}};
}

// Instruction rows before the first run, a plain run, both ends blocked, a
// blocked start, a blocked end, a run with one address, and an opcode
// without an address.
std::vector<Row> branchTrace() {
  return {instruction(0xE4, 0xB570),           run(0xE4, 0xEA),
          instruction(0xE6, 0x4B11),           instruction(0xE8, 0x4A11),
          instruction(0xEA, 0x601A),           run(kSecureAddress, kSecureAddress),
          run(kSecureAddress, 0x142),          run(0x140, kSecureAddress),
          {{"Read Address", uint64_t{0x1A0}}}, {{"Program Data", uint64_t{0xBF00}}}};
}

// The branch trace in each form: without symbols (the instruction rows
// then show their opcodes), with them, and compact.
TEST_F(TraceTableReaderTest, MtbBranchTraceGolden) {
  decoder.columns = kInstructionColumns;
  decoder.rows = branchTrace();
  const struct {
    const char* golden;
    bool compact, symbols;
  } modes[] = {{"mtb_opcodes.json", false, false},
               {"mtb_data.json", false, true},
               {"mtb_compact.json", true, true}};
  for (const auto& m : modes) {
    SCOPED_TRACE(m.golden);
    if (m.symbols && !record.objectInfo) withProgram();
    uint32_t count = 0;
    Json::Value data;
    ASSERT_EQ(decodeMTBTrace(context, count, data, m.compact), 0);
    EXPECT_EQ(count, 5u);
    expectGolden(data, m.golden);
    EXPECT_EQ(data["code"][1][0]["asm"], "Dst Address (Branch To)");
    EXPECT_EQ(data["code"][1][1]["asm"], "Src Address (Branch From)");
    EXPECT_EQ(data["code"][1].size(), 2u);
  }
}

TEST_F(TraceTableReaderTest, EtbRecordsGolden) {
  decoder.columns = kInstructionColumns;
  decoder.rows = branchTrace();
  withProgram();
  VSKTspServer::EtbRecordStore store;
  store.append(VSKTspServer::EtbRecordStore::Record{{"stale", "record"}});
  uint32_t count = 0;
  Json::Value data;
  ASSERT_EQ(decodeETBTrace(context, count, data, store), 0);
  EXPECT_EQ(count, 5u);
  Json::Value document;
  document["data"] = data;
  for (const auto& record : store.snapshot()) {
    Json::Value& entry = document["records"].append(Json::Value(Json::objectValue));
    for (const auto& [key, value] : record) entry[key] = value;
  }
  expectGolden(document, "etb_data.json");
  EXPECT_EQ(data["data"][1]["first"], "FFFFBAD1") << "no secure form in instruction trace";
}

TEST(InstructionText, FromTheFirstRunOfFourBlanks) {
  EXPECT_EQ(mtbInstructionText("000000E4 B570    push {r4, r5, r6, lr}"),
            "    push {r4, r5, r6, lr}");
  EXPECT_EQ(mtbInstructionText(".word 0x20000000"), ".word 0x20000000") << "kept whole";
}

TEST(ColumnValue, SixBytesAreA48BitNumber) {
  const uint8_t bytes[8] = {0x9A, 0x78, 0x56, 0x34, 0x12, 0x00, 0xFF, 0xFF};
  EXPECT_EQ(RowView::readColumnValue(bytes, 6), 0x123456789AULL);
  EXPECT_EQ(RowView::readColumnValue(bytes, 3), 0u);
  EXPECT_EQ(hexBySize(0x123456, 3), "Illegal width");
}

}  // namespace
