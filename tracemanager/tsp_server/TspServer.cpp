#include "tsp_server/TspServer.hpp"

#include <arpa/inet.h>
#include <malloc.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>
#include <utility>
#include <vector>

#include "source_utilities/Logger.hpp"
#include "source_utilities/uEnvironment.hpp"
#include "tsp_server/LoopbackHttpServer.hpp"
#include "tsp_server/ModelManager.hpp"
#include "tsp_server/RequestGuard.hpp"
#include "tsp_server/TspApi.hpp"

namespace VSKTspServer {

std::mutex tspMutex;
ModelManager* theModelManager = nullptr;
const std::string tspApiPrefix = "/tsp/api";

namespace {

// Whether the request running on this pool thread took `tspMutex` in the
// pre-routing handler. The library calls the post-routing handler also for
// answers made before routing (a malformed request line, a URI too long),
// where nothing was locked; only the request that took the lock releases it.
// Lock and unlock of one request happen on the same pool thread, and a pool
// thread serves one request at a time, so a thread-local marker is exact.
thread_local bool tHoldsTspLock = false;

void lockForRequest() {
  // A request that ended without reaching the post-routing handler would
  // leave the marker set; this thread still owns the lock then, and locking
  // again would deadlock.
  if (tHoldsTspLock) return;
  tspMutex.lock();
  tHoldsTspLock = true;
}

void unlockForRequest() {
  if (!tHoldsTspLock) return;
  tHoldsTspLock = false;
  tspMutex.unlock();
}

// Requests that read or change the model: the protocol routes and "/stop".
// Everything else is a viewer file or an unknown path.
bool needsModelLock(const std::string& path) {
  return path.rfind(tspApiPrefix, 0) == 0 || path == "/stop";
}

// The HTTP library compresses an answer with brotli whenever the client
// offers it, at brotli's highest quality, which packs about 1 MB a second:
// a state graph answer of a long capture took seconds for every browser,
// against a tenth of a second to build it. Gzip costs little beside building
// the answer, so "br" is taken out of what the client offers and such a
// client gets gzip. The request object is the library's own, not const.
void offerNoBrotli(const httplib::Request& req) {
  auto& headers = const_cast<httplib::Headers&>(req.headers);
  auto it = headers.find("Accept-Encoding");
  if (it == headers.end() || it->second.find("br") == std::string::npos) return;
  std::string kept;
  std::size_t from = 0;
  while (from <= it->second.size()) {
    std::size_t comma = it->second.find(',', from);
    if (comma == std::string::npos) comma = it->second.size();
    std::string token = it->second.substr(from, comma - from);
    token.erase(0, token.find_first_not_of(' '));
    if (!token.empty() && token.substr(0, token.find_first_of(" ;")) != "br")
      kept += (kept.empty() ? "" : ", ") + token;
    from = comma + 1;
  }
  it->second = kept;
}

// Without the viewer's files "/" still says what is missing, instead of a
// bare 404 that reads as a broken server.
constexpr const char* kViewerMissingPage =
    "<!doctype html><title>Ostrand trace server</title>"
    "<p>This trace server serves the Trace Server Protocol under /tsp/api, but the viewer's "
    "files were not found in %s. Build them with <code>cmake --build build --target "
    "ostrand_viewer</code>.</p>";

void mountViewer(httplib::Server& srv, const std::string& dir) {
  for (const auto& [ext, type] :
       {std::pair{"js", "text/javascript"}, {"mjs", "text/javascript"}, {"css", "text/css"},
        {"html", "text/html"}, {"svg", "image/svg+xml"}, {"map", "application/json"}})
    srv.set_file_extension_and_mimetype_mapping(ext, type);
  // A rebuilt viewer must not be hidden by a browser's cache.
  if (srv.set_mount_point("/", dir, {{"Cache-Control", "no-cache"}})) return;
  QX_LOG_WARNING("TSP viewer files not found in %s", dir.c_str());
  srv.Get("/", [dir](const httplib::Request&, httplib::Response& res) {
    std::vector<char> page(std::strlen(kViewerMissingPage) + dir.size());
    std::snprintf(page.data(), page.size(), kViewerMissingPage, dir.c_str());
    res.set_content(page.data(), "text/html");
  });
}

void errorPage(const httplib::Request&, httplib::Response& res) {
  char page[512];
  std::snprintf(page, sizeof page, "<p>Error Status: <span style='color:red;'>%d</span></p>",
                res.status);
  res.set_content(page, "text/html");
}

// A request the guard refuses is answered 403 before routing, without the
// model lock.
bool refuseForeign(const httplib::Request& req, httplib::Response& res, int port) {
  const RequestFacts facts{req.method,
                           req.path,
                           req.get_header_value("Host"),
                           req.get_header_value("Origin"),
                           req.get_header_value("Referer"),
                           req.get_header_value("Sec-Fetch-Site")};
  const RequestVerdict verdict = judgeRequest(facts, port);
  if (verdict == RequestVerdict::kAllow) return false;
  QX_LOG_ERROR("VSKTspServer::TspServer: refused %s %s (Host '%s', Origin '%s'): %s",
               req.method.c_str(), req.path.c_str(), facts.host.c_str(), facts.origin.c_str(),
               verdict == RequestVerdict::kForeignHost ? "not addressed to this machine's loopback"
                                                       : "sent by another site");
  res.status = 403;
  return true;
}

// Each worker thread allocates from a heap arena of its own, and the C
// library keeps what a request freed for the next request of that thread:
// after a burst on 32 workers the process stayed tens of megabytes above its
// level. After an answer has been written, at most once a second, the free
// memory goes back to the system (it costs a few milliseconds, outside the
// model lock).
void returnFreedMemory() {
  using Clock = std::chrono::steady_clock;
  static std::atomic<int64_t> lastTrim{0};
  const int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                          Clock::now().time_since_epoch())
                          .count();
  int64_t last = lastTrim.load(std::memory_order_relaxed);
  if (now - last < 1000 || !lastTrim.compare_exchange_strong(last, now)) return;
  ::malloc_trim(0);
}

void accessLog(const httplib::Request& req, const httplib::Response& res) {
  returnFreedMemory();
  if (QX_LOG_LEVEL() >= 3) {
    Logger::instance().log(QX_NLV::kLogFunction, 0, "TSPServer: %s(%s) => [%d]",
                           req.method.c_str(), req.path.c_str(), res.status);
  }
}

// Listening sockets of this server may not share their port. The library
// sets SO_REUSEPORT, with which a second server (of any process) binds the
// same port silently and the kernel splits the connections between the two.
void exclusivePortOptions(socket_t sock) {
  int yes = 1;
  ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

bool addressAvailable(int family, const sockaddr* address, socklen_t length) {
  const int fd = ::socket(family, SOCK_STREAM, 0);
  if (fd < 0) return false;
  exclusivePortOptions(fd);
  const bool ok = ::bind(fd, address, length) == 0 || errno == EADDRINUSE;
  ::close(fd);
  return ok;
}

// Whether this machine has an IPv6 loopback (a container may not).
bool haveIpv6Loopback() {
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_addr = in6addr_loopback;
  return addressAvailable(AF_INET6, reinterpret_cast<const sockaddr*>(&v6), sizeof v6);
}

bool addressInUse(int family, const sockaddr* address, socklen_t length) {
  const int fd = ::socket(family, SOCK_STREAM, 0);
  if (fd < 0) return false;  // family not available here
  exclusivePortOptions(fd);
  const bool inUse = ::bind(fd, address, length) != 0 && errno == EADDRINUSE;
  ::close(fd);
  return inUse;
}

// "localhost" stands for both loopback addresses and a client may try
// either, so the server listens on both. A port held on either one counts as
// taken: a server on the other alone would miss every client that resolves
// to the first.
bool loopbackPortTaken(int port) {
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  v4.sin_port = htons(static_cast<uint16_t>(port));
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_addr = in6addr_loopback;
  v6.sin6_port = htons(static_cast<uint16_t>(port));
  return addressInUse(AF_INET, reinterpret_cast<const sockaddr*>(&v4), sizeof v4) ||
         addressInUse(AF_INET6, reinterpret_cast<const sockaddr*>(&v6), sizeof v6);
}

}  // namespace

TspServer::TspServer() = default;

TspServer::~TspServer() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TspServer::~TspServer");
  try {
    terminate();
  } catch (const std::exception& e) {
    QX_LOG_ERROR("VSKTspServer::TspServer::~TspServer: %s", e.what());
  }
}

