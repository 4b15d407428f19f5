// TspServer: the embedded HTTP front of the trace server.
//
// Owns one HTTP server on "localhost" (`port`, 1239 unless set). `run` blocks
// in the calling thread until the listener stops (GET "/stop" or
// `terminate`); requests are served by the HTTP library's worker pool,
// strictly one at a time: every request holds `tspMutex` from before routing
// until its response is complete. `refresh`, `refreshLive`, `getDataBroker`
// and `exportCaptureToCSV` take the same mutex, so nothing touches the model
// beside a request.
//
// Beside the protocol it serves the browser viewer: the files of
// `viewerDirectory` under "/" (the page at "/", its assets beside it). The
// viewer is a client like any other and reads everything through the
// protocol routes; its files do not touch the model, so they are served
// without `tspMutex` and a page loads while a long request runs.
//
// Errors: a route reports a known failure with a status code; any exception
// becomes status 500 with the header EXCEPTION_WHAT; every status of 400 or
// more goes out as one small HTML page.
//
// Threads: `run` on one thread of the owner's choosing (the capture side uses
// a detached thread); every other operation is thread-safe, but `terminate`
// must not be called from a request handler, because it waits for the
// handlers to drain.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

namespace httplib {
class Server;
}

namespace VSKTspServer {

class DataBroker;
class ModelManager;

// Serialises every request with the model operations of the capture side.
extern std::mutex tspMutex;
// The one model manager; set by `run` before any route can run, cleared by
// `terminate` after the last request has ended. Read it under `tspMutex`.
extern ModelManager* theModelManager;
// Put in front of every protocol route; "/stop" stands outside it.
extern const std::string tspApiPrefix;

class TspServer {
 public:
  static constexpr int kDefaultPort = 1239;

  TspServer();
  TspServer(const TspServer&) = delete;
  TspServer& operator=(const TspServer&) = delete;
  ~TspServer();

  // Registers the routes, sets `started`, then listens until stopped.
  // Returns at once when the HTTP server cannot be made or the port cannot
  // be bound (see `listenFailed`). Call at most once per object.
  void run();
  // Stops the listener, waits for `run` to leave the listener and for the
  // workers to finish their requests, then releases the server and the
  // model manager. Idempotent.
  void terminate();

  // Refreshes one experiment by UUID, or every experiment for "".
  void refresh(std::string usecase);
  // Rescans the live-target tree: new captures become experiments, vanished
  // ones are removed, the rest are refreshed.
  void refreshLive();
  // The data broker of the model manager; null before `run` and after
  // `terminate`. The broker lives as long as the model manager.
  DataBroker* getDataBroker();
  // CSV export of a capture, serialised with the requests. 0 on success;
  // -1 when there is no model manager.
  int exportCaptureToCSV(std::string target, std::string type, std::string file);

  bool isStarted() const { return started.load(std::memory_order_acquire); }
  // True once `run` has given up because the port could not be bound (or the
  // server could not be made). The listener then serves nothing; a host
  // program should tell its user.
  bool listenFailed() const { return listenFailed_.load(std::memory_order_acquire); }
  // True while `run` is inside the listener.
  bool isListening() const;

  // Where the viewer's files lie: the "viewer" folder of the install base,
  // which a build tree has at <build>/vsk_base/viewer. A program that links
  // the server (not the module) lives in <prefix>/bin, beside vsk_base.
  static std::string defaultViewerDirectory();

  int port = kDefaultPort;
  // The folder served under "/"; empty takes `defaultViewerDirectory()`.
  // Set before `run`.
  std::string viewerDirectory;
  // Written by the `run` thread, polled by the thread that started it.
  std::atomic<bool> started{false};

 private:
  // Everything of `run` after the server object exists.
  void serve(httplib::Server& srv);

  std::unique_ptr<httplib::Server> server;  // guarded by lifecycleMutex_
  bool running_ = false;                    // guarded by lifecycleMutex_: `run` is past setup
  bool terminating_ = false;                // guarded by lifecycleMutex_
  std::atomic<bool> listenFailed_{false};
  // The manager this object made; it destroys only its own. Guarded by tspMutex.
  ModelManager* ownManager_ = nullptr;
  mutable std::mutex lifecycleMutex_;  // guards server, running_, terminating_
  std::condition_variable listenEnded_;
};

// Makes a server object for the module's CreateServer export: null when
// construction throws. The caller owns the object.
TspServer* createServer() noexcept;

}  // namespace VSKTspServer
