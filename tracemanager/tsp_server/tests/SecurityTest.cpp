// What a hostile page, a hostile data tree or a greedy client can do to the
// trace server, tried against a real server on a free loopback port.
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "RouteTranscript.hpp"
#include "tsp_server/RequestGuard.hpp"
#include "tsp_server/TspApi.hpp"

namespace VSKTspServer {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ostrand_test::CaptureTree;
using ostrand_test::RawConnection;
using ostrand_test::RunningServer;
using Clock = std::chrono::steady_clock;

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class SecurityTest : public ::testing::Test {
 protected:
  void serve() {
    running = std::make_unique<RunningServer>();
    ASSERT_TRUE(running->server().isListening());
    client = running->client();
  }
  fs::path addTdf(const std::string& target, int rows = 3) {
    auto dir = tree.addLiveCapture(target, "TDF");
    CaptureTree::writeFile(dir / "tdf_data.json", VSKTspServer::samples::tdfDocument(rows).dump());
    return dir;
  }
  // The experiments loaded (not those listed as failed loads).
  std::vector<std::string> experimentNames() {
    std::vector<std::string> names;
    auto res = client->Get("/tsp/api/experiments");
    if (!res || res->status != 200) return names;
    for (const auto& e : json::parse(res->body)) {
      if (e["indexingStatus"] == "COMPLETED") names.push_back(e["name"]);
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // Runs golden/<name>.http against a server started now.
  ::testing::AssertionResult transcript(const std::string& name) {
    serve();
    ostrand_test::RouteTranscript transcript(*running, tree);
    return transcript.run(ostrand_test::sourcePath("tracemanager/tsp_server/tests/golden/" + name));
  }

  CaptureTree tree;
  std::unique_ptr<RunningServer> running;
  std::unique_ptr<httplib::Client> client;
};

// ---- Requests from other sites ---------------------------------------------

// Each line of golden/request-guard.txt: what the guard decides for a
// request with the given method, path and headers.
TEST(RequestGuardTest, JudgesHostOriginRefererAndFetchSite) {
  const std::map<std::string, RequestVerdict> verdicts = {
      {"allow", RequestVerdict::kAllow},
      {"foreign-host", RequestVerdict::kForeignHost},
      {"foreign-origin", RequestVerdict::kForeignOrigin}};
  std::istringstream lines(ostrand_test::readFile(
      ostrand_test::sourcePath("tracemanager/tsp_server/tests/golden/request-guard.txt")));
  int cases = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string verdict, field[6], what;
    words >> verdict;
    for (auto& f : field) {
      words >> f;
      if (f == "-") f.clear();
    }
    std::getline(words >> std::ws, what);
    const RequestFacts facts{field[0], field[1], field[2], field[3], field[4], field[5]};
    EXPECT_EQ(judgeRequest(facts, 1239), verdicts.at(verdict)) << what;
    ++cases;
  }
  EXPECT_GT(cases, 20);
}

// golden/security-sites.http: what the guard refuses is refused by the
// running server with its error page, and the model is left alone; the
// server's own page may post.
TEST_F(SecurityTest, RequestsFromOtherSitesAreRefusedByTheServer) {
  EXPECT_TRUE(transcript("security-sites"));
}

// ---- Files outside the data tree -----------------------------------------

// golden/security-paths.http: paths out of the tree are refused, a scan of
// ".." makes nothing.
TEST_F(SecurityTest, NoPathOutsideTheDataTreeIsOpened) {
  EXPECT_TRUE(transcript("security-paths"));
}

// A hostile tree: metadata naming data files out of the tree, a data file
// that is a link out of it, and links that loop (each ends its branch, not
// the scan, which stays bounded). Only the good capture loads.
TEST_F(SecurityTest, DataFilesOutOfTheTreeAndLinkLoopsAreNotFollowed) {
  CaptureTree::writeFile(tree.root() / "secret.json", VSKTspServer::samples::tdfDocument(7).dump());
  CaptureTree::writeFile(tree.root() / "outside.bin", std::string(64, 'x'));
  addTdf("Probe/Good");
  const std::vector<std::string> escapes = {"../../../../../secret.json",
                                             "../../../../../../../../../../etc/passwd"};
  for (size_t i = 0; i < escapes.size(); ++i) {
    const std::string target = "Probe/Bad" + std::to_string(i);
    auto meta = VSKTspServer::samples::defaultMetadata(target, "TDF");
    meta["dataFile"] = escapes[i];
    tree.addLiveCapture(target, "TDF", meta);
  }
  auto linked = tree.addLiveCapture("Probe/Linked", "TDF");
  fs::create_symlink(tree.root() / "secret.json", linked / "tdf_data.json");
  fs::create_directories(tree.liveTargets() / "Loop");
  fs::create_directory_symlink(tree.liveTargets() / "Loop", tree.liveTargets() / "Loop" / "again");
  fs::create_directory_symlink(tree.liveTargets(), tree.liveTargets() / "Loop" / "top");
  fs::create_directory_symlink("/", tree.liveTargets() / "root");
  serve();
  const auto start = Clock::now();
  running->server().refreshLive();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(experimentNames(), std::vector<std::string>{"Good_TDF"});
}

// ---- One bad capture hides nothing ------------------------------------------

// golden/security-captures.http: broken captures hide no other one, and a
// repair is picked up by the next scan.
TEST_F(SecurityTest, EachCaptureLoadsOrFailsOnItsOwnAndARepairIsPickedUp) {
  // Bytes no line of a transcript holds.
  CaptureTree::writeFile(tree.liveTargets() / "Probe/Garbage/TDF/metadata", "\x01\xff garbage");
  EXPECT_TRUE(transcript("security-captures"));
}

// ---- Bounded cost per request ---------------------------------------------

TEST_F(SecurityTest, HugeOrOverflowingTableRangesAreCutNotBuilt) {
  addTdf("Probe/A", TspApi::kMaxTableLines + 10);
  serve();
  running->server().refreshLive();
  auto experiments = json::parse(client->Get("/tsp/api/experiments")->body);
  const std::string e = experiments.at(0)["UUID"];
  auto outputs = json::parse(client->Get("/tsp/api/experiments/" + e + "/outputs")->body);
  const std::string lines =
      "/tsp/api/experiments/" + e + "/outputs/table/" + outputs.at(0)["id"].get<std::string>() + "/lines";
  // A count far beyond the cap, an index past 2^64, a body past the limit.
  const struct {
    std::string body;
    int status;
    size_t lines;
  } cases[] = {
      {R"({"parameters":{"requested_table_index":0,"requested_table_count":1000000000}})", 200,
       static_cast<size_t>(TspApi::kMaxTableLines)},
      {R"({"parameters":{"requested_table_index":18446744073709551616,"requested_table_count":5}})",
       200, 0},
      {std::string(2 << 20, ' '), 413, 0},
  };
  for (const auto& c : cases) {
    auto res = client->Post(lines, c.body, "application/json");
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, c.status);
    if (c.status == 200) {
      EXPECT_EQ(json::parse(res->body)["model"]["lines"].size(), c.lines);
    }
  }
}

TEST_F(SecurityTest, SlowClientsDoNotStarveOthers) {
  serve();
  // Eight clients that send a header line now and then, never finishing.
  std::vector<std::unique_ptr<RawConnection>> slow;
  for (int i = 0; i < 8; ++i) {
    slow.push_back(std::make_unique<RawConnection>(running->port()));
    slow.back()->send("GET /tsp/api/health HTTP/1.1\r\nHost: localhost\r\n");
  }
  for (int round = 0; round < 3; ++round) {
    for (auto& c : slow) c->send("X-Slow: 1\r\n");
    const auto start = Clock::now();
    auto res = running->client()->Get("/tsp/api/health");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1000));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
}

// Pipelined requests on one connection each get their answer, on both
// loopback families.
TEST_F(SecurityTest, RawRequestsOnBothLoopbackFamiliesAreAllAnswered) {
  serve();
  const auto get = [](const std::string& host, const char* more = "") {
    return "GET /tsp/api/health HTTP/1.1\r\nHost: " + host + "\r\n" + more + "\r\n";
  };
  const char* closing = "Connection: close\r\n";
  for (const auto& [ipv6, requests, answers] :
       {std::tuple{false, get("localhost") + get("localhost") + get("localhost", closing), 3u},
        std::tuple{true, get("[::1]", closing), 1u}}) {
    RawConnection c(running->port(), ipv6);
    if (ipv6 && !c.connected()) GTEST_SKIP() << "no IPv6 loopback on this machine";
    ASSERT_TRUE(c.connected());
    c.send(requests);
    EXPECT_EQ(count(c.readAll(), R"({"status":"UP"})"), answers) << (ipv6 ? "IPv6" : "IPv4");
  }
}

}  // namespace
}  // namespace VSKTspServer
