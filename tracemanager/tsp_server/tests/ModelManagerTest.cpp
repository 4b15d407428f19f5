#include "tsp_server/ModelManager.hpp"

#include <gtest/gtest.h>

#include "CaptureTree.hpp"
#include "experiments/VSKExperiment.hpp"
#include "experiments/VSKTrace.hpp"
#include "tsp_server/ExperimentKinds.hpp"

namespace VSKTspServer {
namespace {

using ostrand_test::CaptureTree;

// The names a live scan gives, and that a second scan of an unchanged tree
// opens nothing, are in the route transcript (TspRoutesTest).

TEST(ModelManagerTest, PlainNameFindsTheExperimentThroughItsFirstTrace) {
  CaptureTree tree;
  auto dir = tree.addLiveCapture("Probe/M4", "TDF");
  ModelManager manager(nullptr);
  VSKTrace* trace = manager.openTrace(dir.string(), "TDF", "");
  ASSERT_NE(trace, nullptr);
  EXPECT_EQ(trace->type, "TDF");
  EXPECT_EQ(manager.openTrace(dir.string(), "again", ""), trace);

  VSKExperiment* first = manager.openExperiment("my experiment", {trace->UUID});
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->name, "M4_TDF");  // named from the device, not the caller
  EXPECT_EQ(manager.openExperiment("my experiment", {trace->UUID}), first);
  EXPECT_EQ(manager.getExperiments().size(), 1u);
  manager.refreshExperiment("");  // no such experiment: ignored
}

// What a scan makes of one capture directory: the traces it keeps and the
// experiments it names.
TEST(ModelManagerTest, ScanOfOneOddCapture) {
  const struct {
    const char* what;
    const char* target;
    const char* type;
    nlohmann::json metadata;  // a string: the file's text as it is
    size_t traces;
    std::vector<std::string> experiments;
  } cases[] = {
      {"a device without a slash takes the scan root as stem",
       "M0",
       "MTB",
       {{"typeId", "MTB"}, {"device", "M0"}},
       1,
       {"_CoreTrace"}},
      {"metadata without a device keeps its trace but makes no experiment",
       "Probe/M4",
       "MTB",
       {{"typeId", "MTB"}},
       1,
       {}},
      {"unreadable metadata adds no trace", "Probe/M4", "MTB", "", 0, {}},
      {"an unknown kind makes no experiment", "Probe/M4", "NOPE", nullptr, 1, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    CaptureTree tree;
    if (c.metadata.is_string()) {
      CaptureTree::writeFile(tree.liveTargets() / c.target / c.type / "metadata",
                             c.metadata.get<std::string>());
    } else {
      tree.addLiveCapture(c.target, c.type, c.metadata);
    }
    ModelManager manager(nullptr);
    VSKExperiment* made = manager.openExperiment("LiveTarget", {});
    if (c.experiments.empty()) {
      EXPECT_EQ(made, nullptr);
    }
    EXPECT_EQ(manager.getTraceUUIDs().size(), c.traces);
    std::vector<std::string> names;
    for (auto* e : manager.getExperiments()) names.push_back(e->name);
    EXPECT_EQ(names, c.experiments);
  }
}

TEST(ModelManagerTest, PathEndingRightAfterLiveTargetScansTheWholeTree) {
  CaptureTree tree;
  ModelManager manager(nullptr);
  EXPECT_EQ(manager.openTrace("LiveTarget", "", ""), nullptr);  // empty tree
  tree.addLiveCapture("Probe/M4", "TDF");
  EXPECT_NE(manager.openTrace("LiveTarget", "", ""), nullptr);
  // A scan that finds nothing new adds no second trace.
  EXPECT_EQ(manager.openTrace("LiveTarget", "", ""), nullptr);
  EXPECT_EQ(manager.getTraceUUIDs().size(), 1u);
}

// A deleted experiment is closed, answered after it left the map, and gone
// (the route transcript, TspRoutesTest).

TEST(ModelManagerTest, ExportWritesTheMainTableOfAMatchingCapture) {
  CaptureTree tree;
  // A TDF capture lies in the file-target tree, which scans do not visit.
  const auto dir = tree.root() / ".QX-trace/data/file-targets/file/rec/TDF";
  CaptureTree::writeFile(dir / "metadata", VSKTspServer::samples::defaultMetadata("file/rec", "TDF").dump());
  CaptureTree::writeFile(dir / "tdf_data.json", VSKTspServer::samples::tdfDocument(2).dump());
  ModelManager manager(nullptr);
  const auto file = tree.root() / "out.csv";
  // No experiment yet: the export opens the capture itself.
  EXPECT_EQ(manager.exportCaptureToCSV("rec", "TDF", file.string()), 0);
  EXPECT_EQ(ostrand_test::readFile(file), "Time,Event\r\n0,\"a,b\"\r\n1,\r\n");
  ASSERT_NE(manager.getExperimentByName("rec_TDF"), nullptr);
  EXPECT_EQ(manager.exportCaptureToCSV("rec", "TDF", (tree.root() / "no/dir/x.csv").string()),
            -1);
}

// A power-capture kind plugged in from outside, as the layer that links it
// does. It records which export was asked for.
class RecordingExperiment : public VSKExperiment {
 public:
  using VSKExperiment::VSKExperiment;
  void refresh() override {}
  int exportCsv(std::string path, std::string outputName) override {
    exports.push_back(path);
    return 0;
  }
  std::vector<std::string> exports;
};

TEST(ModelManagerTest, RegisteredKindIsCreatedAndWattlineExportFindsItByName) {
  registerExperimentKind("WL", [](const std::string& name, DataBroker* broker) {
    return std::make_unique<RecordingExperiment>(name, broker);
  });
  CaptureTree tree;
  tree.addLiveCapture("Probe/Board", "WL");
  ModelManager manager(nullptr);
  manager.openExperiment("LiveTarget", {});
  auto* experiment = dynamic_cast<RecordingExperiment*>(manager.getExperimentByName("Board_WL"));
  ASSERT_NE(experiment, nullptr);
  // The trace type is "WL", so only the name fallback finds it.
  EXPECT_EQ(manager.exportCaptureToCSV("Probe/Board", "Wattline", "w.csv"), 0);
  EXPECT_EQ(experiment->exports, (std::vector<std::string>{"w.csv"}));
}

}  // namespace
}  // namespace VSKTspServer