namespace {

// The limits of every connection; what each guards is said where it is
// declared.
const HttpLimits kLimits{};

// Asks a listener to stop until `done` says its listen call returned; a
// stop before the listener runs does nothing.
void stopUntil(httplib::Server& server, const std::atomic<bool>& done) {
  while (!done.load(std::memory_order_acquire)) {
    server.stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace

void TspServer::run() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TspServer::run");
  if (QX_LOG_LEVEL() >= 3) Logger::instance().log(QX_NLV::kLogMessage, 0, "Create TSP HTTP server");
  LoopbackHttpServer* srv = nullptr;
  LoopbackHttpServer* srv6 = nullptr;
  {
    std::lock_guard lock(lifecycleMutex_);
    // One run per object; a terminated object stays terminated.
    if (terminating_ || server) return;
    auto primary = std::make_unique<LoopbackHttpServer>(kLimits);
    srv = primary.get();
    server = std::move(primary);
    if (haveIpv6Loopback()) {
      auto secondary = std::make_unique<LoopbackHttpServer>(kLimits);
      srv6 = secondary.get();
      server6_ = std::move(secondary);
    }
    running_ = true;
  }
  serve(*srv, srv6);
  // Notified under the lock: a terminate that waits may destroy the object
  // as soon as it has the lock back, and a detached run thread must not
  // touch it after that.
  std::lock_guard lock(lifecycleMutex_);
  running_ = false;
  listenEnded_.notify_all();
}

void TspServer::configure(LoopbackHttpServer& srv, LoopbackHttpServer* srv6) {
  const int servedPort = port;
  srv.set_error_handler(errorPage);
  srv.set_logger(accessLog);
  srv.set_pre_routing_handler([servedPort](const httplib::Request& req, httplib::Response& res) {
    if (refuseForeign(req, res, servedPort)) return httplib::Server::HandlerResponse::Handled;
    offerNoBrotli(req);
    if (needsModelLock(req.path)) lockForRequest();
    return httplib::Server::HandlerResponse::Unhandled;
  });
  srv.set_post_routing_handler(
      [](const httplib::Request&, httplib::Response&) { unlockForRequest(); });
  // Without this a keep-alive answer waits for the client's delayed ACK
  // (about 40 ms) under Nagle's algorithm. It changes latency only.
  srv.set_tcp_nodelay(true);
  srv.extraSocketOptions = exclusivePortOptions;
  // "/stop" ends both listeners, whichever one it came through.
  LoopbackHttpServer* primary = server ? static_cast<LoopbackHttpServer*>(server.get()) : &srv;
  srv.Get("/stop", [primary, srv6](const httplib::Request&, httplib::Response&) {
    primary->stop();
    if (srv6) srv6->stop();
  });
}

void TspServer::serve(LoopbackHttpServer& srv, LoopbackHttpServer* srv6) {
  if (!srv.is_valid() || (srv6 && !srv6->is_valid())) {
    if (QX_LOG_LEVEL() >= 1)
      Logger::instance().log(QX_NLV::kLogError, 0, "Failed: Create TSP HTTP server");
    listenFailed_.store(true, std::memory_order_release);
    return;
  }
  configure(srv, srv6);
  if (srv6) configure(*srv6, srv6);

  {
    std::lock_guard lock(tspMutex);
    // The routes reach the model through the one process-wide pointer, so
    // only one server object may serve at a time.
    if (theModelManager) {
      QX_LOG_ERROR("VSKTspServer::TspServer::run: another trace server is already serving");
      listenFailed_.store(true, std::memory_order_release);
      return;
    }
    ownManager_ = new ModelManager(&srv);
    theModelManager = ownManager_;
  }
  TspApi::registerRoutes(srv);
  if (srv6) TspApi::registerRoutes(*srv6);
  const std::string viewerDir = viewerDirectory.empty() ? defaultViewerDirectory() : viewerDirectory;
  mountViewer(srv, viewerDir);
  if (srv6) mountViewer(*srv6, viewerDir);
  {
    std::lock_guard lock(tspMutex);
    ownManager_->setStatus("UP");
  }
  started.store(true, std::memory_order_release);
  if (QX_LOG_LEVEL() >= 3)
    Logger::instance().log(QX_NLV::kLogMessage, 0, "TSP HTTP server listening to %d", port);

  {
    std::lock_guard lock(lifecycleMutex_);
    if (terminating_) return;
  }
  // listen() is bind plus accept loop; the two steps are taken apart only
  // to tell a taken port from a stop.
  if (loopbackPortTaken(port) || !srv.bindLoopback("127.0.0.1", port) ||
      (srv6 && !srv6->bindLoopback("::1", port))) {
    // Taken between the check and the bind: free the address that was bound.
    srv.releaseBinding();
    if (srv6) srv6->releaseBinding();
    listenFailed_.store(true, std::memory_order_release);
    return;
  }
  std::atomic<bool> secondDone{false};
  std::thread second;
  if (srv6) {
    second = std::thread([srv6, &secondDone] {
      try {
        srv6->listen_after_bind();
      } catch (const std::exception& e) {
        QX_LOG_ERROR("VSKTspServer::TspServer::run: IPv6 listener: %s", e.what());
      }
      secondDone.store(true, std::memory_order_release);
    });
  }
  srv.listen_after_bind();
  // Either listener ending ends both: "/stop" and terminate stop both, and
  // a failed accept loop on one must not leave the other serving alone.
  if (srv6) {
    stopUntil(*srv6, secondDone);
    second.join();
  }
}

bool TspServer::isListening() const {
  std::lock_guard lock(lifecycleMutex_);
  return running_ && server && server->is_running();
}

void TspServer::terminate() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TspServer::terminate");
  std::unique_ptr<httplib::Server> stopped;
  std::unique_ptr<httplib::Server> stopped6;
  {
    std::unique_lock lock(lifecycleMutex_);
    terminating_ = true;
    // stop() does nothing until the listener runs, so keep asking until
    // `run` has left the listeners. When listen returns, the library has
    // joined its workers: no request is in flight any more.
    while (running_) {
      if (server) server->stop();
      if (server6_) server6_->stop();
      listenEnded_.wait_for(lock, std::chrono::milliseconds(20));
    }
    stopped = std::move(server);
    stopped6 = std::move(server6_);
  }
  stopped.reset();
  stopped6.reset();

  ModelManager* manager = nullptr;
  {
    std::lock_guard lock(tspMutex);
    manager = ownManager_;
    ownManager_ = nullptr;
    if (theModelManager == manager) theModelManager = nullptr;
  }
  if (manager) {
    QX_TRACE_NAME("%s(...)\n", "VSKTspServer::ModelManager::~ModelManager");
    delete manager;
  }
}

void TspServer::refresh(std::string usecase) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TspServer::refresh");
  QX_TRACE_ARG("usecase", usecase.c_str());
  std::lock_guard lock(tspMutex);
  if (theModelManager) theModelManager->refreshExperiment(usecase);
}

