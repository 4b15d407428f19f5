// `ostrand demo`: sample captures of every kind in a temporary user
// directory, served with the trace server and its browser viewer until
// Ctrl-C. The directory is removed afterwards unless --keep is given.
//
// It is `gen all`, `gen wattline` and `serve` run in order in this process,
// so what the demo shows is exactly what those subcommands make and serve.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"

namespace ostrand {

namespace {

void printDemoUsage(FILE* out) {
  std::fprintf(out,
               "usage: ostrand demo [--port N] [--size N] [--duration SECONDS] [--keep]\n\n"
               "Write sample captures of every kind (MTB, TDF, placeholders, Wattline of every\n"
               "record and state format, and one long Wattline capture) into a temporary user\n"
               "directory and serve them: the browser viewer on http://localhost:N/, the Trace\n"
               "Server Protocol on http://localhost:N/tsp/api. Stops on Ctrl-C.\n\n"
               "  --port N            TCP port on localhost (default 1239)\n"
               "  --size N            records of each MTB and TDF capture (default 200000)\n"
               "  --duration SECONDS  length of the long Wattline capture at 100 kHz (default 60)\n"
               "  --keep              leave the directory in place afterwards\n"
               "  --help              show this text\n");
}

struct DemoOptions {
  std::string port = "1239";
  std::string size = "200000";
  std::string duration = "60";
  bool keep = false;
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

}  // namespace

int runDemo(int argc, char** argv) {
  DemoOptions options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      printDemoUsage(stdout);
      return kExitOk;
    }
    if (arg == "--keep") {
      options.keep = true;
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

  std::string dir = (std::filesystem::temp_directory_path() / "ostrand-demo-XXXXXX").string();
  if (!::mkdtemp(dir.data())) {
    std::perror("ostrand demo: cannot make a temporary directory");
    return kExitFailure;
  }
  // The server's scan lists every capture it finds, so `gen` lists none.
  std::printf("Sample captures in %s:\n", dir.c_str());
  std::fflush(stdout);
  int rc = runWith(
      runGen, {"gen", "all", "--data", dir, "--tree", "live", "--size", options.size, "--quiet"});
  if (rc == kExitOk)
    rc = runWith(runGen, {"gen", "wattline", "--data", dir, "--target", "sim/long_capture",
                          "--duration", options.duration, "--rate", "100000", "--quiet"});
  if (rc == kExitOk) rc = runWith(runServe, {"serve", "--data", dir, "--port", options.port});
  if (options.keep) {
    std::fprintf(stderr, "ostrand demo: the captures stay in %s\n", dir.c_str());
  } else {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  return rc;
}

}  // namespace ostrand
