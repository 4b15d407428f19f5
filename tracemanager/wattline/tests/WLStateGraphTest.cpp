// The state graph over decoded streams: tree ids, spans, arrows, styles.
#include "wattline/WLStateGraph.hpp"

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

int64_t idOf(const TimeGraphTreeResponse& tree, const std::string& label) {
  for (const auto& e : tree.model.entries)
    if (e.labels.at(0) == label) return e.id;
  return -999;
}

struct Span {
  int64_t start, end;
  std::string style;
  bool operator==(const Span&) const = default;
};
std::vector<Span> spansOf(const StatesResponse& r, int64_t entryId) {
  std::vector<Span> out;
  for (const auto& row : r.model.rows)
    if (row.entryId == entryId)
      for (const auto& s : row.states) out.push_back({s.start, s.end, s.style.parentKey});
  return out;
}

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

TEST(WLStateGraph, TreeOfModesAndPeripherals) {
  Graphed g(5, kFlat, kRows);
  auto tree = g.graph->getTree(0, 0);
  EXPECT_EQ(tree.status, "COMPLETED");
  std::vector<std::string> labels;
  for (const auto& e : tree.model.entries) labels.push_back(e.labels.at(0));
  EXPECT_EQ(labels, (std::vector<std::string>{"PowerMode", "Nap", "Off", "Run", "Peripheral",
                                              "Timer"}));
  const auto& top = tree.model.entries.front();
  EXPECT_EQ(top.parentId, -1);
  EXPECT_EQ(top.start, 10);
  EXPECT_EQ(top.end, 60);
  EXPECT_EQ(top.style.parentKey, "L0");
  EXPECT_EQ(idOf(tree, "Peripheral"), 1000);
  EXPECT_EQ(idOf(tree, "Timer"), 1001);
  EXPECT_EQ(tree.model.entries[1].parentId, 0);
}

TEST(WLStateGraph, AdjacentSpansAndArrows) {
  Graphed g(5, kFlat, kRows);
  auto tree = g.graph->getTree(0, 0);
  const int64_t run = idOf(tree, "Run"), nap = idOf(tree, "Nap"), off = idOf(tree, "Off");
  auto states = g.graph->getStates({0, 60, 0}, {});
  EXPECT_EQ(states.status, "COMPLETED");
  EXPECT_EQ(spansOf(states, run),
            (std::vector<Span>{{10, 20, "Run"}, {20, 40, "None"}, {40, 60, "Run"}}));
  EXPECT_EQ(spansOf(states, nap),
            (std::vector<Span>{{10, 20, "None"}, {20, 40, "Nap"}, {40, 60, "None"}}));
  EXPECT_EQ(spansOf(states, off), (std::vector<Span>{{10, 60, "None"}}));  // never on
  EXPECT_EQ(spansOf(states, 1001),
            (std::vector<Span>{{10, 30, "None"}, {30, 50, "On"}, {50, 60, "None"}}));
  // The same request gives the same rows; the peripheral root has none.
  auto again = g.graph->getStates({0, 60, 0}, {});
  EXPECT_EQ(spansOf(again, run), spansOf(states, run));
  EXPECT_TRUE(spansOf(again, 1000).empty());
  EXPECT_EQ(again.model.rows.size(), 5u);

  auto arrows = g.graph->getArrows({0, 0, 0}).model;
  ASSERT_EQ(arrows.size(), 3u);
  EXPECT_EQ(arrows[0].sourceId, -1);
  EXPECT_EQ(arrows[0].targetId, run);
  EXPECT_EQ(arrows[1].sourceId, run);
  EXPECT_EQ(arrows[1].targetId, nap);
  EXPECT_EQ(arrows[1].start, 20);
  EXPECT_EQ(arrows[2].targetId, run);
  EXPECT_EQ(arrows[2].end, 40);
}

TEST(WLStateGraph, EmptyAnswersBeforeTheTreeAndForEmptyRanges) {
  Graphed g(5, kFlat, kRows);
  auto early = g.graph->getStates({0, 60, 0}, {});
  EXPECT_TRUE(early.model.rows.empty());
  EXPECT_TRUE(g.graph->getArrows({0, 60, 0}).model.empty());
  g.graph->getTree(0, 0);
  auto backwards = g.graph->getStates({60, 10, 0}, {});
  EXPECT_TRUE(backwards.model.rows.empty());
  EXPECT_EQ(backwards.status, "");

  WLDataNode bare;
  WLStateGraph noDecoder(&bare, nullptr);
  auto tree = noDecoder.getTree(0, 0);
  ASSERT_EQ(tree.model.entries.size(), 2u);
  EXPECT_TRUE(noDecoder.getArrows({0, 1, 0}).model.empty());
}

TEST(WLStateGraph, DottedModesArrowPerGroup) {
  // Version 4: CPU modes on bits 0-1 and radio modes on bits 4-7.
  const json v4 = {{{"Name", "PWRSTATE0"}, {"Start", 0}, {"End", 1}},
                   {{"Name", "PWRSTATE1"}, {"Description", "RF%LPRF_PM"}, {"Start", 4}, {"End", 7}}};
  Graphed g(4, v4, {{0x00, 0}, {0x02, 0}, {0xE0, 0}});
  auto tree = g.graph->getTree(0, 0);
  const int64_t cpu = idOf(tree, "CPU");
  EXPECT_EQ(cpu, intermediateNodeId("CPU"));
  auto arrows = g.graph->getArrows({0, 0, 0}).model;
  // Each group's walk starts from -1.
  int starts = 0;
  for (const auto& a : arrows) starts += a.sourceId == -1;
  EXPECT_EQ(starts, 2);
  auto states = g.graph->getStates({0, 30, 0}, {});
  for (const auto& row : states.model.rows)
    for (const auto& s : row.states)
      EXPECT_TRUE(s.style.parentKey == "None" || s.style.parentKey.find('.') == std::string::npos);
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
  try {
    broken.graph->getStyles("");
    FAIL() << "expected a type error";
  } catch (const json::type_error& e) {
    EXPECT_EQ(e.id, 302);
    EXPECT_NE(std::string(e.what()).find("type must be object, but is array"), std::string::npos);
  }
}

}  // namespace
}  // namespace VSKTspServer
