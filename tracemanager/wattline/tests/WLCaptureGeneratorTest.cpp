#include "wattline/generator/WLCaptureGenerator.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "WLTestStreams.hpp"
#include "wattline/WLDataNode.hpp"
#include "wattline/WLStateDecoders.hpp"
#include "wattline/WLStateGraph.hpp"

using namespace VSKTspServer;
using nlohmann::json;

namespace {

// A generated capture, decoded as an experiment would decode it.
struct Generated {
  wltest::TempDir dir;
  WLGeneratorResult result;
  json metadata, sup;
  WLDataNode node;

  explicit Generated(WLGeneratorOptions options) {
    result = writeCaptureDirectory(dir.path(), options);
    metadata = json::parse(ostrand_test::readFile(dir / "metadata"));
    sup = json::parse(ostrand_test::readFile(dir / "metadataSup.json"));
    if (sup.contains("JState")) {
      node.dsr = makeStateDecoder(node, sup["JState"]["version"].get<int>());
      node.dsr->initDefaults();
      node.dsr->loadBitFields(sup["JState"]);
    }
    EXPECT_TRUE(node.readFile(dir.path(), "WLData.bin"));
    node.decode();
    node.evaluateStates();
  }
  size_t mode(const std::string& name) const {
    const auto& modes = node.dsr->powerModes;
    auto it = std::find_if(modes.begin(), modes.end(), [&](const auto& f) { return f.name == name; });
    EXPECT_NE(it, modes.end()) << name;
    return static_cast<size_t>(it - modes.begin());
  }
  // Records during which a mode is on, from the decoder's change lists.
  std::vector<uint64_t> recordsIn(size_t k) const {
    std::vector<uint64_t> out;
    const auto& changes = node.dsr->modeChanges[k];
    const auto& bits = node.dsr->modeBits[k];
    for (size_t i = 0; i < changes.size(); ++i) {
      const uint64_t end = i + 1 < changes.size() ? changes[i + 1] : node.recordCount;
      if (bits[i]) {
        for (uint64_t r = changes[i]; r < end; ++r) out.push_back(r);
      }
    }
    return out;
  }
  double meanCurrent(const std::vector<uint64_t>& records) const {
    double sum = 0;
    for (uint64_t r : records) sum += node.currents[r];
    return records.empty() ? 0.0 : sum / static_cast<double>(records.size());
  }
};

WLGeneratorOptions options(uint32_t type, WLStateLayout layout, double seconds = 2.0,
                           uint32_t rate = 20000) {
  WLGeneratorOptions o;
  o.recordType = type;
  o.layout = layout;
  o.durationSeconds = seconds;
  o.sampleRate = rate;
  o.seed = 7;
  o.wrapEnergy = true;  // these captures test the wrap; a default capture has none
  return o;
}

// The counter wraps once when asked to, and a default capture has no wrap.
TEST(WLCaptureGenerator, EnergyIntegratesPowerAndWrapsOnlyWhenAsked) {
  WLGeneratorOptions plain;
  plain.durationSeconds = 0.5;
  EXPECT_EQ(Generated(plain).result.energyWraps, 0u);
  Generated g(options(8, WLStateLayout::kNone));
  const WLDataNode& n = g.node;
  ASSERT_EQ(n.recordCount, 40000u);
  EXPECT_EQ(g.result.energyWraps, 1u);
  EXPECT_EQ(g.metadata["typeId"], "WL");
  EXPECT_EQ(g.metadata["dataFile"], "unknown");
  EXPECT_EQ(g.sup, json::object());
  EXPECT_EQ(n.currents[0], 0u);  // the unsettled first sample
  double integral = 0.0;         // 0.1 uJ from the columns' own V * I * dt
  uint64_t counted = 0;          // counter steps with the wrap undone
  int wraps = 0;
  for (uint64_t i = 1; i < n.recordCount; ++i) {
    ASSERT_EQ(n.times[i] - n.times[i - 1], 50u);
    integral += n.voltages[i] / 1000.0 * n.currents[i] * 1e-9 * 50e-6 * 1e7;
    const uint32_t step = n.energies[i] - n.energies[i - 1];  // modulo 2^32
    wraps += n.energies[i] < n.energies[i - 1];
    counted += step;
  }
  EXPECT_EQ(wraps, 1);
  EXPECT_NEAR(static_cast<double>(counted), integral, integral * 0.01 + 5);
}

TEST(WLCaptureGenerator, Version4StatesFollowTheFirmware) {
  Generated g(options(7, WLStateLayout::kV4));
  ASSERT_NE(g.node.dsr, nullptr);
  EXPECT_EQ(g.metadata["typeId"], "WL+");
  EXPECT_EQ(g.node.stateWordCount, 2);
  const auto active = g.recordsIn(g.mode("CPU.Active"));
  const auto deep = g.recordsIn(g.mode("CPU.DeepSleep"));
  const auto tx = g.recordsIn(g.mode("RF.Tx"));
  ASSERT_FALSE(active.empty());
  ASSERT_FALSE(tx.empty());
  // Mostly asleep; awake a few percent of the time.
  EXPECT_GT(deep.size(), g.node.recordCount * 8 / 10);
  EXPECT_LT(active.size(), g.node.recordCount / 10);
  EXPECT_GT(g.meanCurrent(active), 50 * g.meanCurrent(deep));
  EXPECT_GT(g.meanCurrent(tx), g.meanCurrent(active));
  // The processor's and the radio's histories are kept apart.
  EXPECT_GT(g.node.dsr->stateHistory.at("CPU").size(), 40u);
  EXPECT_GT(g.node.dsr->stateHistory.at("RF").size(), 10u);
  // The program counter moves while awake and rests on one place asleep.
  std::set<uint32_t> pcs(g.node.dsr->pcValues.begin(), g.node.dsr->pcValues.end());
  EXPECT_GT(pcs.size(), 50u);
  EXPECT_TRUE(pcs.count(0x000005A4));
  EXPECT_LT(g.node.dsr->pcValues.size(), active.size() + 200);
  bool rtcInterrupt = false;
  for (size_t k = 0; k < g.node.dsr->peripherals.size(); ++k) {
    if (g.node.dsr->peripherals[k].name == "HWI.AON_RTC") {
      rtcInterrupt = g.node.dsr->peripheralBits[k].size() > 40;
    }
  }
  EXPECT_TRUE(rtcInterrupt);
}

TEST(WLCaptureGenerator, Version2DefaultAndEnumeratedModes) {
  Generated plain(options(7, WLStateLayout::kV2));
  for (const char* mode : {"Active", "LPM0", "LPM3", "LPM4"}) {
    EXPECT_GT(plain.recordsIn(plain.mode(mode)).size(), 0u) << mode;
  }
  EXPECT_TRUE(plain.recordsIn(plain.mode("LPM1")).empty());
  std::set<uint32_t> pcs(plain.node.dsr->pcValues.begin(), plain.node.dsr->pcValues.end());
  EXPECT_TRUE(pcs.count(0x000005A4));  // stored halved, read doubled
  EXPECT_TRUE(pcs.count(0x00000520));

  Generated own(options(7, WLStateLayout::kV2Enums));
  ASSERT_EQ(own.node.dsr->powerModes.size(), 4u);
  EXPECT_GT(own.recordsIn(own.mode("LPM3")).size(), own.node.recordCount / 2);
  std::set<uint32_t> ownPcs(own.node.dsr->pcValues.begin(), own.node.dsr->pcValues.end());
  EXPECT_TRUE(ownPcs.count(0x000005A4));
}

TEST(WLCaptureGenerator, Version5DottedNames) {
  Generated g(options(7, WLStateLayout::kV5, 1.0, 10000));
  EXPECT_GT(g.recordsIn(g.mode("CPU.Active")).size(), 0u);
  EXPECT_GT(g.recordsIn(g.mode("CPU.Off")).size(), 0u);
  std::set<std::string> peripherals;
  for (const auto& f : g.node.dsr->peripherals) peripherals.insert(f.name);
  EXPECT_TRUE(peripherals.count("Radio.TX"));
  EXPECT_TRUE(peripherals.count("Serial.UART0"));
}

// A span whose style is missing from the style table is drawn by a viewer
// with no look of its own: every state of every layout must find its style.
TEST(WLCaptureGenerator, EveryStateSpanHasAStyle) {
  for (WLStateLayout layout : {WLStateLayout::kV2, WLStateLayout::kV2Enums, WLStateLayout::kV4,
                               WLStateLayout::kV5}) {
    Generated g(options(7, layout, 1.0, 5000));
    WLStateGraph graph(&g.node, g.sup.value("StateGraph", json()));
    const auto tree = graph.getTree(0, 0);
    std::vector<int32_t> ids;
    for (const auto& e : tree.model.entries) ids.push_back(static_cast<int32_t>(e.id));
    const auto styles = graph.getStyles("").model.styles;
    const TimeRange range{0, static_cast<int64_t>(g.node.times.back()), 1000};
    size_t spans = 0;
    for (const auto& row : graph.getStates(range, ids).model.rows) {
      for (const auto& state : row.states) {
        EXPECT_TRUE(styles.count(state.style.parentKey))
            << "layout " << static_cast<int>(layout) << ": no style " << state.style.parentKey;
        ++spans;
      }
    }
    EXPECT_GT(spans, 0u) << "layout " << static_cast<int>(layout);
  }
}

TEST(WLCaptureGenerator, RejectsBadOptions) {
  wltest::TempDir dir;
  EXPECT_THROW(writeStream(dir.path() + "/a", options(6, WLStateLayout::kV4)), std::invalid_argument);
  EXPECT_THROW(writeStream(dir.path() + "/a", options(7, WLStateLayout::kV4, 1.0, 0)),
               std::invalid_argument);
  EXPECT_THROW(writeStream(dir.path() + "/no/such/dir/a", options(8, WLStateLayout::kNone)),
               std::runtime_error);
  WLStateLayout layout;
  EXPECT_FALSE(parseStateLayout("v3", layout));
  EXPECT_TRUE(parseStateLayout("v2-enums", layout));
  EXPECT_EQ(layout, WLStateLayout::kV2Enums);
}

}  // namespace
