// The protocol routes against a real server on a free loopback port, over a
// sample data tree: one MTB and one TDF capture of the same target.
#include <gtest/gtest.h>
#include <httplib.h>

#include <nlohmann/json.hpp>

#include "CaptureTree.hpp"
#include "ServerFixture.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;
using testing::CaptureTree;
using testing::errorPage;
using testing::RunningServer;

constexpr const char* kUnknownUuid = "0f0e0d0c-0b0a-4908-8706-050403020100";

class TspRoutesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto mtb = tree.addLiveCapture("Probe/Cortex_M4_0", "MTB");
    CaptureTree::writeFile(mtb / "mtb_data.json", CaptureTree::mtbDocument(3, 4).dump());
    auto tdf = tree.addLiveCapture("Probe/Cortex_M4_0", "TDF");
    CaptureTree::writeFile(tdf / "tdf_data.json", CaptureTree::tdfDocument(5).dump());
    running = std::make_unique<RunningServer>();
    ASSERT_TRUE(running->server().isListening());
    client = running->client();
    running->server().refreshLive();
    for (const auto& e : getJson("/tsp/api/experiments")) ids[e["name"]] = e["UUID"];
    ASSERT_EQ(ids.size(), 2u);
  }

  json getJson(const std::string& path) {
    auto res = client->Get(path);
    EXPECT_TRUE(res);
    if (!res) return nullptr;
    EXPECT_EQ(res->status, 200) << path;
    EXPECT_EQ(res->get_header_value("Content-Type"), "application/json");
    return res->body.empty() ? json() : json::parse(res->body);
  }

  httplib::Result post(const std::string& path, const std::string& body) {
    return client->Post(path, body, "application/json");
  }

  // The only output of an experiment (the main table of the table kinds).
  std::string outputOf(const std::string& experimentName) {
    auto outputs = getJson("/tsp/api/experiments/" + ids[experimentName] + "/outputs");
    EXPECT_EQ(outputs.size(), 1u);
    return outputs.at(0).at("id");
  }

  std::string tablePath(const std::string& experimentName, const std::string& what) {
    return "/tsp/api/experiments/" + ids[experimentName] + "/outputs/table/" +
           outputOf(experimentName) + "/" + what;
  }

  static void expectErrorPage(const httplib::Result& res, int status) {
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, status);
    EXPECT_EQ(res->get_header_value("Content-Type"), "text/html");
    EXPECT_EQ(res->body, errorPage(status));
  }

  CaptureTree tree;
  std::unique_ptr<RunningServer> running;
  std::unique_ptr<httplib::Client> client;
  std::map<std::string, std::string> ids;  // experiment name -> UUID
};

TEST_F(TspRoutesTest, ExperimentsListInUuidOrderWithCompletedStatus) {
  auto list = getJson("/tsp/api/experiments");
  ASSERT_EQ(list.size(), 2u);
  EXPECT_LT(list[0]["UUID"].get<std::string>(), list[1]["UUID"].get<std::string>());
  for (const auto& e : list) {
    EXPECT_EQ(e["indexingStatus"], "COMPLETED");
    EXPECT_EQ(e["UUID"].get<std::string>().size(), 36u);
    ASSERT_EQ(e["traces"].size(), 1u);
    EXPECT_TRUE(e["nbEvents"].is_number_integer());
  }
  auto one = getJson("/tsp/api/experiments/" + ids["Cortex_M4_0_TDF"]);
  EXPECT_EQ(one["name"], "Cortex_M4_0_TDF");
}

TEST_F(TspRoutesTest, TableColumnsAndLinesOfATdfCapture) {
  auto columns = post(tablePath("Cortex_M4_0_TDF", "columns"), R"({"parameters":{}})");
  ASSERT_TRUE(columns);
  EXPECT_EQ(columns->status, 200);
  EXPECT_EQ(columns->body,
            R"({"model":[{"description":"","id":0,"name":"Time","type":""},)"
            R"({"description":"","id":1,"name":"Event","type":""}],)"
            R"("status":"COMPLETED","statusMessage":""})");
  auto lines = post(tablePath("Cortex_M4_0_TDF", "lines"),
                    R"({"parameters":{"requested_table_index":3,"requested_table_count":200}})");
  ASSERT_TRUE(lines);
  EXPECT_EQ(lines->status, 200);
  EXPECT_EQ(lines->get_header_value("Content-Type"), "application/json");
  EXPECT_EQ(lines->body,
            R"({"model":{"columnIds":[0,1],"lines":[)"
            R"({"cells":[{"content":"3","tags":0},{"content":"","tags":0}],"index":3,"tags":0},)"
            R"({"cells":[{"content":"4","tags":0},{"content":"a,b","tags":0}],"index":4,"tags":0}],)"
            R"("lowIndex":3,"size":5},"status":"COMPLETED","statusMessage":""})");
}

