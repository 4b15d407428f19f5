// `ostrand gen` is checked by reading what it writes with the experiments
// that serve it: a sample that the server cannot read is a broken sample.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

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
  void SetUp() override {
    std::random_device random;
    root = fs::temp_directory_path() / ("ostrand-gen-" + std::to_string(random()));
    fs::create_directories(root);
  }
  void TearDown() override { fs::remove_all(root); }

  int gen(std::vector<std::string> args) {
    args.insert(args.begin(), "gen");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    return ostrand::runGen(static_cast<int>(argv.size()), argv.data());
  }
  fs::path live(const std::string& rest) const {
    return root / ".QX-trace/data/live-targets" / rest;
  }
  static std::string read(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  fs::path root;
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
  ASSERT_EQ(gen({"mtb", "--data", root.string(), "--size", "300", "--target", "a/b"}), 0);
  const std::string first = read(live("a/b/MTB/mtb_data.json"));
  ASSERT_EQ(gen({"mtb", "--data", root.string(), "--size", "300", "--target", "a/b"}), 0);
  EXPECT_EQ(read(live("a/b/MTB/mtb_data.json")), first);
  ASSERT_EQ(gen({"mtb", "--data", root.string(), "--size", "300", "--target", "a/b", "--seed",
                 "9"}),
            0);
  EXPECT_NE(read(live("a/b/MTB/mtb_data.json")), first);
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

TEST_F(GenCommand, BadCommandLinesAreUsageErrors) {
  const std::string data = root.string();
  EXPECT_EQ(gen({}), ostrand::kExitUsage);
  EXPECT_EQ(gen({"wav", "--data", data}), ostrand::kExitUsage);
  EXPECT_EQ(gen({"mtb", "--data", data, "--size", "0"}), ostrand::kExitUsage);
  EXPECT_EQ(gen({"mtb", "--data", data, "--size", "-5"}), ostrand::kExitUsage);
  EXPECT_EQ(gen({"mtb", "--data", data, "--size", "12x"}), ostrand::kExitUsage);
  EXPECT_EQ(gen({"mtb", "--data", data, "--seed"}), ostrand::kExitUsage);
  EXPECT_EQ(gen({"mtb", "tdf", "--data", data}), ostrand::kExitUsage);
  EXPECT_EQ(gen({"all", "--data", data, "--target", "x"}), ostrand::kExitUsage);
  EXPECT_EQ(gen({"tdf-table", "--data", data, "--tree", "both"}), ostrand::kExitUsage);
  // Targets name levels below the data tree; ".." would write outside --data.
  EXPECT_EQ(gen({"mtb", "--data", data, "--target", "../../../../escaped"}), ostrand::kExitUsage);
  EXPECT_EQ(gen({"wattline", "--data", data, "--target", "a/./../../../../escaped"}),
            ostrand::kExitUsage);
  EXPECT_EQ(gen({"--help"}), ostrand::kExitOk);
  EXPECT_FALSE(fs::exists(root / ".QX-trace"));
  EXPECT_FALSE(fs::exists(root.parent_path() / "escaped"));
}

TEST_F(GenCommand, UnwritableDataDirectoryFails) {
  const fs::path file = root / "plain-file";
  std::ofstream(file) << "x";
  EXPECT_EQ(gen({"mtb", "--data", file.string(), "--size", "10"}), ostrand::kExitFailure);
}

}  // namespace
