// The four outputs of power captures through a trace server in this process:
// a capture with state words and one without, found by the live scan as the
// capture side leaves them. The requests and the expected answers are in
// golden/routes.http and golden/routes.expected; the comments there say how
// the values follow from the samples written here.
#include <gtest/gtest.h>

#include "RouteTranscript.hpp"
#include "WLTestStreams.hpp"
#include "tsp_server/ExperimentKinds.hpp"
#include "wattline/WLExperimentKind.hpp"

namespace VSKTspServer {
namespace {

using ostrand_test::CaptureTree;
using ostrand_test::RunningServer;
using wltest::StreamBuilder;

constexpr int kRecords = 5000;

// Record i: time 1000 + 100 i us, current 1000 + i nA, 3000 mV, energy
// 50 units per record; word 0 alternates Run/Nap every 1000 records.
std::vector<uint8_t> stateStream() {
  StreamBuilder s(0x07, 2);
  for (uint32_t i = 0; i < kRecords; ++i)
    s.add({1000 + 100ull * i, {(i / 1000) % 2, 0}, 1000 + i, 3000, 50 * i});
  return s.bytes();
}

std::vector<uint8_t> plainStream() {
  StreamBuilder s(0x08, 0);
  for (uint32_t i = 0; i < 10; ++i) s.add({10ull * i, {}, 7, 1800, i});
  return s.bytes();
}

TEST(WLRoutesTest, TranscriptOfTheFourOutputs) {
  registerWattlineKinds(registerExperimentKind);
  CaptureTree tree;
  const auto withStates = tree.addLiveCapture("Probe/Board", "WL+");
  const std::vector<uint8_t> states = stateStream(), plain = plainStream();
  CaptureTree::writeFile(withStates / "WLData.bin", std::string(states.begin(), states.end()));
  // Mode PM on bit 0 of word 0: Run (0) or Nap (1).
  CaptureTree::writeFile(withStates / "metadataSup.json",
                         ostrand_test::readFile(wltest::sourceFile("run-nap-metadataSup.json")));
  CaptureTree::writeFile(tree.addLiveCapture("Probe/Plain", "WL") / "WLData.bin",
                         std::string(plain.begin(), plain.end()));
  RunningServer running;
  ASSERT_TRUE(running.server().isListening());
  running.server().refreshLive();
  ostrand_test::RouteTranscript transcript(running, tree);
  EXPECT_TRUE(transcript.run(wltest::sourceFile("routes")));
}

}  // namespace
}  // namespace VSKTspServer
