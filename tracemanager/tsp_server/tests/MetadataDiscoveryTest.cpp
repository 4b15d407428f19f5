#include "tsp_server/MetadataDiscovery.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "CaptureTree.hpp"
#include "tsp_server/ModelManager.hpp"

namespace VSKTspServer {
namespace {

using ostrand_test::CaptureTree;

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// The paths found are below the user's home (USERPROFILE), where the test's
// temporary home puts them.
TEST(MetadataDiscoveryTest, FindsOnlyFilesNamedMetadataOutsideHiddenEntries) {
  CaptureTree tree;
  const auto live = tree.liveTargets();
  tree.addLiveCapture("Probe/M4", "MTB");
  // Nested capture below another capture directory is found too.
  CaptureTree::writeFile(live / "Probe/M4/MTB/inner/metadata", "{}");
  CaptureTree::writeFile(live / "Probe/M4/.hidden/metadata", "{}");
  CaptureTree::writeFile(live / "Probe/M4/ETB/.metadata", "{}");
  CaptureTree::writeFile(live / "Probe/M4/ETB/metadata.json", "{}");

  ModelManager manager(nullptr);
  EXPECT_EQ(sorted(manager.findMetadataFiles("")),
            sorted({(live / "Probe/M4/MTB/metadata").string(),
                    (live / "Probe/M4/MTB/inner/metadata").string()}));
  // What `ostrand serve` reports walks by the same rules.
  EXPECT_EQ(sorted(metadataFilesBelow(live.string())), sorted(manager.findMetadataFiles("")));
}

// An empty tree gives nothing; a root is split on slashes and empty pieces
// drop out.
TEST(MetadataDiscoveryTest, RootIsSplitOnSlashesAndEmptyPiecesDropOut) {
  CaptureTree tree;
  ModelManager manager(nullptr);
  EXPECT_TRUE(manager.findMetadataFiles("").empty());
  tree.addLiveCapture("a/b", "MTB");
  tree.addLiveCapture("c/d", "TDF");
  EXPECT_EQ(manager.findMetadataFiles("a//b"),
            std::vector<std::string>{(tree.liveTargets() / "a/b/MTB/metadata").string()});
  EXPECT_EQ(manager.findMetadataFiles("").size(), 2u);
  EXPECT_TRUE(manager.findMetadataFiles("no/such/target").empty());
}

}  // namespace
}  // namespace VSKTspServer
