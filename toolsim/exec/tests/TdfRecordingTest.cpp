#include "TdfRecording.hpp"

#include <gtest/gtest.h>

#include <tuple>

#include "EtmDecoder.hpp"
#include "ExecTestSupport.hpp"
#include "MtbDecoder.hpp"
#include "TestSupport.hpp"

namespace OstrandSim {
namespace {

struct Block {
  std::vector<uint8_t> data, valid;
  std::string strings;
  bool operator==(const Block&) const = default;
};

Block pack(const RowTable& t) {
  Block b;
  t.packBlock(0, t.rowCount(), b.data, b.valid, b.strings);
  return b;
}

TdfRecording recordingOf(const std::string& receiver) {
  TdfRecording r;
  r.receiverName = receiver;
  r.cpuName = "cortex_m4_0";
  r.cpuValues = {1, 2, 3, 4, 5, 6, 7};
  r.programFile = test::programPath(test::kBoards[1]);
  r.sourcePaths = "testdata/firmware/run";
  r.clockHz = 31250000.0;
  return r;
}

// A run saved as a recording and read back decodes to the rows it gave live,
// for both kinds of trace; the header carries what the module reads.
TEST(TdfRecordingTest, SavedRunDecodesToTheLiveRows) {
  const test::Board& board = test::kBoards[1];
  const ProgramImage image(test::programPath(board));
  MtbConfig mtbConfig;
  mtbConfig.bufferBytes = 2048;
  MtbEncoder mtb(mtbConfig);
  EtmEncoder etm(EtmConfig{});
  StepFanout both;
  both.add(mtb);
  both.add(etm);
  test::runBoard(board, 15000, both);

  const ostrand_test::TempDir tmp("tdf");
  const std::string& dir = tmp.path();
  TdfRecording m = recordingOf("MTB");
  m.mtb = mtb.snapshot();
  m.configuration = R"({"Buffer Size":"2048 Bytes","Hierarchical Decode":true})";
  TdfRecording e = recordingOf("ETB");
  e.etm = etm.snapshot();
  writeTdf(dir + "/mtb.tdf", m);
  writeTdf(dir + "/etm.tdf", e);

  const TdfRecording m2 = readTdf(dir + "/mtb.tdf");
  const TdfRecording e2 = readTdf(dir + "/etm.tdf");
  auto header = [](const TdfRecording& r) {
    return std::tie(r.receiverName, r.cpuName, r.cpuValues, r.programFile, r.sourcePaths, r.clockHz, r.configuration);
  };
  EXPECT_EQ(header(m2), header(m));
  const RowTable liveMtb = decodeMtb(*m.mtb, &image);
  ASSERT_GT(liveMtb.rowCount(), 100u);
  EXPECT_EQ(pack(decodeRecording(m2, image)), pack(liveMtb));
  const RowTable liveEtm = decodeEtm(*e.etm, image);
  ASSERT_GT(liveEtm.rowCount(), 1000u);
  EXPECT_EQ(pack(decodeRecording(e2, image)), pack(liveEtm));

  // Without hierarchical decode: run rows only.
  m.configuration = R"({"Hierarchical Decode":false})";
  writeTdf(dir + "/flat.tdf", m);
  const RowTable flat = decodeRecording(readTdf(dir + "/flat.tdf"), image);
  for (size_t r = 0; r < flat.rowCount(); ++r) EXPECT_TRUE(flat.has(r, 0));

  // Every cut of the file is refused with a message, never read wrongly.
  const std::string whole = ostrand_test::readFile(dir + "/mtb.tdf");
  for (size_t cut : {size_t{0}, size_t{3}, size_t{20}, size_t{90}, whole.size() - 1}) {
    EXPECT_THROW(readTdf(tmp.writeText("cut.tdf", whole.substr(0, cut))), std::runtime_error) << cut;
  }
  EXPECT_THROW(readTdf(tmp.writeText("other.tdf", "X" + whole.substr(1))), std::runtime_error);
}

// The row block: columns at their offsets, little-endian, a string as
// offset and length into the block's strings, valid bits per column.
TEST(RowTableTest, PacksTheRowBlockForm) {
  RowTable t({{kProgramAddress, 32, false}, {kTraceStatus, 48, true}, {"Flag", 1, false}});
  EXPECT_EQ(t.rowBytes(), 4u + 6u + 1u);
  const size_t a = t.addRow();
  t.set(a, 0, 0x12345678);
  t.setText(a, 1, "Stopped");
  const size_t b = t.addRow();
  t.set(b, 2, 1);
  std::vector<uint8_t> data, valid;
  std::string strings;
  ASSERT_EQ(t.packBlock(0, 10, data, valid, strings), 2u);
  const std::vector<uint8_t> expected = {0x78, 0x56, 0x34, 0x12, 0, 0, 0, 0, 7, 0, 0,
                                         0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 1};
  EXPECT_EQ(data, expected);
  EXPECT_EQ(valid, (std::vector<uint8_t>{0x03, 0x04}));
  EXPECT_EQ(strings, "Stopped");
}

}  // namespace
}  // namespace OstrandSim
