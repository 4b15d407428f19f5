// The state graph over decoded streams: tree ids, spans, arrows, styles.
#include "wattline/WLStateGraph.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "WLTestStreams.hpp"
#include "wattline/WLStateDecoders.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;
using wltest::StreamBuilder;

// A two-word stream decoded with a `JState` of `version`; record i is at
// time 10 * (i + 1).
struct Graphed {
  std::vector<uint8_t> bytes;
  WLDataNode node;
  std::unique_ptr<WLStateGraph> graph;
  Graphed(int version, const json& bitFields, const std::vector<std::pair<uint32_t, uint32_t>>& rows,
          json description = nullptr) {
    StreamBuilder s(0x07, 2);
    uint64_t t = 0;
    for (auto [w0, w1] : rows) s.add({t += 10, {w0, w1}, 1, 1, 1});
    bytes = s.bytes();
    node.dsr = makeStateDecoder(node, version);
    node.dsr->initDefaults();
    node.dsr->loadBitFields({{"name", "b"}, {"version", version}, {"bitFields", bitFields}});
    node.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
    node.decode();
    node.evaluateStates();
    graph = std::make_unique<WLStateGraph>(&node, std::move(description));
  }
};

// Modes Run (0), Nap (1) and Off (3, never used) on bits 0-1; a timer
// peripheral on bit 33.
const json kFlat = {
    {{"Name", "PM"}, {"Start", 0}, {"End", 1},
     {"Enums", {{{"Choice", "Run"}, {"Description", "d"}, {"Value", 0}},
                {{"Choice", "Nap"}, {"Description", "d"}, {"Value", 1}},
                {{"Choice", "Off"}, {"Description", "d"}, {"Value", 3}}}}},
    {{"Name", "MOD_T"}, {"Description", "Timer"}, {"Start", 33}}};
// Run, Nap, Nap+Timer, Run+Timer, Run, Run
const std::vector<std::pair<uint32_t, uint32_t>> kRows = {{0, 0}, {1, 0}, {1, 2},
                                                          {0, 2}, {0, 0}, {0, 0}};

TEST(StateTree, IntermediateIdsAreFnv1aPlusOffset) {
  // Published FNV-1a 64 vectors: "" -> cbf29ce484222325, "a" -> af63dc4c8601ec8c.
  EXPECT_EQ(intermediateNodeId(""), static_cast<int32_t>(0x84222325u + 100000u));
  EXPECT_EQ(intermediateNodeId("a"), static_cast<int32_t>(0x8601ec8cu + 100000u));

  StateTreeNode root(-1, "WL++", "WL++", nullptr);
  StateTreeNode* modes = root.add(0, "PowerMode", "PowerMode");
  StateTreeNode* leaf = modes->add(7, "CPU.Core.Active", "");
  EXPECT_EQ(leaf->label, "Active");
  StateTreeNode* cpu = modes->find("CPU");
  ASSERT_NE(cpu, nullptr);
  EXPECT_EQ(cpu->id, intermediateNodeId("CPU"));
  EXPECT_EQ(cpu->label, "CPU");
  ASSERT_NE(cpu->find("CPU.Core"), nullptr);
  EXPECT_EQ(cpu->find("CPU.Core")->label, "Core");
  EXPECT_EQ(leaf->parent, cpu->find("CPU.Core"));
  EXPECT_EQ(modes->add(99, "CPU.Core.Active", "x"), leaf);  // known name: unchanged
  EXPECT_EQ(leaf->id, 7);
}

TEST(StateTree, NamesWithThousandsOfDotsStayShallow) {
  // Found by fuzzing: every level was a level of recursion in the tree walks.
  std::string name;
  for (int i = 0; i < 20000; ++i) name += "a.";
  StateTreeNode root(-1, "WL++", "WL++", nullptr);
  StateTreeNode* leaf = root.add(7, name + "z", "");
  int depth = 0;
  for (StateTreeNode* n = leaf; n->parent != nullptr; n = n->parent) ++depth;
  EXPECT_LE(depth, 40);
  EXPECT_EQ(root.find(name + "z"), leaf);
  // A trailing dot is part of the leaf's name, not an endless level.
  StateTreeNode* dotted = root.add(8, "CPU.Off.", "");
  EXPECT_EQ(dotted->label, "Off.");
  EXPECT_EQ(dotted->parent, root.find("CPU"));
}

