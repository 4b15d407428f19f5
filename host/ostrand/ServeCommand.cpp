// `ostrand serve`: the trace server alone over a data tree.
//
// Runs the module's trace server in this process (linked in, no probe or
// tool library needed), scans the live-target tree once at start so the
// captures already on disk are experiments, and serves until Ctrl-C,
// SIGTERM or GET /stop.
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "ostrand/ArgReader.hpp"
#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"
#include "source_utilities/Logger.hpp"
#include "tsp_server/ExperimentKinds.hpp"
#include "tsp_server/MetadataDiscovery.hpp"
#include "tsp_server/TspServer.hpp"
#include "wattline/WLExperimentKind.hpp"

namespace ostrand {

namespace {

void printServeUsage(FILE* out) {
  std::fprintf(out,
               "usage: ostrand serve [--data DIR] [--port N]\n\n"
               "Serve the captures of a data tree to a trace viewer over the Trace Server\n"
               "Protocol on http://localhost:N/tsp/api, and the browser viewer on\n"
               "http://localhost:N/.\n\n"
               "  --data DIR   use DIR as the user directory: captures are read from\n"
               "               DIR/.QX-trace/data/live-targets (default: $USERPROFILE,\n"
               "               else $HOME)\n"
               "  --port N     TCP port on localhost (default 1239)\n"
               "  --help       show this text\n\n"
               "Stops on Ctrl-C, SIGTERM or GET http://localhost:N/stop.\n");
}

struct ServeOptions {
  std::string dataDir;
  int port = VSKTspServer::TspServer::kDefaultPort;
};

// 0 when the options are good, else the exit code (the message is printed).
int parseServeOptions(int argc, char** argv, ServeOptions& options, bool& help) {
  ArgReader args("ostrand serve", argc, argv);
  std::string value;
  while (args.next()) {
    if (args.isHelp()) {
      help = true;
      return 0;
    }
    if (!args.is("--data") && !args.is("--port")) return args.fail();
    if (!args.value(value)) return args.fail();
    if (args.is("--data")) {
      options.dataDir = value;
      continue;
    }
    char* end = nullptr;
    const long port = std::strtol(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || port < 1 || port > 65535)
      return args.fail("--port wants a number from 1 to 65535, not '" + value + "'");
    options.port = static_cast<int>(port);
  }
  return 0;
}

// `ostrand gen tdf` leaves .tdf recordings beside the data tree; they are
// no captures, so the scan does not show them. Say so rather than serve an
// empty list without a word.
void noteRecordings(const std::string& user) {
  const std::filesystem::path dir = std::filesystem::path(user) / ".QX-trace" / "recordings";
  std::error_code ec;
  size_t count = 0;
  for (auto it = std::filesystem::directory_iterator(dir, ec); !ec && it != std::filesystem::directory_iterator();
       it.increment(ec)) {
    count += it->path().extension() == ".tdf" ? 1 : 0;
  }
  if (count == 0) return;
  std::fprintf(stderr,
               "ostrand serve: %zu .tdf recording(s) in %s are not served: a recording is opened by a\n"
               "TDF session (cloudTrace.configureTDFSession, e.g. in `ostrand shell --sim`), whose\n"
               "trace server then serves its decoded table; see 'ostrand gen tdf --help'.\n",
               count, dir.c_str());
}

// The captures below `tree` by kind (the name of each capture directory).
std::map<std::string, size_t> capturesIn(const std::filesystem::path& tree) {
  std::error_code ec;
  if (!std::filesystem::is_directory(tree, ec)) return {};
  std::map<std::string, size_t> kinds;
  for (const auto& metadata : VSKTspServer::metadataFilesBelow(tree.string()))
    ++kinds[std::filesystem::path(metadata).parent_path().filename().string()];
  return kinds;
}

// What the scan read and found, so that an empty server is explained.
void reportScan(const std::string& userDir) {
  const std::filesystem::path data = std::filesystem::path(userDir) / ".QX-trace" / "data";
  const auto live = capturesIn(data / "live-targets");
  size_t total = 0;
  std::string kinds;
  for (const auto& [kind, count] : live) {
    total += count;
    kinds += (kinds.empty() ? "" : ", ") + std::to_string(count) + " " + kind;
  }
  std::printf("Scanned %s: %zu capture%s%s%s%s\n", (data / "live-targets").c_str(), total,
              total == 1 ? "" : "s", total ? " (" : "", kinds.c_str(), total ? ")" : "");
  if (total != 0) return;
  size_t elsewhere = 0;
  for (const auto& [kind, count] : capturesIn(data / "file-targets")) elsewhere += count;
  std::fprintf(stderr,
               "ostrand serve: nothing to serve; a capture is a folder below %s that holds a "
               "file named `metadata`\n",
               (data / "live-targets").c_str());
  if (elsewhere != 0)
    std::fprintf(stderr,
                 "ostrand serve: %zu capture%s in %s: a client opens those, the scan does not "
                 "(`ostrand gen tdf-table --tree live` writes TDF tables where the scan looks)\n",
                 elsewhere, elsewhere == 1 ? "" : "s", (data / "file-targets").c_str());
}

}  // namespace

int runServe(int argc, char** argv) {
  ServeOptions options;
  bool help = false;
  if (int rc = parseServeOptions(argc, argv, options, help); rc != 0) return rc;
  if (help) {
    printServeUsage(stdout);
    return kExitOk;
  }
  if (!options.dataDir.empty()) {
    std::error_code ec;
    if (!std::filesystem::is_directory(options.dataDir, ec)) {
      std::fprintf(stderr, "ostrand serve: data directory '%s' does not exist\n",
                   options.dataDir.c_str());
      return kExitBadInput;
    }
    // The server reads the user directory where the module does.
    ::setenv("USERPROFILE", std::filesystem::absolute(options.dataDir).c_str(), 1);
  }
  const std::string userDir = userDirectoryOr(options.dataDir, "ostrand serve", "--data DIR");
  if (userDir.empty()) return kExitUsage;

  // The server's own log (QX_TRACE_LOGGING) goes where the module's would.
  Logger::bootstrap();

  // Requests are served one at a time, but by up to 64 worker threads, and
  // the C library gives threads arenas of their own, each keeping what its
  // requests freed: under a burst of clients the process settled 25% above
  // its level for good. Two arenas keep it within a few megabytes. A host
  // that loads the module makes this choice for its own process.
  ::mallopt(M_ARENA_MAX, 2);

  // Signals are taken by sigtimedwait below; block them before any thread
  // exists, so every server thread inherits the mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  // Power captures are served by the Wattline library, which the server
  // itself does not link.
  VSKTspServer::registerWattlineKinds(VSKTspServer::registerExperimentKind);
  VSKTspServer::TspServer server;
  server.port = options.port;
  std::thread serving([&server] { server.run(); });
  // Bounded: binding either succeeds or fails within moments.
  for (int i = 0; i < 500 && !server.isListening() && !server.listenFailed(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (!server.isListening()) {
    server.terminate();
    serving.join();
    std::fprintf(stderr,
                 "ostrand serve: cannot listen on localhost:%d; the port is taken (another "
                 "trace server?). Stop that one or choose another with --port.\n",
                 options.port);
    return kExitUnavailable;
  }

  int rc = kExitOk;
  // Loading large captures takes a while; say so on a terminal.
  if (::isatty(STDERR_FILENO)) std::fprintf(stderr, "ostrand serve: loading the captures...\n");
  try {
    server.refreshLive();
  } catch (const std::exception& e) {
    // The server still serves; a later POST /tsp/api/experiments rescans.
    std::fprintf(stderr, "ostrand serve: scan of the data tree stopped: %s\n", e.what());
  }
  reportScan(userDir);
  noteRecordings(userDir);
  std::printf("Trace server on http://localhost:%d/tsp/api (data: %s)\n", options.port,
              options.dataDir.empty() ? "user directory" : options.dataDir.c_str());
  std::printf("Viewer: open http://localhost:%d/ in a browser\n", options.port);
  if (!std::filesystem::is_directory(VSKTspServer::TspServer::defaultViewerDirectory()))
    std::fprintf(stderr,
                 "ostrand serve: the viewer's files are missing (%s); build the target "
                 "ostrand_viewer\n",
                 VSKTspServer::TspServer::defaultViewerDirectory().c_str());
  std::printf("Open it in a trace viewer; stop with Ctrl-C or GET http://localhost:%d/stop\n",
              options.port);
  std::fflush(stdout);

  const timespec tick{0, 200'000'000};
  while (server.isListening()) {
    const int sig = sigtimedwait(&stopSignals, nullptr, &tick);
    if (sig == SIGINT || sig == SIGTERM) break;
    if (sig < 0 && errno != EAGAIN && errno != EINTR) {
      std::fprintf(stderr, "ostrand serve: waiting for signals failed: %s\n",
                   std::strerror(errno));
      rc = kExitFailure;
      break;
    }
  }
  server.terminate();
  serving.join();
  std::fprintf(stderr, "ostrand serve: stopped\n");
  return rc;
}

}  // namespace ostrand
