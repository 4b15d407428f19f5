// What a hostile page, a hostile data tree or a greedy client can do to the
// trace server, tried against a real server on a free loopback port.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "CaptureTree.hpp"
#include "ServerFixture.hpp"
#include "tsp_server/RequestGuard.hpp"
#include "tsp_server/TspApi.hpp"

namespace VSKTspServer {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ostrand_test::CaptureTree;
using ostrand_test::RunningServer;
using Clock = std::chrono::steady_clock;

// A connection that says exactly what the test writes.
class RawConnection {
 public:
  explicit RawConnection(int port, bool ipv6 = false) {
    fd_ = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
    sockaddr_storage address{};
    socklen_t length = 0;
    if (ipv6) {
      auto* a = reinterpret_cast<sockaddr_in6*>(&address);
      a->sin6_family = AF_INET6;
      a->sin6_addr = in6addr_loopback;
      a->sin6_port = htons(static_cast<uint16_t>(port));
      length = sizeof *a;
    } else {
      auto* a = reinterpret_cast<sockaddr_in*>(&address);
      a->sin_family = AF_INET;
      a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      a->sin_port = htons(static_cast<uint16_t>(port));
      length = sizeof *a;
    }
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), length) == 0;
  }
  ~RawConnection() { ::close(fd_); }
  bool connected() const { return connected_; }
  void send(const std::string& bytes) { ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  // Everything until the server closes or `timeout` passes.
  std::string readAll(std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
    std::string text;
    const auto end = Clock::now() + timeout;
    char buffer[4096];
    while (Clock::now() < end) {
      pollfd entry{fd_, POLLIN, 0};
      if (::poll(&entry, 1, 50) <= 0) continue;
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      text.append(buffer, static_cast<size_t>(n));
    }
    return text;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
};

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
  httplib::Result postJson(const std::string& path, const json& body,
                           const httplib::Headers& headers = {}) {
    return client->Post(path, headers, body.dump(), "application/json");
  }
  httplib::Result rescan() {
    return postJson("/tsp/api/experiments", {{"parameters", {{"name", "LiveTarget"}, {"traces", json::array()}}}});
  }
  // The experiments listed with `status`: "COMPLETED" for the loaded ones,
  // "RUNNING" for captures that failed to load.
  std::vector<std::string> experimentNames(const std::string& status = "COMPLETED") {
    std::vector<std::string> names;
    auto res = client->Get("/tsp/api/experiments");
    if (!res || res->status != 200) return names;
    for (const auto& e : json::parse(res->body)) {
      if (e["indexingStatus"] == status) names.push_back(e["name"]);
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  CaptureTree tree;
  std::unique_ptr<RunningServer> running;
  std::unique_ptr<httplib::Client> client;
};

// ---- Requests from other sites ---------------------------------------------

struct GuardCase {
  const char* what;
  RequestFacts facts;
  RequestVerdict verdict;
};

RequestFacts facts(const char* method, const char* path, const char* host, const char* origin = "",
                   const char* referer = "", const char* site = "") {
  return {method, path, host, origin, referer, site};
}

class RequestGuardTest : public ::testing::TestWithParam<GuardCase> {};

TEST_P(RequestGuardTest, JudgesHostOriginRefererAndFetchSite) {
  EXPECT_EQ(judgeRequest(GetParam().facts, 1239), GetParam().verdict) << GetParam().what;
}

const RequestVerdict kAllow = RequestVerdict::kAllow;
const RequestVerdict kHost = RequestVerdict::kForeignHost;
const RequestVerdict kOrigin = RequestVerdict::kForeignOrigin;

INSTANTIATE_TEST_SUITE_P(
    Cases, RequestGuardTest,
    ::testing::Values(
        GuardCase{"tool read", facts("GET", "/tsp/api/health", "localhost:1239"), kAllow},
        GuardCase{"IPv4 loopback", facts("GET", "/x", "127.0.0.1:1239"), kAllow},
        GuardCase{"IPv6 loopback", facts("GET", "/x", "[::1]:1239"), kAllow},
        GuardCase{"name in capitals, no port", facts("GET", "/x", "LOCALHOST"), kAllow},
        GuardCase{"rebound name", facts("GET", "/x", "evil.example:1239"), kHost},
        GuardCase{"loopback prefix", facts("GET", "/x", "localhost.evil.example:1239"), kHost},
        GuardCase{"other port", facts("GET", "/x", "localhost:1240"), kHost},
        GuardCase{"no Host", facts("GET", "/x", ""), kHost},
        GuardCase{"broken IPv6", facts("GET", "/x", "[::1"), kHost},
        GuardCase{"foreign read", facts("GET", "/x", "localhost:1239", "http://evil.example"), kAllow},
        GuardCase{"foreign stop", facts("GET", "/stop", "localhost:1239", "http://evil.example"), kOrigin},
        GuardCase{"image stop", facts("GET", "/stop", "localhost:1239", "", "", "cross-site"), kOrigin},
        GuardCase{"typed stop", facts("GET", "/stop", "localhost:1239", "", "", "none"), kAllow},
        GuardCase{"foreign post", facts("POST", "/x", "127.0.0.1:1239", "http://evil.example"), kOrigin},
        GuardCase{"null origin", facts("POST", "/x", "127.0.0.1:1239", "null"), kOrigin},
        GuardCase{"own page", facts("POST", "/x", "127.0.0.1:1239", "http://localhost:1239"), kAllow},
        GuardCase{"own page v6", facts("DELETE", "/x", "[::1]:1239", "http://[::1]:1239"), kAllow},
        GuardCase{"own host other port", facts("POST", "/x", "localhost:1239", "http://localhost:8080"), kOrigin},
        GuardCase{"https origin", facts("POST", "/x", "localhost:1239", "https://localhost:1239"), kOrigin},
        GuardCase{"foreign referer", facts("POST", "/x", "localhost:1239", "", "http://evil.example/a"), kOrigin},
        GuardCase{"own referer", facts("POST", "/x", "localhost:1239", "", "http://localhost:1239/a?b"), kAllow},
        GuardCase{"same-site", facts("POST", "/x", "localhost:1239", "", "", "same-site"), kOrigin}));

TEST_F(SecurityTest, ForeignHostCannotStopTheServerOrReadIt) {
  serve();
  for (const char* path : {"/stop", "/tsp/api/health"}) {
    auto res = client->Get(path, {{"Host", "evil.example"}, {"Origin", "http://evil.example"}});
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 403) << path;
    EXPECT_EQ(res->body, ostrand_test::errorPage(403));
  }
  auto image = client->Get("/stop", {{"Sec-Fetch-Site", "cross-site"}});
  ASSERT_TRUE(image);
  EXPECT_EQ(image->status, 403);
  EXPECT_TRUE(running->server().isListening());
}

TEST_F(SecurityTest, CrossSitePlainTextPostLeavesTheModelAlone) {
  addTdf("Probe/A");
  serve();
  running->server().refreshLive();
  const json wipe = {{"parameters", {{"name", "LiveTarget/zzz"}, {"traces", json::array()}}}};
  auto res = client->Post("/tsp/api/experiments", {{"Origin", "http://evil.example"}}, wipe.dump(),
                          "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 403);
  EXPECT_EQ(experimentNames(), std::vector<std::string>{"A_TDF"});
  // The server's own page (same loopback origin) may post.
  const std::string own = "http://127.0.0.1:" + std::to_string(running->port());
  auto mine = postJson("/tsp/api/experiments",
                       {{"parameters", {{"name", "LiveTarget"}, {"traces", json::array()}}}},
                       {{"Origin", own}});
  ASSERT_TRUE(mine);
  EXPECT_EQ(mine->status, 400);  // served: an unchanged scan opens nothing new
}

// ---- Files outside the data tree -----------------------------------------

TEST_F(SecurityTest, NoPathOutsideTheDataTreeIsOpened) {
  addTdf("Probe/A");
  // A capture just outside the tree, reachable by "..".
  const fs::path outside = tree.root() / "outside" / "TDF";
  CaptureTree::writeFile(outside / "metadata", VSKTspServer::samples::defaultMetadata("X/Out", "TDF").dump());
  CaptureTree::writeFile(outside / "tdf_data.json", VSKTspServer::samples::tdfDocument(1).dump());
  serve();
  const std::vector<std::string> uris = {outside.string(),
                                         (tree.liveTargets() / "../../../outside/TDF").string(),
                                         "LiveTarget/../../../outside", ""};
  for (const auto& uri : uris) {
    auto res = postJson("/tsp/api/traces", {{"parameters", {{"uri", uri}, {"name", "x"}}}});
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 400) << uri;
    EXPECT_TRUE(res->get_header_value("EXCEPTION_WHAT").empty()) << uri;
  }
  auto scan = postJson("/tsp/api/experiments",
                       {{"parameters", {{"name", "LiveTarget/../../../outside"}, {"traces", json::array()}}}});
  ASSERT_TRUE(scan);
  EXPECT_EQ(scan->status, 400);
  // The bare word scans the whole live tree instead of failing.
  auto whole = postJson("/tsp/api/traces", {{"parameters", {{"uri", "LiveTarget"}}}});
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->status, 200);
  EXPECT_EQ(json::parse(whole->body)["name"], "TDF");
  ASSERT_TRUE(rescan());
  EXPECT_EQ(experimentNames(), std::vector<std::string>{"A_TDF"}) << "the scan of \"..\" made nothing";
}

