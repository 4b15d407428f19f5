// The protocol routes against a server in this process over a sample data
// tree (one MTB and one TDF capture of the same target), as a transcript of
// requests and answers: golden/routes.http and golden/routes.expected.
#include <gtest/gtest.h>

#include "RouteTranscript.hpp"

namespace {

using ostrand_test::CaptureTree;

TEST(TspRoutesTest, TranscriptOfEveryRoute) {
  CaptureTree tree;
  auto mtb = tree.addLiveCapture("Probe/Cortex_M4_0", "MTB");
  CaptureTree::writeFile(mtb / "mtb_data.json", VSKTspServer::samples::mtbDocument(3, 4).dump());
  auto tdf = tree.addLiveCapture("Probe/Cortex_M4_0", "TDF");
  CaptureTree::writeFile(tdf / "tdf_data.json", VSKTspServer::samples::tdfDocument(5).dump());
  ostrand_test::RunningServer running;
  ASSERT_TRUE(running.server().isListening());
  running.server().refreshLive();
  ostrand_test::RouteTranscript transcript(running, tree);
  EXPECT_TRUE(transcript.run(ostrand_test::sourcePath("tracemanager/tsp_server/tests/golden/routes")));
}

}  // namespace