// Nothing before the tree is asked for; then the tree, no spans for a
// backwards range, the spans over the whole capture (asked twice: the same
// request gives the same rows) and the arrows, one JSON line per entry, row and
// arrow, against golden/state-graph.expected. Flat modes: ids 1000 and up
// for peripherals, a never-used mode spans "None" throughout, adjacent
// spans of one state are merged. Version 4 dotted modes: one group per
// prefix (CPU, RF) under an intermediate id, each group's arrows starting
// from -1, and span styles named by the leaf, never by the dotted name.
TEST(WLStateGraph, TreeSpansAndArrowsMatchTheGoldenListing) {
  const json v4 = {
      {{"Name", "PWRSTATE0"}, {"Start", 0}, {"End", 1}},
      {{"Name", "PWRSTATE1"}, {"Description", "RF%LPRF_PM"}, {"Start", 4}, {"End", 7}}};
  const struct {
    const char* name;
    int version;
    json bitFields;
    std::vector<std::pair<uint32_t, uint32_t>> rows;
  } cases[] = {{"flat modes and a timer", 5, kFlat, kRows},
               {"version 4 groups: CPU Active, Sleep, Active; RF Off, Rx",
                4,
                v4,
                {{0x00, 0}, {0x02, 0}, {0xE0, 0}}}};
  std::string text;
  const auto lines = [&](const char* title, const std::string& status, const auto& items) {
    text += std::string(title) + (status.empty() ? "" : " " + status) + "\n";
    for (const auto& item : items) text += "  " + json(item).dump() + "\n";
  };
  for (const auto& c : cases) {
    text += "== " + std::string(c.name) + "\n";
    Graphed g(c.version, c.bitFields, c.rows);
    const TimeRange all{0, static_cast<int64_t>(10 * c.rows.size()), 0};
    lines("states before the tree", "", g.graph->getStates(all, {}).model.rows);
    lines("arrows before the tree", "", g.graph->getArrows(all).model);
    const auto tree = g.graph->getTree(0, 0);
    lines("tree", tree.status, tree.model.entries);
    const auto backwards = g.graph->getStates({all.end, 10, 0}, {});
    lines("states backwards", backwards.status, backwards.model.rows);
    const auto states = g.graph->getStates(all, {});
    lines("states", states.status, states.model.rows);
    EXPECT_EQ(json(g.graph->getStates(all, {})).dump(), json(states).dump()) << c.name;
    lines("arrows", "", g.graph->getArrows({0, 0, 0}).model);
  }
  EXPECT_TRUE(ostrand_test::matchesGolden(text, wltest::sourceFile("state-graph.expected")));
}

TEST(WLStateGraph, WithoutADecoderTheTreeHasItsRootsOnly) {
  WLDataNode bare;
  WLStateGraph noDecoder(&bare, nullptr);
  EXPECT_EQ(noDecoder.getTree(0, 0).model.entries.size(), 2u);
  EXPECT_TRUE(noDecoder.getArrows({0, 1, 0}).model.empty());
}

TEST(WLStateGraph, StylesTableAndItsReplacement) {
  Graphed plain(5, kFlat, kRows);
  auto styles = plain.graph->getStyles("").model.styles;
  ASSERT_EQ(styles.size(), 36u);
  EXPECT_EQ(styles.at("LPM0").values.at("background-color"), "#ffa800");
  EXPECT_EQ(styles.at("None").values.at("opacity"), "0.0");
  EXPECT_EQ(styles.at("SynthAct").values.at("height"), "0.5");

  const json own = {{"OutputStyleModel",
                     {{"styles", {{"Busy", {{"parentKey", ""}, {"values", {{"color", "#123456"}}}}}}}}}};
  Graphed custom(5, kFlat, kRows, own);
  auto replaced = custom.graph->getStyles("").model.styles;
  ASSERT_EQ(replaced.size(), 1u);
  EXPECT_EQ(replaced.at("Busy").values.at("color"), "#123456");

  Graphed broken(5, kFlat, kRows, {{"OutputStyleModel", {{"styles", json::array()}}}});
  EXPECT_THAT([&] { broken.graph->getStyles(""); },
              testing::ThrowsMessage<json::type_error>(
                  testing::HasSubstr("type_error.302] type must be object, but is array")));
}

}  // namespace
}  // namespace VSKTspServer