TEST_F(SecurityTest, DataFilesThatLeaveTheCaptureDirectoryAreNotRead) {
  CaptureTree::writeFile(tree.root() / "secret.json", VSKTspServer::samples::tdfDocument(7).dump());
  const fs::path outsideBin = tree.root() / "outside.bin";
  CaptureTree::writeFile(outsideBin, std::string(64, 'x'));
  addTdf("Probe/Good");
  const std::vector<std::string> escapes = {"../../../../../secret.json",
                                             "../../../../../../../../../../etc/passwd"};
  for (size_t i = 0; i < escapes.size(); ++i) {
    const std::string target = "Probe/Bad" + std::to_string(i);
    auto meta = VSKTspServer::samples::defaultMetadata(target, "TDF");
    meta["dataFile"] = escapes[i];
    tree.addLiveCapture(target, "TDF", meta);
  }
  // A link in a capture directory that points out of the tree.
  auto linked = tree.addLiveCapture("Probe/Linked", "TDF");
  fs::create_symlink(tree.root() / "secret.json", linked / "tdf_data.json");
  serve();
  running->server().refreshLive();
  EXPECT_EQ(experimentNames(), std::vector<std::string>{"Good_TDF"});
}

TEST_F(SecurityTest, SymbolicLinkLoopsEndTheirBranchNotTheScan) {
  addTdf("Probe/A");
  fs::create_directories(tree.liveTargets() / "Loop");
  fs::create_directory_symlink(tree.liveTargets() / "Loop", tree.liveTargets() / "Loop" / "again");
  fs::create_directory_symlink(tree.liveTargets(), tree.liveTargets() / "Loop" / "top");
  fs::create_directory_symlink("/", tree.liveTargets() / "root");
  serve();
  const auto start = Clock::now();
  running->server().refreshLive();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(experimentNames(), std::vector<std::string>{"A_TDF"});
}

