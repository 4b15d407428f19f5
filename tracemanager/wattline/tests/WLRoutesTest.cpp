// The four outputs of power captures through a real trace server on a
// loopback port: a capture with state words and one without, found by the
// live scan as the capture side leaves them. Expected values are computed
// here from the samples written.
#include <gtest/gtest.h>
#include <httplib.h>

#include <nlohmann/json.hpp>

#include "CaptureTree.hpp"
#include "ExperimentKinds.hpp"
#include "ServerFixture.hpp"
#include "WLExperimentKind.hpp"
#include "WLTestStreams.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;
using testing::CaptureTree;
using testing::RunningServer;
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

class WLRoutesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    registerWattlineKinds(registerExperimentKind);
    auto withStates = tree.addLiveCapture("Probe/Board", "WL+");
    writeBytes(withStates / "WLData.bin", stateStream());
    json jstate = {{"name", "board"},
                   {"version", 5},
                   {"bitFields",
                    {{{"Name", "PM"}, {"Start", 0}, {"End", 0},
                      {"Enums", {{{"Choice", "Run"}, {"Description", "d"}, {"Value", 0}},
                                 {{"Choice", "Nap"}, {"Description", "d"}, {"Value", 1}}}}}}}};
    CaptureTree::writeFile(withStates / "metadataSup.json", json{{"JState", jstate}}.dump());
    auto plain = tree.addLiveCapture("Probe/Plain", "WL");
    writeBytes(plain / "WLData.bin", plainStream());

    running = std::make_unique<RunningServer>();
    ASSERT_TRUE(running->server().isListening());
    client = running->client();
    running->server().refreshLive();
    for (const auto& e : getJson("/tsp/api/experiments")) ids[e["name"]] = e["UUID"];
    ASSERT_EQ(ids.count("Board_WL++"), 1u);
    ASSERT_EQ(ids.count("Plain_WL"), 1u);
  }

  static void writeBytes(const std::filesystem::path& file, const std::vector<uint8_t>& bytes) {
    CaptureTree::writeFile(file, std::string(bytes.begin(), bytes.end()));
  }

  json getJson(const std::string& path) {
    auto res = client->Get(path);
    EXPECT_TRUE(res);
    if (!res) return nullptr;
    EXPECT_EQ(res->status, 200) << path;
    return json::parse(res->body);
  }
  json postJson(const std::string& path, const json& body) {
    auto res = client->Post(path, body.dump(), "application/json");
    EXPECT_TRUE(res);
    if (!res) return nullptr;
    EXPECT_EQ(res->status, 200) << path << ": " << res->body;
    return json::parse(res->body);
  }
  // experiment name -> output name -> output id
  std::string output(const std::string& experiment, const std::string& name) {
    for (const auto& o : getJson("/tsp/api/experiments/" + ids[experiment] + "/outputs"))
      if (o["name"] == name) return o["id"];
    return "";
  }
  std::string base(const std::string& experiment) {
    return "/tsp/api/experiments/" + ids[experiment] + "/outputs/";
  }

  CaptureTree tree;
  std::unique_ptr<RunningServer> running;
  std::unique_ptr<httplib::Client> client;
  std::map<std::string, std::string> ids;
};

TEST_F(WLRoutesTest, ExperimentsCountRecordsAndListTheirOutputs) {
  auto e = getJson("/tsp/api/experiments/" + ids["Board_WL++"]);
  EXPECT_EQ(e["nbEvents"], kRecords);
  EXPECT_EQ(e["start"], 1000);
  EXPECT_EQ(e["end"], 1000 + 100 * (kRecords - 1));
  EXPECT_EQ(e["indexingStatus"], "COMPLETED");
  EXPECT_EQ(getJson("/tsp/api/experiments/" + ids["Board_WL++"] + "/outputs").size(), 4u);
  EXPECT_EQ(getJson("/tsp/api/experiments/" + ids["Plain_WL"] + "/outputs").size(), 3u);
  EXPECT_EQ(output("Board_WL++", "States").rfind("com.qx.vsk.vireo.TimeGraphDataProvider.", 0), 0u);
}

TEST_F(WLRoutesTest, TableLinesOfAWindow) {
  const std::string path = base("Board_WL++") + "table/" + output("Board_WL++", "Records");
  auto columns = postJson(path + "/columns", {{"parameters", json::object()}});
  ASSERT_EQ(columns["model"].size(), 6u);
  auto lines = postJson(path + "/lines", {{"parameters",
                                           {{"requested_table_index", 998},
                                            {"requested_table_count", 200}}}});
  const auto& model = lines["model"];
  EXPECT_EQ(model["size"], kRecords);
  EXPECT_EQ(model["lowIndex"], 998);
  ASSERT_EQ(model["lines"].size(), 200u);
  const auto& line = model["lines"][3];  // record 1001: Nap
  EXPECT_EQ(line["index"], 1001);
  std::vector<std::string> cells;
  for (const auto& c : line["cells"]) cells.push_back(c["content"]);
  EXPECT_EQ(cells, (std::vector<std::string>{std::to_string(1000 + 100 * 1001),
                                             std::to_string(50 * 1001), "2001", "3000", "0", "1"}));

  const std::string plain = base("Plain_WL") + "table/" + output("Plain_WL", "Records");
  auto plainLines = postJson(plain + "/lines", {{"parameters",
                                                 {{"requested_table_index", 0},
                                                  {"requested_table_count", 200}}}});
  EXPECT_EQ(plainLines["model"]["lines"].size(), 10u);
  EXPECT_EQ(plainLines["model"]["columnIds"], json({0, 1, 2, 3}));
}

