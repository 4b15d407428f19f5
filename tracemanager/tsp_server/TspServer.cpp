#include "TspServer.hpp"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "Logger.hpp"
#include "ModelManager.hpp"
#include "TspApi.hpp"
#include "uEnvironment.hpp"

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

void accessLog(const httplib::Request& req, const httplib::Response& res) {
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

bool addressInUse(int family, const sockaddr* address, socklen_t length) {
  const int fd = ::socket(family, SOCK_STREAM, 0);
  if (fd < 0) return false;  // family not available here
  exclusivePortOptions(fd);
  const bool inUse = ::bind(fd, address, length) != 0 && errno == EADDRINUSE;
  ::close(fd);
  return inUse;
}

// "localhost" stands for both loopback addresses, and the library binds the
// first one it can. A port held on either one counts as taken: a server on
// the other alone would miss every client that resolves to the first.
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

void TspServer::run() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TspServer::run");
  if (QX_LOG_LEVEL() >= 3) Logger::instance().log(QX_NLV::kLogMessage, 0, "Create TSP HTTP server");
  httplib::Server* srv = nullptr;
  {
    std::lock_guard lock(lifecycleMutex_);
    // One run per object; a terminated object stays terminated.
    if (terminating_ || server) return;
    server = std::make_unique<httplib::Server>();
    srv = server.get();
    running_ = true;
  }
  serve(*srv);
  // Notified under the lock: a terminate that waits may destroy the object
  // as soon as it has the lock back, and a detached run thread must not
  // touch it after that.
  std::lock_guard lock(lifecycleMutex_);
  running_ = false;
  listenEnded_.notify_all();
}

void TspServer::serve(httplib::Server& srv) {
  if (!srv.is_valid()) {
    if (QX_LOG_LEVEL() >= 1)
      Logger::instance().log(QX_NLV::kLogError, 0, "Failed: Create TSP HTTP server");
    listenFailed_.store(true, std::memory_order_release);
    return;
  }
  srv.set_error_handler(errorPage);
  srv.set_logger(accessLog);
  srv.set_pre_routing_handler([](const httplib::Request& req, httplib::Response&) {
    offerNoBrotli(req);
    if (needsModelLock(req.path)) lockForRequest();
    return httplib::Server::HandlerResponse::Unhandled;
  });
  srv.set_post_routing_handler(
      [](const httplib::Request&, httplib::Response&) { unlockForRequest(); });
  // Without this a keep-alive answer waits for the client's delayed ACK
  // (about 40 ms) under Nagle's algorithm. It changes latency only.
  srv.set_tcp_nodelay(true);
  srv.set_socket_options(exclusivePortOptions);
  srv.Get("/stop", [&srv](const httplib::Request&, httplib::Response&) { srv.stop(); });

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
  mountViewer(srv, viewerDirectory.empty() ? defaultViewerDirectory() : viewerDirectory);
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
  if (loopbackPortTaken(port) || !srv.bind_to_port("localhost", port)) {
    listenFailed_.store(true, std::memory_order_release);
    return;
  }
  srv.listen_after_bind();
}

bool TspServer::isListening() const {
  std::lock_guard lock(lifecycleMutex_);
  return running_ && server && server->is_running();
}

void TspServer::terminate() {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TspServer::terminate");
  std::unique_ptr<httplib::Server> stopped;
  {
    std::unique_lock lock(lifecycleMutex_);
    terminating_ = true;
    // stop() does nothing until the listener runs, so keep asking until
    // `run` has left the listener. When listen returns, the library has
    // joined its workers: no request is in flight any more.
    while (running_) {
      if (server) server->stop();
      listenEnded_.wait_for(lock, std::chrono::milliseconds(20));
    }
    stopped = std::move(server);
  }
  stopped.reset();

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
