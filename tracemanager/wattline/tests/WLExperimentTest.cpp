// WLExperiment over capture directories on disk: which file it reads, the
// outputs it offers, refresh, export and close.
#include "wattline/WLExperiment.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "ExperimentFixture.hpp"
#include "WLTestStreams.hpp"
#include "wattline/WLStateDecoders.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;
using wltest::StreamBuilder;

std::vector<uint8_t> plainStream(int records, uint64_t firstTime = 100) {
  StreamBuilder s(0x08, 0);
  for (int i = 0; i < records; ++i) s.add({firstTime + 10 * uint64_t(i), {}, 5, 3000, uint32_t(i)});
  return s.bytes();
}

std::vector<uint8_t> stateStream(int records) {
  StreamBuilder s(0x07, 2);
  for (int i = 0; i < records; ++i) s.add({10 * uint64_t(i + 1), {uint32_t(i % 2), 0}, 5, 3000, 0});
  return s.bytes();
}

class WLExperimentTest : public ostrand_test::CaptureFixture<WLExperiment> {
 protected:
  WLExperimentTest() : CaptureFixture("Board_WL", "Wattline") {}
  void writeMetadata(const std::string& typeId, const std::string& dataFile = "unknown") {
    dir.writeText("metadata", json{{"typeId", typeId}, {"device", "Probe/Board"},
                                   {"dataFile", dataFile}}.dump());
  }
  std::map<std::string, std::string> outputNames(WLExperiment& e) {
    std::map<std::string, std::string> names;
    for (auto* p : e.getOutputs()) names[p->name] = p->id;
    return names;
  }
};

TEST_F(WLExperimentTest, UnknownOrMissingDataFileFallsBackToTheDefault) {
  dir.write("WLData.bin", plainStream(5));
  writeMetadata("WL");
  auto e = openExperiment();
  EXPECT_EQ(e->nbEvents, 5);
  EXPECT_EQ(e->start, 100);
  EXPECT_EQ(e->end, 140);
  EXPECT_EQ(e->indexingStatus, "COMPLETED");

  writeMetadata("WL", "gone.bin");
  EXPECT_EQ(openExperiment()->nbEvents, 5);

  dir.write("other.bin", plainStream(3));
  writeMetadata("WL", "other.bin");
  EXPECT_EQ(openExperiment()->nbEvents, 3);
}

TEST_F(WLExperimentTest, OutputsOfPlainAndStateStreams) {
  dir.write("WLData.bin", plainStream(5));
  writeMetadata("WL+");  // says state words, but the file's first byte says type 8
  auto plain = openExperiment();
  auto names = outputNames(*plain);
  EXPECT_EQ(names.size(), 3u);
  EXPECT_EQ(names.count("States"), 0u);
  EXPECT_EQ(plain->dataNode->recordType, 8u);

  dir.write("WLData.bin", stateStream(6));
  // Mode PM on bit 0 of word 0: Run (0) or Nap (1).
  dir.writeText("metadataSup.json",
                ostrand_test::readFile(wltest::sourceFile("run-nap-metadataSup.json")));
  auto states = openExperiment();
  ASSERT_EQ(outputNames(*states).count("States"), 1u);
  ASSERT_NE(states->dataNode->dsr, nullptr);
  EXPECT_EQ(states->dataNode->dsr->powerModes.size(), 2u);

  // A broken supplement is no error: no decoder, a state graph without rows.
  dir.writeText("metadataSup.json", "{not json");
  auto broken = openExperiment();
  EXPECT_EQ(broken->dataNode->dsr, nullptr);
  EXPECT_EQ(broken->indexingStatus, "COMPLETED");
}

TEST_F(WLExperimentTest, MissingFileAndBadInput) {
  writeMetadata("WL");
  auto e = openExperiment();
  EXPECT_EQ(e->indexingStatus, "COMPLETED");
  EXPECT_EQ(e->nbEvents, 0);
  EXPECT_EQ(e->outputs.size(), 3u);

  auto corrupt = plainStream(4);
  corrupt[18 * 2] = 0x07;
  dir.write("WLData.bin", corrupt);
  auto c = std::make_unique<WLExperiment>("x", &router);
  c->addTrace(VSKTrace("Wattline", dir.path(), ""));
  EXPECT_THROW(c->open(), std::runtime_error);
  EXPECT_EQ(c->indexingStatus, "RUNNING");

  dir.writeText("metadata", R"({"typeId":"WL","device":"d","dataFile":"unknown"})");
  auto t = std::make_unique<WLExperiment>("x", &router);
  t->addTrace(VSKTrace("Wattline", dir.path(), ""));
  dir.writeText("metadata", R"({"typeId":7,"device":"d"})");
  EXPECT_THROW(t->refresh(), json::type_error);
}

TEST_F(WLExperimentTest, RefreshSeesTheGrownFileThroughTheSameViews) {
  dir.write("WLData.bin", plainStream(5));
  writeMetadata("WL");
  auto e = openExperiment();
  auto* table = e->table.get();
  dir.write("WLData.bin", plainStream(9));
  e->refresh();
  EXPECT_EQ(e->nbEvents, 9);
  EXPECT_EQ(e->end, 180);
  EXPECT_EQ(e->table.get(), table);
  EXPECT_EQ(table->getLines(ostrand_test::tableWindow(0, 100)).model.lines.size(), 9u);

  // Without traces a refresh touches nothing.
  WLExperiment empty("none", &router);
  EXPECT_NO_THROW(empty.refresh());
  EXPECT_TRUE(empty.traceFiles.empty());
  EXPECT_EQ(empty.indexingStatus, "");
}

TEST_F(WLExperimentTest, ExportAndClose) {
  dir.write("WLData.bin", plainStream(5));
  writeMetadata("WL");
  auto e = openExperiment();
  EXPECT_EQ(e->exportCsv("", ""), 0);
  EXPECT_TRUE(std::filesystem::exists(dir.path() + "/Records.csv"));
  EXPECT_EQ(e->exportCsv(dir.path() + "/current.csv", "Current"), -1);
  EXPECT_FALSE(std::filesystem::exists(dir.path() + "/current.csv"));
  EXPECT_EQ(e->exportCsv(dir.path() + "/s.csv", "Summary"), 0);
  EXPECT_EQ(e->exportCsv("", "Summary"), -1);

  e->close();
  EXPECT_EQ(e->indexingStatus, "CLOSED");
  EXPECT_TRUE(e->outputs.empty());
  EXPECT_EQ(e->dataNode, nullptr);
  e->close();
  EXPECT_EQ(e->indexingStatus, "CLOSED");
  EXPECT_EQ(e->exportCsv("", ""), -1);
}

}  // namespace
}  // namespace VSKTspServer
