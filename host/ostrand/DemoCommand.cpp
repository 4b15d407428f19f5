// `ostrand demo`: captures of every kind taken the way a debug host takes
// them, then served until Ctrl-C.
//
// The demo is a debug host: it loads the module with the simulated debug
// environment's default scenario active, and sends the same commands a
// host sends (configure the target session, arm a capture, run the
// firmware, halt it, wait for "DataReady"). The firmware really runs under
// QEMU; the trace and power data come from that execution. The module's own
// trace server then serves the captures with the browser viewer. Everything
// goes into a temporary user directory, removed afterwards unless --keep.
//
// `--samples` instead writes generated sample captures of every kind (large
// ones, for trying the viewer on big data) and serves them with `serve`.
#include <httplib.h>
#include <json/json.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ostrand/ExitCodes.hpp"
#include "ostrand/HostSession.hpp"
#include "ostrand/Subcommands.hpp"

namespace ostrand {

namespace {

void printDemoUsage(FILE* out) {
  std::fprintf(out,
               "usage: ostrand demo [--port N] [--keep] [--module PATH]\n"
               "       ostrand demo --samples [--port N] [--size N] [--duration SECONDS] [--keep]\n\n"
               "Takes a capture of every kind as a debug host does, on the simulated targets of\n"
               "the default scenario (their firmware runs under qemu-system-arm): MTB and power\n"
               "on the Cortex-M0+ class CPU, ETB on the Cortex-M4, and a TDF session on a\n"
               "recording of a run. Prints each step, then serves the captures with the\n"
               "module's trace server: the browser viewer on http://localhost:N/, the Trace\n"
               "Server Protocol on http://localhost:N/tsp/api. Stops on Ctrl-C.\n\n"
               "  --port N            TCP port on localhost (default 1239)\n"
               "  --keep              leave the captures' directory in place afterwards\n"
               "  --module PATH       the module to load (default: the one built beside this\n"
               "                      program, or $OSTRAND_MODULE)\n"
               "  --samples           serve generated sample captures of every kind instead\n"
               "                      (MTB, TDF, placeholders, Wattline of every record and\n"
               "                      state format, and one long Wattline capture)\n"
               "  --size N            with --samples: records of each MTB and TDF capture\n"
               "                      (default 200000)\n"
               "  --duration SECONDS  with --samples: length of the long Wattline capture at\n"
               "                      100 kHz (default 60)\n"
               "  --help              show this text\n\n"
               "Exit codes: 0 stopped by Ctrl-C or GET /stop; 1 a capture failed; 2 bad options;\n"
               "3 the module or the simulated tool libraries are missing; 5 the port is taken.\n");
}

struct DemoOptions {
  std::string port = "1239";
  std::string size = "200000";
  std::string duration = "60";
  std::string modulePath = HostSession::defaultModulePath();
  bool keep = false;
  bool samples = false;
};

// Runs a subcommand with the given arguments (the first is its name).
int runWith(int (*sub)(int, char**), std::vector<std::string> args) {
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  return sub(static_cast<int>(args.size()), argv.data());
}

bool isNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::atomic<bool> stopRequested{false};
extern "C" void onStopSignal(int) { stopRequested.store(true); }

// The demo's own temporary user directory; removed on the way out unless kept.
class DemoDirectory {
 public:
  explicit DemoDirectory(bool keep) : keep_(keep) {
    path_ = (std::filesystem::temp_directory_path() / "ostrand-demo-XXXXXX").string();
    if (!::mkdtemp(path_.data())) path_.clear();
  }
  ~DemoDirectory() {
    if (path_.empty()) return;
    if (keep_) {
      std::fprintf(stderr, "ostrand demo: the captures stay in %s\n", path_.c_str());
      return;
    }
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  bool keep_;
};

int runSampleDemo(const DemoOptions& options) {
  DemoDirectory dir(options.keep);
  if (dir.path().empty()) {
    std::perror("ostrand demo: cannot make a temporary directory");
    return kExitFailure;
  }
  std::printf("Sample captures in %s:\n", dir.path().c_str());
  std::fflush(stdout);
  // The server's scan lists every capture it finds, so `gen` lists none.
  int rc = runWith(runGen, {"gen", "all", "--data", dir.path(), "--tree", "live", "--size", options.size,
                            "--quiet"});
  if (rc == kExitOk)
    rc = runWith(runGen, {"gen", "wattline", "--data", dir.path(), "--target", "sim/long_capture",
                          "--duration", options.duration, "--rate", "100000", "--quiet"});
  if (rc == kExitOk) rc = runWith(runServe, {"serve", "--data", dir.path(), "--port", options.port});
  return rc;
}

// What the module says, told as the steps of a capture: trace events by
// target and name, the data locations of a configure, errors.
void narrateOrThrow(const std::string& text) {
  Json::Value root;
  if (!Json::Reader().parse(text, root) || !root.isObject()) return;
  if (root.isMember("error")) {
    std::printf("    error: %s\n", Json::FastWriter().write(root["error"]).c_str());
  } else if (root["event"].asString() == "cloudTrace.traceEvent") {
    const Json::Value& data = root["data"];
    std::string description = data["description"].asString();
    Json::Value status;
    // A status message comes as JSON; the one that hides the message says nothing.
    if (!description.empty() && description[0] == '{' && Json::Reader().parse(description, status)) {
      if (!status["showStatusMsg"].asBool()) return;
      description = status["statusMsg"].asString();
    }
    // The module tells "Collecting data" three ways (status on, status
    // text, plain event); a person needs it once.
    static std::string last;
    std::string told = "    [" + data["target"].asString() + "] " + data["eventName"].asString() + ": " + description;
    if (told == last) return;
    last = told;
    std::printf("%s\n", told.c_str());
  } else if (root["data"].isObject() && root["data"].isMember("dataLocation")) {
    for (const Json::Value& place : root["data"]["dataLocation"]) {
      std::printf("    %s capture of %s goes to %s\n", place["traceType"].asCString(),
                  place["target"].asCString(), place["uri"].asCString());
    }
  }
  std::fflush(stdout);
}

// A text of an unexpected shape is not told; the demo never dies of one.
void narrate(const std::string& text) {
  try {
    narrateOrThrow(text);
  } catch (const std::exception&) {
  }
}

struct Step {
  const char* title;
  std::vector<std::string> lines;
};

std::string configure(const char* command, const char* target, const std::string& session, int id) {
  Json::Value message;
  message["command"] = command;
  message["id"] = id;
  message["data"].append(target);
  message["data"].append(session);
  Json::StreamWriterBuilder one;
  one["indentation"] = "";
  return Json::writeString(one, message);
}

std::string enable(const char* command, const char* target, int id) {
  return std::string("{\"command\":\"") + command + "\",\"id\":" + std::to_string(id) + ",\"data\":[\"" +
         target + "\",true]}";
}

// The road of each capture kind, as a debug host drives it. A run lasts a
// fraction of a second of wall time; the firmware's timer ticks and sleeps
// in between, so the power capture sees both modes.
std::vector<Step> demoSteps(const std::string& tdfFile) {
  // One "DataReady" tells of every capture of the target; the status
  // message is taken down after it.
  const std::string ready = ":wait DataReady 60";
  const std::string done = ":wait \"showStatusMsg\\\":false 30";
  return {
      {"MTB and power capture of microbit/CM0P (Cortex-M0+ class CPU, microbit)",
       {":connect microbit/CM0P",
        configure("cloudTrace.configureTargetSession", "microbit/CM0P",
                  R"({"traceSession":{"MTB":{"enable":true},"Wattline":{"enable":true}}})", 1),
        enable("cloudTrace.enableMTB", "microbit/CM0P", 2), ":wait \"response\":2", enable("cloudTrace.enableWL", "microbit/CM0P", 3),
        ":wait \"response\":3", ":run microbit/CM0P", ":wait Collecting", ":sleep 300", ":halt microbit/CM0P", ready, done}},
      {"ETB capture of mps2/CM4 (Cortex-M4, mps2-an386)",
       {":connect mps2/CM4",
        configure("cloudTrace.configureTargetSession", "mps2/CM4", R"({"traceSession":{"ETB":{"enable":true}}})", 4),
        enable("cloudTrace.enableETB", "mps2/CM4", 5), ":wait \"response\":5", ":run mps2/CM4", ":wait Collecting",
        ":sleep 300", ":halt mps2/CM4", ready, done}},
      {"TDF session on a recording of the last microbit/CM0P run",
       {":save microbit/CM0P " + tdfFile,
        configure("cloudTrace.configureTDFSession", "file/CM0P-run",
                  R"({"traceSession":{"TDF":{"enable":true,"opProp":{"File":")" + tdfFile + R"("}}}})", 6),
        ready, done}},
  };
}

bool serverAnswers(int port) {
  httplib::Client client("127.0.0.1", port);
  client.set_connection_timeout(1, 0);
  client.set_read_timeout(2, 0);
  auto result = client.Get("/tsp/api/health");
  return result && result->status == 200;
}

// Lists what the server offers, as a viewer sees it when it opens: it asks
// for a scan of the live targets first (400 when the scan found nothing
// new), then for the list.
// The TDF capture lies in the file-target tree, which that scan does not
// reach; it is opened by hand, as a viewer opens a recording.
void printExperiments(int port, const std::string& tdfCapture) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(30, 0);
  client.Post("/tsp/api/experiments", R"({"parameters":{"name":"LiveTarget","traces":[]}})",
              "application/json");
  Json::Value open, trace;
  open["parameters"]["uri"] = tdfCapture;
  open["parameters"]["name"] = "CM0P-run";
  open["parameters"]["typeID"] = "TDF";
  auto opened = client.Post("/tsp/api/traces", Json::FastWriter().write(open), "application/json");
  if (opened && opened->status == 200 && Json::Reader().parse(opened->body, trace) && trace.isObject()) {
    Json::Value experiment;
    experiment["parameters"]["name"] = "CM0P-run";
    experiment["parameters"]["traces"].append(trace["UUID"]);
    client.Post("/tsp/api/experiments", Json::FastWriter().write(experiment), "application/json");
  }
  auto result = client.Get("/tsp/api/experiments");
  Json::Value list;
  if (!result || result->status != 200 || !Json::Reader().parse(result->body, list) || !list.isArray()) {
    std::printf("The trace server did not list its experiments.\n");
    return;
  }
  std::printf("The trace server offers %u experiment%s:\n", list.size(), list.size() == 1 ? "" : "s");
  for (const Json::Value& e : list) std::printf("  %s\n", e["name"].asString().c_str());
}

int runCaptureDemo(const DemoOptions& options) {
  DemoDirectory dir(options.keep);
  if (dir.path().empty()) {
    std::perror("ostrand demo: cannot make a temporary directory");
    return kExitFailure;
  }
  const int port = std::stoi(options.port);
  // The module finds its user directory and its server's port in the
  // environment, as it does in a debug host.
  ::setenv("USERPROFILE", dir.path().c_str(), 1);
  ::unsetenv("QX_TRACE_DATA_DIR");
  ::setenv("OSTRAND_TSP_PORT", options.port.c_str(), 1);
  if (serverAnswers(port)) {
    std::fprintf(stderr, "ostrand demo: port %d is taken by another trace server; pass --port N\n", port);
    return kExitUnavailable;
  }
  std::printf("Captures go to %s/.QX-trace/data\n", dir.path().c_str());

  // Ctrl-C between steps ends the demo cleanly: CPUs halted, session
  // stopped, directory removed.
  struct sigaction action = {};
  action.sa_handler = onStopSignal;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  HostSession session(narrate);
  std::string error;
  if (int rc = session.open({options.modulePath, true, ""}, error); rc != kExitOk) {
    std::fprintf(stderr, "ostrand demo: %s\n", error.c_str());
    return rc;
  }
  int exitCode = kExitOk;
  for (const Step& step : demoSteps(dir.path() + "/CM0P-run.tdf")) {
    std::printf("\n== %s ==\n", step.title);
    std::fflush(stdout);
    for (const std::string& line : step.lines) {
      if (stopRequested.load()) break;
      if (session.line(line, error) == kExitOk) continue;
      std::printf("    failed: %s\n", error.c_str());
      exitCode = kExitFailure;
      break;
    }
  }
  std::printf("\n");
  if (!serverAnswers(port)) {
    std::fprintf(stderr, "ostrand demo: the module's trace server does not answer on port %d\n", port);
    session.close(5);
    return exitCode == kExitOk ? kExitUnavailable : exitCode;
  }
  printExperiments(port, dir.path() + "/.QX-trace/data/file-targets/file/CM0P-run/TDF");
  std::printf("Viewer: open http://localhost:%d/ in a browser\n", port);
  std::printf("Trace Server Protocol: http://localhost:%d/tsp/api (Ctrl-C stops)\n", port);
  std::fflush(stdout);

  // The server also stops on GET /stop; the demo then ends with it.
  int quietChecks = 0;
  while (!stopRequested.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    if (++quietChecks % 10 == 0 && !serverAnswers(port)) break;
  }
  std::printf("\nStopping.\n");
  std::string ignored;
  session.line(R"({"command":"cloudTrace.stopSession","id":99})", ignored);
  session.close(10);
  return exitCode;
}

}  // namespace

int runDemo(int argc, char** argv) {
  DemoOptions options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      printDemoUsage(stdout);
      return kExitOk;
    }
    if (arg == "--keep" || arg == "--samples") {
      (arg == "--keep" ? options.keep : options.samples) = true;
      continue;
    }
    if (arg == "--module" && i + 1 < argc) {
      options.modulePath = argv[++i];
      continue;
    }
    std::string* value = arg == "--port" ? &options.port
                         : arg == "--size" ? &options.size
                         : arg == "--duration" ? &options.duration
                                               : nullptr;
    if (!value) {
      std::fprintf(stderr, "ostrand demo: unknown option '%s'; see 'ostrand demo --help'\n",
                   arg.c_str());
      return kExitUsage;
    }
    if (i + 1 >= argc || !isNumber(argv[i + 1])) {
      std::fprintf(stderr, "ostrand demo: %s wants a whole number; see 'ostrand demo --help'\n",
                   arg.c_str());
      return kExitUsage;
    }
    *value = argv[++i];
  }
  if (std::stoul(options.port.substr(0, 6)) > 65535 || options.port == "0") {
    std::fprintf(stderr, "ostrand demo: --port wants 1 to 65535; see 'ostrand demo --help'\n");
    return kExitUsage;
  }
  return options.samples ? runSampleDemo(options) : runCaptureDemo(options);
}

}  // namespace ostrand
