// `ostrand gen` is checked by reading what it writes with the experiments
// that serve it: a sample that the server cannot read is a broken sample.
#include <gtest/gtest.h>

#include <filesystem>

#include "TestSupport.hpp"
#include "experiments/DataBrokerRouter.hpp"
#include "experiments/MTBExperiment.hpp"
#include "experiments/TDFExperiment.hpp"
#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"
#include "wattline/WLExperiment.hpp"
#include "wattline/WLStateDecoders.hpp"

namespace {

namespace fs = std::filesystem;
using namespace VSKTspServer;

class GenCommand : public ::testing::Test {
 protected:
  int gen(std::vector<std::string> args) {
    args.insert(args.begin(), "gen");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    return ostrand::runGen(static_cast<int>(argv.size()), argv.data());
  }
  fs::path live(const std::string& rest) const {
    return root / ".QX-trace/data/live-targets" / rest;
  }

  ostrand_test::TempDir dir{"ostrand-gen"};
  const fs::path root = dir.path();
  DataBrokerRouter router;
};

TEST_F(GenCommand, MtbCaptureServesEveryInstructionInOrder) {
  ASSERT_EQ(gen({"mtb", "--data", root.string(), "--size", "5000", "--seed", "3"}), 0);
  const fs::path dir = live("Probe/Cortex_M4_0/MTB");
  VSKTrace trace("MTB", dir.string(), "");
  EXPECT_EQ(trace.type, "MTB");
  EXPECT_EQ(trace.metadata.at("device"), "Probe/Cortex_M4_0");
  EXPECT_EQ(trace.metadata.at("source"), "VSK Vireo");

  MTBExperiment experiment("Cortex_M4_0_CoreTrace", &router);
  experiment.addTrace(trace);
  experiment.open();
  experiment.refresh();
  TableLinesRequest all;
  all.requested_table_count = 0x7fffffff;
  auto lines = experiment.discontinuityTable->getLines(all);
  ASSERT_EQ(lines.model.size, 5000);
  int marks = 0;
  bool blocked = false;
  for (size_t k = 0; k < lines.model.lines.size(); ++k) {
    const auto& cells = lines.model.lines[k].cells;
    ASSERT_EQ(cells[0].content, std::to_string(k));  // seq runs without gaps
    if (cells[1].content == "=>") ++marks;
    if (cells[2].content == "SECURE, BLOCKED") blocked = true;
  }
  EXPECT_GT(marks, 100);
  EXPECT_TRUE(blocked);
  const auto& runs = experiment.data.at("data");
  EXPECT_EQ(runs.size(), experiment.data.at("code").size());
  EXPECT_EQ(runs[0].at("first"), "");  // the start of a trace has no source
}

TEST_F(GenCommand, SameSeedSameBytesOtherSeedOtherData) {
  std::vector<std::string> documents;
  for (const char* seed : {"1", "1", "9"}) {
    ASSERT_EQ(
        gen({"mtb", "--data", root.string(), "--size", "300", "--target", "a/b", "--seed", seed}),
        0);
    documents.push_back(ostrand_test::readFile(live("a/b/MTB/mtb_data.json")));
  }
  EXPECT_EQ(documents[1], documents[0]);
  EXPECT_NE(documents[2], documents[0]);
}

TEST_F(GenCommand, TdfCaptureReadsAsATable) {
  ASSERT_EQ(gen({"tdf-table", "--data", root.string(), "--size", "250"}), 0);
  const fs::path dir = root / ".QX-trace/data/file-targets/file/recording/TDF";
  TDFExperiment experiment("recording_TDF", &router);
  experiment.addTrace(VSKTrace("TDF", dir.string(), ""));
  experiment.open();
  TableLinesRequest page;
  page.requested_table_index = 240;
  page.requested_table_count = 100;
  auto lines = experiment.table->getLines(page);
  EXPECT_EQ(lines.model.size, 250);
  ASSERT_EQ(lines.model.lines.size(), 10u);
  EXPECT_EQ(lines.model.lines[9].cells[0].content, "249");
  EXPECT_EQ(experiment.table->getColumns("").model.size(), 8u);

  ASSERT_EQ(gen({"tdf-table", "--data", root.string(), "--size", "5", "--tree", "live"}), 0);
  EXPECT_TRUE(fs::exists(live("file/recording/TDF/tdf_data.json")));
}

TEST_F(GenCommand, PlaceholdersHaveMetadataOnly) {
  ASSERT_EQ(gen({"placeholder", "--data", root.string(), "--target", "Board/core0"}), 0);
  for (const char* kind : {"MTB", "ETB"}) {
    const fs::path dir = live(std::string("Board/core0/") + kind);
    EXPECT_TRUE(fs::exists(dir / "metadata")) << kind;
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1) << kind;
  }
  // The server copes with the missing data file: an empty table.
  MTBExperiment experiment("core0_CoreTrace", &router);
  experiment.addTrace(VSKTrace("", live("Board/core0/MTB").string(), ""));
  experiment.open();
  experiment.refresh();
  EXPECT_EQ(experiment.discontinuityTable->lineCount(), 0u);
}

