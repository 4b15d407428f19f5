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
#include <string>
#include <thread>

#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"
#include "source_utilities/Logger.hpp"
#include "tsp_server/ExperimentKinds.hpp"
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
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      help = true;
      return 0;
    }
    if ((arg == "--data" || arg == "--port") && i + 1 >= argc) {
      std::fprintf(stderr, "ostrand serve: %s needs a value; see 'ostrand serve --help'\n",
                   arg.c_str());
      return kExitUsage;
    }
    if (arg == "--data") {
      options.dataDir = argv[++i];
    } else if (arg == "--port") {
      char* end = nullptr;
      const long port = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || port < 1 || port > 65535) {
        std::fprintf(stderr, "ostrand serve: --port wants a number from 1 to 65535, not '%s'\n",
                     argv[i]);
        return kExitUsage;
      }
      options.port = static_cast<int>(port);
    } else {
      std::fprintf(stderr, "ostrand serve: unknown option '%s'; see 'ostrand serve --help'\n",
                   arg.c_str());
      return kExitUsage;
    }
  }
  return 0;
}

// `ostrand gen tdf` leaves .tdf recordings beside the data tree; they are
// no captures, so the scan does not show them. Say so rather than serve an
// empty list without a word.
void noteRecordings() {
  const char* user = std::getenv("USERPROFILE");
  if (user == nullptr || *user == '\0') user = std::getenv("HOME");
  if (user == nullptr) return;
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
    ::setenv("USERPROFILE", std::filesystem::absolute(options.dataDir).c_str(), 1);
  } else if (!std::getenv("USERPROFILE") && !std::getenv("HOME")) {
    std::fprintf(stderr, "ostrand serve: set USERPROFILE or HOME, or pass --data DIR\n");
    return kExitUsage;
  }

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
  noteRecordings();
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