void TspServer::refreshLive() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TspServer::refreshLive");
  std::lock_guard lock(tspMutex);
  if (theModelManager) theModelManager->openExperiment("LiveTarget", {});
}

DataBroker* TspServer::getDataBroker() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TspServer::getDataBroker");
  std::lock_guard lock(tspMutex);
  return theModelManager ? theModelManager->getDataBroker() : nullptr;
}

int TspServer::exportCaptureToCSV(std::string target, std::string type, std::string file) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TspServer::exportCaptureToCSV");
  std::lock_guard lock(tspMutex);
  if (!theModelManager) return -1;
  return theModelManager->exportCaptureToCSV(std::move(target), std::move(type), std::move(file));
}

std::string TspServer::defaultViewerDirectory() {
  namespace fs = std::filesystem;
  const std::string base = QX_NLV::baseDirectory();
  if (base.empty()) return "viewer";
  // The module: "<prefix>/vsk_base/". A program linking the server:
  // "<prefix>/bin/<program>".
  if (base.back() == '/') return base + "viewer";
  return (fs::path(base).parent_path().parent_path() / "vsk_base" / "viewer").string();
}

TspServer* createServer() noexcept {
  try {
    return new TspServer();
  } catch (...) {
    return nullptr;
  }
}

}  // namespace VSKTspServer