TEST_F(GenCommand, AllWritesEveryKind) {
  ASSERT_EQ(gen({"all", "--data", root.string(), "--size", "50"}), 0);
  EXPECT_TRUE(fs::exists(live("Probe/Cortex_M4_0/MTB/mtb_data.json")));
  EXPECT_TRUE(fs::exists(live("Probe/Cortex_M0_1/ETB/metadata")));
  EXPECT_TRUE(fs::exists(root / ".QX-trace/data/file-targets/file/recording/TDF/tdf_data.json"));
  // One power capture of each kind, each read back by the experiment that
  // serves it: plain records, and state words under versions 2, 2 with
  // enumerated modes, 4 and 5.
  const struct {
    const char* device;
    uint32_t recordType;
    int version;  // 0: no decoder
    size_t outputs;
  } captures[] = {{"wl_plain", 8, 0, 3}, {"wl_v2", 7, 2, 4}, {"wl_v2_enums", 7, 2, 4},
                  {"wl_v4", 7, 4, 4},    {"wl_v5", 7, 5, 4}};
  for (const auto& c : captures) {
    SCOPED_TRACE(c.device);
    const fs::path dir = live(std::string("sim/") + c.device + "/Wattline");
    WLExperiment experiment("wl", &router);
    experiment.addTrace(VSKTrace("Wattline", dir.string(), ""));
    experiment.open();
    EXPECT_EQ(experiment.nbEvents, 50);
    EXPECT_EQ(experiment.dataNode->recordType, c.recordType);
    EXPECT_EQ(experiment.outputs.size(), c.outputs);
    EXPECT_EQ(experiment.dataNode->dsr != nullptr, c.version != 0);
    if (c.version != 0) {
      EXPECT_EQ(experiment.supplement["JState"]["version"], c.version);
      EXPECT_FALSE(experiment.dataNode->dsr->powerModes.empty());
    }
  }
}

// The messages and exit codes of bad command lines are in the program's
// transcript; here, that they write nothing and that no target leaves --data.
TEST_F(GenCommand, BadCommandLinesWriteNothingAndAFileAsDataFails) {
  const std::string data = root.string();
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"wav", "--data", data},
           {"mtb", "--data", data, "--size", "-5"},
           {"mtb", "tdf", "--data", data},
           {"all", "--data", data, "--target", "x"},
           {"mtb", "--data", data, "--target", "../../../../escaped"},
           {"wattline", "--data", data, "--target", "a/./../../../../escaped"}})
    EXPECT_EQ(gen(args), ostrand::kExitUsage) << args[0] << " " << args.back();
  EXPECT_EQ(gen({"--help"}), ostrand::kExitOk);
  EXPECT_FALSE(fs::exists(root / ".QX-trace"));
  EXPECT_FALSE(fs::exists(root.parent_path() / "escaped"));
  // A --data that is a file fails as an error of the run, not of the line.
  EXPECT_EQ(gen({"mtb", "--data", dir.writeText("plain-file", "x"), "--size", "10"}), ostrand::kExitFailure);
}

}  // namespace