TEST_F(WLRoutesTest, CurrentOverTheWholeStream) {
  const std::string id = output("Board_WL++", "Current");
  ASSERT_EQ(id, WLLineGraph::kHistogramId);
  const std::string path = base("Board_WL++") + "XY/" + id;
  auto tree = postJson(path + "/tree", {{"parameters", {{"requested_timerange", {{"start", 0}, {"end", 0}}}}}});
  EXPECT_EQ(tree["model"]["entries"][0]["labels"][0], "Current (nA)");
  auto xy = postJson(path + "/xy", {{"parameters",
                                     {{"requested_timerange",
                                       {{"start", 0}, {"end", 1} , {"nbTimes", 0}}},
                                      {"requested_items", {1}}}}});
  // An empty range: the series with no points.
  EXPECT_TRUE(xy["model"]["series"][0]["xValues"].empty());
  xy = postJson(path + "/xy", {{"parameters",
                                {{"requested_timerange",
                                  {{"start", 0}, {"end", int64_t(1) << 50}, {"nbTimes", 500}}},
                                 {"requested_items", json::array()}}}});
  const auto& series = xy["model"]["series"][0];
  // Records 0 .. 4998 with a stride of (4999 / 2000) = 2.
  ASSERT_EQ(series["xValues"].size(), 2500u);
  EXPECT_EQ(series["xValues"][1], 2);
  EXPECT_EQ(series["yValues"][1], 1002);
  EXPECT_EQ(series["xValues"].back(), 4998);
}

TEST_F(WLRoutesTest, SummaryOfASelection) {
  const std::string path = base("Board_WL++") + "XY/" + output("Board_WL++", "Summary");
  // Records 0 .. 1000: nearest to 1000 us and 101000 us; stats over 0 .. 999.
  auto tree = postJson(path + "/tree", {{"parameters",
                                         {{"requested_timerange",
                                           {{"start", 1000}, {"end", 101000}}}}}});
  const auto& entries = tree["model"]["entries"];
  ASSERT_EQ(entries.size(), 14u);
  std::map<int64_t, std::string> value;
  for (const auto& e : entries)
    if (e["labels"].size() == 2) value[e["id"]] = e["labels"][1];
  // 999 steps of 100 us and 50 units (5 uJ): 0.0999 s, 4.995 mJ, 50 mW.
  EXPECT_EQ(value[11], "0.10 sec");
  EXPECT_EQ(value[12], "4.995 mJ");
  EXPECT_EQ(value[131], "50.000 mW");
  EXPECT_EQ(value[141], "3.000 V");
  char mean[32];
  std::snprintf(mean, sizeof mean, "%.3f mA", (1000 + 999 / 2.0) / 1e6);
  EXPECT_EQ(value[151], mean);
  // 220 mAh * 3 V * 3600 / 50 mW = 47520 s = 13 h 12 min; the rounding
  // of the mean power may leave the truncated life a second short.
  EXPECT_TRUE(value[16] == "0 day, 13 hour, 12 min" || value[16] == "0 day, 13 hour, 11 min")
      << value[16];
}

TEST_F(WLRoutesTest, StatesTreeAndArrows) {
  const std::string path = base("Board_WL++") + "timeGraph/" + output("Board_WL++", "States");
  auto tree = postJson(path + "/tree", {{"parameters", {{"requested_timerange", {{"start", 0}, {"end", 0}}}}}});
  std::map<std::string, int64_t> idOf;
  for (const auto& e : tree["model"]["entries"]) idOf[e["labels"][0]] = e["id"];
  ASSERT_EQ(idOf.size(), 4u);  // PowerMode, Nap, Run, Peripheral
  auto states = postJson(path + "/states", {{"parameters",
                                             {{"requested_timerange",
                                               {{"start", 0}, {"end", 600000}, {"nbTimes", 0}}},
                                              {"requested_items", json::array()}}}});
  std::vector<std::tuple<int64_t, int64_t, std::string>> run;
  for (const auto& row : states["model"]["rows"])
    if (row["entryId"] == idOf["Run"])
      for (const auto& s : row["states"]) run.emplace_back(s["start"], s["end"], s["style"]["parentKey"]);
  // Run for records 0-999, 2000-2999, 4000-4999; the last span runs to the request's end.
  ASSERT_EQ(run.size(), 5u);
  EXPECT_EQ(run[0], std::make_tuple(int64_t{1000}, int64_t{1000 + 100 * 1000}, std::string("Run")));
  EXPECT_EQ(std::get<2>(run[1]), "None");
  EXPECT_EQ(std::get<1>(run[4]), 600000);
  auto arrows = postJson(path + "/arrows", {{"parameters",
                                             {{"requested_timerange",
                                               {{"start", 0}, {"end", 1}, {"nbTimes", 0}}}}}});
  ASSERT_EQ(arrows["model"].size(), 5u);
  EXPECT_EQ(arrows["model"][0]["sourceId"], -1);
  EXPECT_EQ(arrows["model"][1]["targetId"], idOf["Nap"]);
  auto styles = postJson(base("Board_WL++") + output("Board_WL++", "States") + "/style",
                         {{"parameters", json::object()}});
  EXPECT_EQ(styles["model"]["styles"].size(), 36u);
}

}  // namespace
}  // namespace VSKTspServer