TEST_F(TspRoutesTest, ColumnsBodyMayHoldItsKeysAtTheTopLevel) {
  auto res = post(tablePath("Cortex_M4_0_CoreTrace", "columns"), "{}");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(json::parse(res->body)["model"].size(), 9u);
}

TEST_F(TspRoutesTest, MtbTableShowsOneLinePerInstructionAfterARefresh) {
  const std::string uuid = ids["Cortex_M4_0_CoreTrace"];
  auto refresh = post("/tsp/api/experiments/" + uuid + "/refresh", "");
  ASSERT_TRUE(refresh);
  EXPECT_EQ(refresh->status, 200);
  EXPECT_TRUE(refresh->body.empty());
  auto lines = post(tablePath("Cortex_M4_0_CoreTrace", "lines"),
                    R"({"parameters":{"requested_table_index":0,"requested_table_count":5}})");
  ASSERT_TRUE(lines);
  auto model = json::parse(lines->body)["model"];
  EXPECT_EQ(model["size"], 12);
  ASSERT_EQ(model["lines"].size(), 5u);
  EXPECT_EQ(model["lines"][4]["cells"][1]["content"], "=>");  // first of the second run
}

TEST_F(TspRoutesTest, BadUuidIs404ButUnknownWellFormedUuidIs400) {
  expectErrorPage(client->Get("/tsp/api/experiments/bad!id"), 404);
  expectErrorPage(client->Get("/tsp/api/experiments/bad.id/outputs"), 404);
  expectErrorPage(client->Get(std::string("/tsp/api/experiments/") + kUnknownUuid), 400);
  expectErrorPage(client->Get(std::string("/tsp/api/experiments/") + kUnknownUuid + "/outputs"),
                  400);
  expectErrorPage(client->Delete(std::string("/tsp/api/experiments/") + kUnknownUuid), 400);
  expectErrorPage(post(std::string("/tsp/api/experiments/") + kUnknownUuid + "/refresh", ""), 400);
  expectErrorPage(post(std::string("/tsp/api/experiments/") + kUnknownUuid +
                           "/outputs/table/x/columns",
                       "{}"),
                  400);
}

TEST_F(TspRoutesTest, TraceRoutes) {
  expectErrorPage(client->Get("/tsp/api/traces"), 501);
  expectErrorPage(client->Get(std::string("/tsp/api/traces/") + kUnknownUuid), 400);
  auto gone = client->Delete(std::string("/tsp/api/traces/") + kUnknownUuid);
  ASSERT_TRUE(gone);
  EXPECT_EQ(gone->status, 200);
  EXPECT_TRUE(gone->body.empty());

  const std::string traceId =
      getJson("/tsp/api/experiments/" + ids["Cortex_M4_0_TDF"])["traces"][0]["UUID"];
  auto trace = getJson("/tsp/api/traces/" + traceId);
  EXPECT_EQ(trace["name"], "TDF");
  EXPECT_EQ(trace["indexingStatus"], "");
  auto deleted = client->Delete("/tsp/api/traces/" + traceId);
  ASSERT_TRUE(deleted);
  EXPECT_EQ(json::parse(deleted->body)["UUID"], traceId);
  expectErrorPage(client->Get("/tsp/api/traces/" + traceId), 400);
}

TEST_F(TspRoutesTest, OpeningATraceByHand) {
  // Empty values pass the reader; an empty path lies outside the data tree.
  expectErrorPage(post("/tsp/api/traces", "{}"), 400);

  const auto dir = tree.addLiveCapture("Probe/Other", "TDF");
  auto opened = post("/tsp/api/traces",
                     json{{"parameters", {{"uri", dir.string()}, {"name", "mine"}}}}.dump());
  ASSERT_TRUE(opened);
  ASSERT_EQ(opened->status, 200);
  const std::string traceId = json::parse(opened->body)["UUID"];
  auto experiment = post("/tsp/api/experiments",
                         json{{"parameters", {{"name", "x"}, {"traces", {traceId}}}}}.dump());
  ASSERT_TRUE(experiment);
  ASSERT_EQ(experiment->status, 200);
  EXPECT_EQ(json::parse(experiment->body)["name"], "Other_TDF");
}

TEST_F(TspRoutesTest, ExperimentRequestNeedsBothKeysAndAnUnchangedScanIs400) {
  auto missing = post("/tsp/api/experiments", R"({"parameters":{"name":"LiveTarget"}})");
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->status, 500);
  EXPECT_NE(missing->get_header_value("EXCEPTION_WHAT").find("traces"), std::string::npos);
  auto wrongType = post("/tsp/api/experiments", R"({"parameters":{"name":5,"traces":[]}})");
  ASSERT_TRUE(wrongType);
  EXPECT_EQ(wrongType->status, 500);
  EXPECT_NE(wrongType->get_header_value("EXCEPTION_WHAT").find("type must be string"),
            std::string::npos);
  expectErrorPage(post("/tsp/api/experiments",
                       R"({"parameters":{"name":"LiveTarget/Probe","traces":[]}})"),
                  400);
  // A trace scan that finds nothing new opens nothing.
  expectErrorPage(post("/tsp/api/traces", R"({"parameters":{"uri":"LiveTarget/Probe"}})"), 400);
}

