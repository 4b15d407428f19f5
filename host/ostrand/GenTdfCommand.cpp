// `ostrand gen tdf`: runs a CPU of a scenario of the simulated debug
// environment and saves the run as a .tdf recording, the file a TDF session
// opens. The tool libraries of the build tree do the work, through their
// control entry point, as `shell --sim` drives them.
#include <dlfcn.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "ostrand/ArgReader.hpp"
#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"
#include "sim/SimControl.hpp"

namespace ostrand {

namespace {

namespace fs = std::filesystem;

void printGenTdfUsage(FILE* out) {
  std::fprintf(
      out,
      "usage: ostrand gen tdf [options]\n\n"
      "Run a CPU of a simulated scenario under trace and save the run as a .tdf\n"
      "recording: the trace bytes its trace unit held, the CPU, receiver and\n"
      "program, and the settings of the run. A recording is opened by a TDF session\n"
      "(cloudTrace.configureTDFSession with the file), which decodes it into the\n"
      "table a viewer shows; `ostrand serve` does not list recordings.\n\n"
      "  --scenario FILE     scenario to run (default: the default scenario beside\n"
      "                      the tool libraries)\n"
      "  --cpu NAME          CPU to run; it needs an MTB or ETB route (default microbit/CM0P)\n"
      "  --instructions N    instructions to run, 1 to 100000000 (default 5000)\n"
      "  --out FILE          the recording to write (default:\n"
      "                      <data>/.QX-trace/recordings/<CPU>.tdf)\n"
      "  --data DIR          user directory for the default --out (default:\n"
      "                      $USERPROFILE, else $HOME)\n"
      "  --module PATH       the module whose tree holds the tool libraries (default:\n"
      "                      the one built beside this program, or $OSTRAND_MODULE)\n"
      "  --help              show this text\n\n"
      "For a decoded TDF table that `ostrand serve` shows without a session, see\n"
      "'ostrand gen tdf-table'.\n");
}

struct Options {
  std::string scenario, cpu = "microbit/CM0P", out, dataDir, module;
  uint64_t instructions = 5000;
};

constexpr uint64_t kMaxInstructions = 100'000'000;

// 0 when the options are good, else the exit code (the message is printed).
int parse(int argc, char** argv, Options& o, bool& help) {
  ArgReader args("ostrand gen tdf", argc, argv);
  std::string value;
  while (args.next()) {
    if (args.isHelp()) {
      help = true;
      return kExitOk;
    }
    if (!args.isAny({"--scenario", "--cpu", "--instructions", "--out", "--data", "--module"}) ||
        !args.value(value))
      return args.fail();
    if (args.is("--instructions")) {
      char* end = nullptr;
      errno = 0;
      const unsigned long long n = std::strtoull(value.c_str(), &end, 10);
      if (value.empty() || value[0] == '-' || *end != '\0' || errno != 0 || n < 1 || n > kMaxInstructions) {
        return args.fail("--instructions wants a number from 1 to " + std::to_string(kMaxInstructions) +
                         ", not '" + value + "'");
      }
      o.instructions = n;
    } else {
      std::string& field = args.is("--scenario") ? o.scenario
                           : args.is("--cpu")    ? o.cpu
                           : args.is("--out")    ? o.out
                           : args.is("--data")   ? o.dataDir
                                                 : o.module;
      field = value;
    }
  }
  return kExitOk;
}

std::string defaultModule() {
  if (const char* env = std::getenv("OSTRAND_MODULE"); env != nullptr && *env != '\0') return env;
#ifdef OSTRAND_DEFAULT_MODULE
  return OSTRAND_DEFAULT_MODULE;
#else
  return "libOstrand.so";
#endif
}

template <typename F>
F entry(void* library, const char* name) {
  return reinterpret_cast<F>(dlsym(library, name));
}

}  // namespace

int runGenTdf(int argc, char** argv) {
  Options o;
  bool help = false;
  if (int rc = parse(argc, argv, o, help); rc != kExitOk) return rc;
  if (help) {
    printGenTdfUsage(stdout);
    return kExitOk;
  }
  if (o.out.empty()) {
    o.dataDir = userDirectoryOr(o.dataDir, "ostrand gen tdf", "--data DIR or --out FILE");
    if (o.dataDir.empty()) return kExitUsage;
    o.out = (fs::path(o.dataDir) / ".QX-trace" / "recordings" / (fs::path(o.cpu).filename().string() + ".tdf")).string();
  }
  std::error_code ec;
  const fs::path out = fs::absolute(o.out, ec).lexically_normal();
  fs::create_directories(out.parent_path(), ec);

  const fs::path module = fs::absolute(o.module.empty() ? defaultModule() : o.module, ec);
  const fs::path toolDir = (module.parent_path().parent_path() / "emulation" / "analysis" / "bin").lexically_normal();
  void* library = dlopen((toolDir / "libhemlock.so").c_str(), RTLD_NOW);
  if (library == nullptr || dlsym(library, "OstrandSim_Save") == nullptr) {
    std::fprintf(stderr,
                 "ostrand gen tdf: the simulated tool libraries are not at %s (build the project, or pass "
                 "--module with the module of a complete tree)\n",
                 toolDir.c_str());
    return kExitNoModule;
  }
  auto lastError = entry<OstrandSim_LastError_t>(library, "OstrandSim_LastError");
  auto step = [&](int32_t result, const std::string& what) {
    if (result >= 0) return true;
    std::fprintf(stderr, "ostrand gen tdf: %s: %s\n", what.c_str(), lastError());
    return false;
  };
  const char* cpu = o.cpu.c_str();
  // A generous bound: the slowest executor runs about a million
  // instructions a second.
  const uint32_t timeoutMs = static_cast<uint32_t>(30000 + o.instructions / 100);
  const bool ok =
      step(entry<OstrandSim_LoadScenario_t>(library, "OstrandSim_LoadScenario")(o.scenario.c_str()), "scenario") &&
      step(entry<OstrandSim_Connect_t>(library, "OstrandSim_Connect")(cpu), "connect " + o.cpu) &&
      step(entry<OstrandSim_Run_t>(library, "OstrandSim_Run")(cpu, o.instructions), "run " + o.cpu) &&
      step(entry<OstrandSim_WaitHalted_t>(library, "OstrandSim_WaitHalted")(cpu, timeoutMs), "run " + o.cpu) &&
      step(entry<OstrandSim_Save_t>(library, "OstrandSim_Save")(cpu, out.c_str()), "save " + o.cpu);
  if (!ok) return kExitFailure;
  entry<OstrandSim_Disconnect_t>(library, "OstrandSim_Disconnect")(cpu);
  std::printf("%s\n", out.c_str());
  // The advice is a command to paste, so it is written as JSON (the path may
  // hold quotes or backslashes); the target is named after the recording,
  // without the CPU's "board/" prefix, so the table lands one level below
  // file-targets/file.
  const std::string target = "file/" + fs::path(out).stem().string();
  nlohmann::ordered_json configuration;
  configuration["traceSession"]["TDF"] = {{"enable", true}, {"opProp", {{"File", out}}}};
  const nlohmann::ordered_json command = {{"command", "cloudTrace.configureTDFSession"},
                                  {"id", 1},
                                  {"data", {target, configuration.dump()}}};
  std::fprintf(stderr,
               "ostrand gen tdf: saved %" PRIu64 " instructions of %s as the recording above.\n"
               "A recording is not a capture directory: `ostrand serve` does not list it. Open it\n"
               "with a TDF session, e.g. in `ostrand shell --sim`:\n"
               "  %s\n"
               "The decoded table then lies in <home>/.QX-trace/data/file-targets/%s/TDF.\n",
               o.instructions, cpu, command.dump().c_str(), target.c_str());
  return kExitOk;
}

}  // namespace ostrand
