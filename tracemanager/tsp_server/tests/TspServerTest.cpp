#include "tsp_server/TspServer.hpp"

#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "RouteTranscript.hpp"
#include "tsp_server/ModelManager.hpp"

namespace VSKTspServer {
namespace {

using ostrand_test::CaptureTree;
using ostrand_test::errorPage;
using ostrand_test::freeLoopbackPort;
using ostrand_test::RunningServer;

// A request line the library rejects before routing still passes the
// post-routing handler; it must not release a lock it never took.
TEST(TspServerTest, RequestRejectedBeforeRoutingLeavesTheLockIntact) {
  CaptureTree tree;
  RunningServer running;
  for (int i = 0; i < 3; ++i) {
    httplib::Client raw("localhost", running.port());
    auto res = raw.Get(std::string(9000, 'x').insert(0, "/"));  // URI too long
    ASSERT_TRUE(res);
    EXPECT_GE(res->status, 400);
    EXPECT_EQ(res->body, errorPage(res->status));
  }
  auto good = running.client()->Get("/tsp/api/health");
  ASSERT_TRUE(good);
  EXPECT_EQ(good->status, 200);
  // The lock is free again: the capture side can take it.
  running.server().refresh("");
}

TEST(TspServerTest, StopAnswersEmpty200ThenRefusesConnectionsAndTerminateStillWorks) {
  CaptureTree tree;
  RunningServer running;
  auto res = running.client()->Get("/stop");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_TRUE(res->body.empty());
  running.join();  // run returns once the listener has stopped
  EXPECT_FALSE(running.server().isListening());
  EXPECT_FALSE(running.client()->Get("/tsp/api/health"));
  // The model stays until terminate.
  EXPECT_NE(running.server().getDataBroker(), nullptr);
  running.server().terminate();
  running.server().terminate();
  EXPECT_EQ(running.server().getDataBroker(), nullptr);
  EXPECT_EQ(theModelManager, nullptr);
}

TEST(TspServerTest, OperationsBeforeRunDoNothing) {
  TspServer server;
  server.refresh("");
  server.refreshLive();
  EXPECT_EQ(server.getDataBroker(), nullptr);
  EXPECT_EQ(server.exportCaptureToCSV("t", "MTB", ""), -1);
  server.terminate();
  server.run();  // a terminated object does not serve
  EXPECT_FALSE(server.isStarted());
}

// A port taken by another program, or held by an HTTP server that shares
// ports (SO_REUSEPORT, the library's default), is reported, and run returns
// at once.
TEST(TspServerTest, TakenPortIsReportedAndRunReturns) {
  CaptureTree tree;
  const int blocked = ostrand_test::freeLoopbackPort();
  // "localhost" may stand for both loopback addresses; the server takes
  // whichever it can bind, so the port is taken only when both are.
  ostrand_test::PortBlocker blocker(blocked);
  ASSERT_TRUE(blocker.blocking());
  const int shared = ostrand_test::freeLoopbackPort();
  httplib::Server other;
  ASSERT_TRUE(other.bind_to_port("127.0.0.1", shared));
  for (int port : {blocked, shared}) {
    TspServer server;
    server.port = port;
    server.run();
    EXPECT_TRUE(server.isStarted()) << port;
    EXPECT_TRUE(server.listenFailed()) << port;
    server.terminate();
    EXPECT_EQ(theModelManager, nullptr) << port;
  }
}

TEST(TspServerTest, SecondServerInTheProcessDoesNotTakeOverTheModel) {
  CaptureTree tree;
  RunningServer first;
  ModelManager* model = theModelManager;
  TspServer second;
  second.port = ostrand_test::freeLoopbackPort();
  second.run();
  EXPECT_TRUE(second.listenFailed());
  second.terminate();
  EXPECT_EQ(theModelManager, model);
  auto res = first.client()->Get("/tsp/api/health");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
}

// An idle keep-alive connection holds its worker until the library's
// keep-alive timeout (5 s); terminate waits for it rather than destroying
// the server under it, and then returns.
TEST(TspServerTest, TerminateWithAnOpenKeepAliveConnectionReturns) {
  CaptureTree tree;
  auto running = std::make_unique<RunningServer>();
  auto client = running->client();
  client->set_keep_alive(true);
  ASSERT_TRUE(client->Get("/tsp/api/health"));
  const auto begin = std::chrono::steady_clock::now();
  running.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8));
}

// Requests from several connections and the capture side's calls run beside
// each other without a data race (the ThreadSanitizer build checks this).
TEST(TspServerTest, RequestsAndCaptureSideCallsAreSerialised) {
  CaptureTree tree;
  tree.addLiveCapture("Probe/M4", "TDF");
  RunningServer running;
  std::atomic<int> ok{0};
  std::vector<std::thread> clients;
  for (int t = 0; t < 4; ++t) {
    clients.emplace_back([&] {
      auto client = running.client();
      for (int i = 0; i < 10; ++i) {
        auto res = client->Get("/tsp/api/experiments");
        if (res && res->status == 200) ++ok;
      }
    });
  }
  for (int i = 0; i < 10; ++i) {
    running.server().refreshLive();
    running.server().refresh("");
  }
  for (auto& c : clients) c.join();
  EXPECT_EQ(ok.load(), 40);
}

// The viewer's files under "/", beside protocol routes that answer as
// before, and nothing outside the viewer's folder (golden/viewer.http); a
// server whose viewer folder is missing names it at the root
// (golden/no-viewer.http).
TEST(TspServerTest, ViewerFilesAreServedBesideUnchangedProtocolRoutes) {
  for (const char* name : {"viewer", "no-viewer"}) {
    CaptureTree tree;
    ostrand_test::writeFile(tree.root() / "viewer/index.html", "<!doctype html><title>v</title>");
    ostrand_test::writeFile(tree.root() / "viewer/app.js", "export {};");
    ostrand_test::writeFile(tree.root() / "secret.txt", "not for the web");
    RunningServer running(freeLoopbackPort(), (tree.root() / name).string());
    ostrand_test::RouteTranscript transcript(running, tree);
    EXPECT_TRUE(
        transcript.run(ostrand_test::sourcePath("tracemanager/tsp_server/tests/golden/") + name));
  }
}

// Browsers offer brotli first; at the library's quality it took seconds
// for a large answer, so such a client gets gzip, with the same body.
TEST(TspServerTest, ClientOfferingBrotliGetsGzipOrPlainText) {
  CaptureTree tree;
  RunningServer running;
  for (const char* offer : {"br", "gzip, deflate, br", "br;q=1.0, gzip;q=0.8"}) {
    auto res = running.client()->Get("/tsp/api/health", {{"Accept-Encoding", offer}});
    ASSERT_TRUE(res) << offer;
    EXPECT_NE(res->get_header_value("Content-Encoding"), "br") << offer;
    EXPECT_EQ(res->body, R"({"status":"UP"})") << offer;
  }
}

}  // namespace
}  // namespace VSKTspServer