TEST_F(TspRoutesTest, ScanAfterACaptureVanishedRemovesItsExperiment) {
  std::filesystem::remove_all(tree.liveTargets() / "Probe/Cortex_M4_0/TDF");
  expectErrorPage(post("/tsp/api/experiments", R"({"parameters":{"name":"LiveTarget","traces":[]}})"),
                  400);
  expectErrorPage(client->Get("/tsp/api/experiments/" + ids["Cortex_M4_0_TDF"]), 400);
  EXPECT_EQ(getJson("/tsp/api/experiments").size(), 1u);
}

TEST_F(TspRoutesTest, DeleteClosesTheExperiment) {
  const std::string uuid = ids["Cortex_M4_0_TDF"];
  auto res = client->Delete("/tsp/api/experiments/" + uuid);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(json::parse(res->body)["indexingStatus"], "CLOSED");
  expectErrorPage(client->Get("/tsp/api/experiments/" + uuid), 400);
}

TEST_F(TspRoutesTest, OutputsMarkerSetsAndOneOutput) {
  const std::string base = "/tsp/api/experiments/" + ids["Cortex_M4_0_TDF"] + "/outputs";
  auto outputs = getJson(base);
  ASSERT_EQ(outputs.size(), 1u);
  EXPECT_EQ(outputs[0]["type"], "TABLE");
  EXPECT_EQ(outputs[0]["name"], "Trace");
  const std::string id = outputs[0]["id"];
  EXPECT_NE(id.find("com.qx.vsk.vireo.TableDataProvider."), std::string::npos);
  EXPECT_EQ(getJson(base + "/" + id), outputs[0]);
  EXPECT_EQ(getJson(base + "/markerSets"), json::parse(R"({"model":[]})"));
  // An unknown output id ends in the library's handler of non-standard
  // exceptions.
  auto unknown = client->Get(base + "/no.such-output");
  ASSERT_TRUE(unknown);
  EXPECT_EQ(unknown->status, 500);
  EXPECT_EQ(unknown->get_header_value("EXCEPTION_WHAT"), "UNKNOWN");
  EXPECT_EQ(unknown->body, errorPage(500));
}

TEST_F(TspRoutesTest, RoutesOfAnotherKindAnswer501) {
  const std::string out = "/tsp/api/experiments/" + ids["Cortex_M4_0_TDF"] + "/outputs/";
  const std::string id = outputOf("Cortex_M4_0_TDF");
  const std::string range = R"({"parameters":{"requested_timerange":{"start":0,"end":9}}})";
  const std::string full =
      R"({"parameters":{"requested_timerange":{"start":0,"end":9,"nbTimes":2},"requested_items":[1]}})";
  expectErrorPage(post(out + "timeGraph/" + id + "/tree", range), 501);
  expectErrorPage(post(out + "XY/" + id + "/tree", range), 501);
  expectErrorPage(post(out + "timeGraph/" + id + "/states", full), 501);
  expectErrorPage(post(out + "timeGraph/" + id + "/arrows", full), 501);
  expectErrorPage(post(out + "XY/" + id + "/xy", full), 501);
  expectErrorPage(post(out + id + "/style", "{}"), 501);
  // The states route reads nbTimes before it looks at the output: 500.
  auto noTimes = post(out + "timeGraph/" + id + "/states",
                      R"({"parameters":{"requested_timerange":{"start":0,"end":9},"requested_items":[]}})");
  ASSERT_TRUE(noTimes);
  EXPECT_EQ(noTimes->status, 500);
  // The other POST routes need the "parameters" key.
  auto bare = post(out + "table/" + id + "/lines", R"({"requested_table_count":1})");
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->status, 500);
}

TEST_F(TspRoutesTest, AnnotationsAnswerEmptyListsWithEmptyStatus) {
  const std::string out = "/tsp/api/experiments/" + ids["Cortex_M4_0_TDF"] + "/outputs/" +
                          outputOf("Cortex_M4_0_TDF") + "/annotations";
  auto categories = getJson(out);
  EXPECT_EQ(categories.dump(), R"({"model":{"annotationCategories":[]},"status":"","statusMessage":""})");
  // Without a body the answer does not depend on the ids.
  EXPECT_EQ(getJson(std::string("/tsp/api/experiments/") + kUnknownUuid + "/outputs/x/annotations"),
            categories);
  auto annotations = post(out, R"({"parameters":{}})");
  ASSERT_TRUE(annotations);
  EXPECT_EQ(annotations->status, 200);
  EXPECT_EQ(annotations->body, R"({"model":{"annotations":{}},"status":"","statusMessage":""})");
}

}  // namespace
}  // namespace VSKTspServer