// ---- One bad capture hides nothing ------------------------------------------

TEST_F(SecurityTest, EachCaptureLoadsOrFailsOnItsOwnAndARepairIsPickedUp) {
  addTdf("Probe/Good1");
  addTdf("Probe/Good2");
  auto mtb = tree.addLiveCapture("Probe/Good3", "MTB");
  CaptureTree::writeFile(mtb / "mtb_data.json", VSKTspServer::samples::mtbDocument(2, 2).dump());
  const std::string good = VSKTspServer::samples::defaultMetadata("Probe/Broken", "TDF").dump();
  CaptureTree::writeFile(tree.liveTargets() / "Probe/Broken/TDF/metadata", good.substr(0, 20));
  CaptureTree::writeFile(tree.liveTargets() / "Probe/Garbage/TDF/metadata", "\x01\xff garbage");
  tree.addLiveCapture("Probe/NumberType", "TDF", {{"typeId", 7}, {"device", "Probe/NumberType"}});
  tree.addLiveCapture("Probe/Unknown", "TDF", {{"typeId", "BOGUS"}, {"device", "Probe/Unknown"}});
  tree.addLiveCapture("Probe/NoDevice", "TDF", {{"typeId", "TDF"}});
  auto truncated = tree.addLiveCapture("Probe/Truncated", "MTB");
  CaptureTree::writeFile(truncated / "mtb_data.json", VSKTspServer::samples::mtbDocument(2, 2).dump().substr(0, 30));
  serve();
  running->server().refreshLive();
  EXPECT_EQ(experimentNames(),
            (std::vector<std::string>{"Good1_TDF", "Good2_TDF", "Good3_CoreTrace"}));
  // A capture with a name and a kind whose data does not load is listed as a
  // failed load, with no outputs; the others are only in the log.
  ASSERT_EQ(experimentNames("RUNNING"), std::vector<std::string>{"Truncated_CoreTrace"});
  for (const auto& e : json::parse(client->Get("/tsp/api/experiments")->body)) {
    if (e["indexingStatus"] != "RUNNING") continue;
    auto outputs = client->Get("/tsp/api/experiments/" + e["UUID"].get<std::string>() + "/outputs");
    ASSERT_TRUE(outputs);
    EXPECT_EQ(outputs->status, 200);
    EXPECT_EQ(json::parse(outputs->body), json::array());
  }

  // Repaired on disk: the next scan brings both back, and answers with one.
  CaptureTree::writeFile(tree.liveTargets() / "Probe/Broken/TDF/metadata", good);
  CaptureTree::writeFile(tree.liveTargets() / "Probe/Broken/TDF/tdf_data.json",
                         VSKTspServer::samples::tdfDocument(2).dump());
  CaptureTree::writeFile(truncated / "mtb_data.json", VSKTspServer::samples::mtbDocument(2, 2).dump());
  auto res = rescan();
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(experimentNames(), (std::vector<std::string>{"Broken_TDF", "Good1_TDF", "Good2_TDF",
                                                         "Good3_CoreTrace", "Truncated_CoreTrace"}));
  EXPECT_TRUE(experimentNames("RUNNING").empty());
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
  auto huge = client->Post(lines, R"({"parameters":{"requested_table_index":0,"requested_table_count":1000000000}})",
                           "application/json");
  ASSERT_TRUE(huge);
  ASSERT_EQ(huge->status, 200);
  EXPECT_EQ(json::parse(huge->body)["model"]["lines"].size(), static_cast<size_t>(TspApi::kMaxTableLines));
  auto wrapped = client->Post(lines, R"({"parameters":{"requested_table_index":18446744073709551616,"requested_table_count":5}})",
                              "application/json");
  ASSERT_TRUE(wrapped);
  ASSERT_EQ(wrapped->status, 200);
  EXPECT_TRUE(json::parse(wrapped->body)["model"]["lines"].empty());
  auto big = client->Post(lines, std::string(2 << 20, ' '), "application/json");
  ASSERT_TRUE(big);
  EXPECT_EQ(big->status, 413);
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

TEST_F(SecurityTest, PipelinedRequestsAreAllAnswered) {
  serve();
  RawConnection c(running->port());
  ASSERT_TRUE(c.connected());
  const std::string get = "GET /tsp/api/health HTTP/1.1\r\nHost: localhost\r\n\r\n";
  c.send(get + get + "GET /tsp/api/health HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(count(c.readAll(), R"({"status":"UP"})"), 3u);
}

// ---- Both loopback families --------------------------------------------------

TEST_F(SecurityTest, ServesTheIpv6LoopbackToo) {
  serve();
  RawConnection v6(running->port(), true);
  if (!v6.connected()) GTEST_SKIP() << "no IPv6 loopback on this machine";
  v6.send("GET /tsp/api/health HTTP/1.1\r\nHost: [::1]\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(count(v6.readAll(), R"({"status":"UP"})"), 1u);
}

}  // namespace
}  // namespace VSKTspServer
