// `ostrand gen`: writes sample capture directories as the capture side
// leaves them, so the trace server has something real to serve without a
// probe.
//
// Each kind writes a capture directory with its `metadata` file and, except
// for placeholders, its data file. The files are made by the sample capture
// writers (experiments/generator, wattline/generator), which the tests and
// benchmarks share; this file is the command line.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "experiments/generator/SampleCaptureWriter.hpp"
#include "ostrand/ArgReader.hpp"
#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"
#include "wattline/generator/WLCaptureGenerator.hpp"

namespace ostrand {
namespace {

namespace fs = std::filesystem;
namespace samples = VSKTspServer::samples;

void printGenUsage(FILE* out) {
  std::fprintf(
      out,
      "usage: ostrand gen mtb|tdf|tdf-table|placeholder|wattline|all [options]\n\n"
      "Write sample capture directories (a `metadata` file and a data file) into a\n"
      "data tree, as a capture leaves them, for `ostrand serve` and the tests.\n\n"
      "Kinds:\n"
      "  mtb           an MTB capture: runs of code with instructions, source lines\n"
      "                and blocked (secure) markers, mtb_data.json\n"
      "  tdf           a .tdf recording of a simulated CPU's run, to open with a TDF\n"
      "                session; it has options of its own: see 'ostrand gen tdf --help'\n"
      "  tdf-table     a decoded TDF capture: a table of columns and rows,\n"
      "                tdf_data.json, as a TDF session leaves it\n"
      "  placeholder   MTB, ETB and TDF captures with only their `metadata`, as\n"
      "                written before any data has arrived\n"
      "  wattline      a power capture (WLData.bin with its state description);\n"
      "                it has options of its own: see 'ostrand gen wattline --help'\n"
      "  all           all of them, each on its own target; for wattline one capture\n"
      "                of every record kind and state description (sim/wl_*), with\n"
      "                --size samples each\n\n"
      "Options:\n"
      "  --data DIR    user directory; captures go below DIR/.QX-trace/data\n"
      "                (default: $USERPROFILE, else $HOME)\n"
      "  --target T    target path, \"/\" between levels (one kind only; defaults:\n"
      "                mtb Probe/Cortex_M4_0, tdf-table file/recording,\n"
      "                placeholder Probe/Cortex_M0_1)\n"
      "  --size N      instructions (mtb) or rows (tdf-table); default 10000, up to\n"
      "                100000000\n"
      "  --seed S      seed of the pseudo-random data (default 1)\n"
      "  --tree T      where TDF tables go: \"file\" (file-targets, as a capture\n"
      "                leaves them; default) or \"live\" (live-targets, so that\n"
      "                `ostrand serve` finds them by its scan)\n"
      "  --quiet       do not list the capture directories written\n"
      "  --help        show this text\n\n"
      "Prints the capture directories it wrote. Existing files are replaced.\n");
}

constexpr uint64_t kMaxSize = 100'000'000;

struct GenOptions {
  std::string kind;
  std::string dataDir;
  std::string target;
  uint64_t size = 10'000;
  uint64_t seed = 1;
  bool liveTdf = false;
  bool quiet = false;  // no list of the directories written
};

// Progress on stderr when it is a terminal, at most once per percent.
class Progress {
 public:
  explicit Progress(std::string label)
      : label(std::move(label)), shown(isatty(STDERR_FILENO) != 0) {}
  // `done` from 0 to 1.
  void update(double done) {
    if (!shown) return;
    const int percent = static_cast<int>(done * 100);
    if (percent == last) return;
    last = percent;
    std::fprintf(stderr, "\r%s: %3d%%", label.c_str(), percent);
  }
  ~Progress() {
    if (shown && last >= 0) std::fprintf(stderr, "\r%s: done\n", label.c_str());
  }

 private:
  std::string label;
  bool shown;
  int last = -1;
};

// <data>/<tree>/<target levels>/<kind>, created.
std::string captureDir(const GenOptions& o, const std::string& tree, const std::string& target,
                       const std::string& kind) {
  return samples::captureDirectory(o.dataDir, tree, target, kind);
}

// ---- The kinds ----------------------------------------------------------

int failWrite(const std::string& path) {
  std::fprintf(stderr, "ostrand gen: cannot write '%s': %s; check the --data directory\n",
               path.c_str(), std::strerror(errno));
  return kExitFailure;
}

int genMtb(const GenOptions& o, const std::string& target) {
  const std::string dir = captureDir(o, "live-targets", target, "MTB");
  if (!samples::writeMetadataFile(dir, "MTB", target, "mtb_data.json"))
    return failWrite(dir + "/metadata");
  Progress progress("mtb_data.json");
  if (!samples::writeMtbDocument(dir + "/mtb_data.json", o.size, o.seed,
                                 [&](double done) { progress.update(done); }))
    return failWrite(dir + "/mtb_data.json");
  if (!o.quiet) std::printf("%s\n", dir.c_str());
  return kExitOk;
}

int genTdf(const GenOptions& o, const std::string& target) {
  const std::string dir = captureDir(o, o.liveTdf ? "live-targets" : "file-targets", target, "TDF");
  if (!samples::writeMetadataFile(dir, "TDF", target, "tdf_data.json"))
    return failWrite(dir + "/metadata");
  Progress progress("tdf_data.json");
  if (!samples::writeTdfDocument(dir + "/tdf_data.json", o.size, o.seed,
                                 [&](double done) { progress.update(done); }))
    return failWrite(dir + "/tdf_data.json");
  if (!o.quiet) std::printf("%s\n", dir.c_str());
  return kExitOk;
}

// Only the metadata: the data file it names does not exist yet.
int genPlaceholder(const GenOptions& o, const std::string& target) {
  const struct {
    const char* kind;
    const char* dataFile;
    bool fileTree;
  } kinds[] = {{"MTB", "mtb_data.json", false},
               {"ETB", "etb_data.json", false},
               {"TDF", "tdf_data.json", !o.liveTdf}};
  for (const auto& k : kinds) {
    const std::string dir =
        captureDir(o, k.fileTree ? "file-targets" : "live-targets", target, k.kind);
    std::error_code ec;
    fs::remove(fs::path(dir) / k.dataFile, ec);
    if (!samples::writeMetadataFile(dir, k.kind, target, k.dataFile))
      return failWrite(dir + "/metadata");
    if (!o.quiet) std::printf("%s\n", dir.c_str());
  }
  return kExitOk;
}

// Every kind of power capture the server reads: plain records, and records
// with state words under each version of the state description. Each goes
// to a target of its own, so each becomes an experiment of its own.
int genWattlineSet(const GenOptions& o, const std::string& target) {
  using VSKTspServer::WLStateLayout;
  const struct {
    const char* device;
    uint32_t recordType;
    WLStateLayout layout;
  } captures[] = {{"wl_plain", 8, WLStateLayout::kNone},
                  {"wl_v2", 7, WLStateLayout::kV2},
                  {"wl_v2_enums", 7, WLStateLayout::kV2Enums},
                  {"wl_v4", 7, WLStateLayout::kV4},
                  {"wl_v5", 7, WLStateLayout::kV5}};
  for (const auto& c : captures) {
    VSKTspServer::WLGeneratorOptions options;
    options.recordType = c.recordType;
    options.layout = c.layout;
    options.device = target + "/" + c.device;
    options.seed = o.seed;
    options.sampleRate = 10'000;
    options.durationSeconds = static_cast<double>(o.size) / options.sampleRate;
    const std::string dir = captureDir(o, "live-targets", options.device, "Wattline");
    Progress progress(options.device);
    try {
      VSKTspServer::writeCaptureDirectory(dir, options,
                                          [&](double done) { progress.update(done); });
    } catch (const std::exception& e) {
      std::fprintf(stderr, "ostrand gen: %s; check the --data directory and the free space\n",
                   e.what());
      return kExitFailure;
    }
    if (!o.quiet) std::printf("%s\n", dir.c_str());
  }
  return kExitOk;
}

struct Kind {
  const char* name;
  const char* defaultTarget;
  // Kinds that share the options above.
  int (*run)(const GenOptions&, const std::string&);
  // Kinds with options of their own get the command line from the kind on
  // (argv[0] is the kind) and are not part of `all`.
  int (*runWithArgs)(int argc, char** argv);
};

// One row per kind of capture. A new kind adds its row here, with `run`
// when the options above fit it, else with `runWithArgs`.
constexpr Kind kKinds[] = {
    {"mtb", "Probe/Cortex_M4_0", genMtb, nullptr},
    {"tdf-table", "file/recording", genTdf, nullptr},
    // `gen tdf ...` runs a simulated CPU and saves a recording (GenTdfCommand.cpp).
    {"tdf", "", nullptr, runGenTdf},
    {"placeholder", "Probe/Cortex_M0_1", genPlaceholder, nullptr},
    // `gen wattline ...` takes its own options; `gen all` writes the set.
    {"wattline", "sim", genWattlineSet, runGenWattline},
};

bool parseNumber(const char* text, uint64_t& value) {
  if (*text == '\0' || *text == '-') return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long long parsed = std::strtoull(text, &end, 10);
  if (*end != '\0' || errno != 0) return false;
  value = parsed;
  return true;
}

// 0 when the options are good, else the exit code (the message is printed).
int parseGenOptions(int argc, char** argv, GenOptions& o, bool& help) {
  ArgReader args("ostrand gen", argc, argv);
  std::string value;
  while (args.next()) {
    if (args.isHelp()) {
      help = true;
      return 0;
    }
    if (args.is("--quiet")) {
      o.quiet = true;
      continue;
    }
    if (!args.isOption()) {
      if (!o.kind.empty()) {
        return args.fail("one kind at a time ('" + args.arg() + "' after '" + o.kind +
                         "'); use 'all'");
      }
      o.kind = args.arg();
      continue;
    }
    if (!args.isAny({"--data", "--target", "--size", "--seed", "--tree"}) || !args.value(value))
      return args.fail();
    if (args.is("--data")) {
      o.dataDir = value;
    } else if (args.is("--target")) {
      if (!isTargetBelowTree(value)) {
        return args.fail("--target '" + value +
                         "' may not hold '.' or '..' levels; it names directories below the "
                         "data tree");
      }
      o.target = value;
    } else if (args.is("--size")) {
      if (!parseNumber(value.c_str(), o.size) || o.size < 1 || o.size > kMaxSize) {
        return args.fail("--size wants a number from 1 to " + std::to_string(kMaxSize) + ", not '" +
                         value + "'");
      }
    } else if (args.is("--seed")) {
      if (!parseNumber(value.c_str(), o.seed))
        return args.fail("--seed wants a non-negative number, not '" + value + "'");
    } else if (args.is("--tree")) {
      if (value != "live" && value != "file")
        return args.fail("--tree is \"live\" or \"file\", not '" + value + "'");
      o.liveTdf = value == "live";
    } else {
      return args.fail();
    }
  }
  return 0;
}

}  // namespace

int runGen(int argc, char** argv) {
  if (argc >= 2) {
    for (const Kind& kind : kKinds) {
      if (kind.runWithArgs && std::strcmp(argv[1], kind.name) == 0) {
        return kind.runWithArgs(argc - 1, argv + 1);
      }
    }
  }
  GenOptions o;
  bool help = false;
  if (int rc = parseGenOptions(argc, argv, o, help); rc != 0) return rc;
  if (help) {
    printGenUsage(stdout);
    return kExitOk;
  }
  if (o.kind.empty()) {
    std::fprintf(stderr, "ostrand gen: say which kind to write: mtb, tdf, tdf-table, placeholder, wattline or all\n");
    return kExitUsage;
  }
  o.dataDir = userDirectoryOr(o.dataDir, "ostrand gen", "--data DIR");
  if (o.dataDir.empty()) return kExitUsage;
  const bool all = o.kind == "all";
  if (all && !o.target.empty()) {
    std::fprintf(stderr, "ostrand gen: --target goes with one kind; 'all' uses one target each\n");
    return kExitUsage;
  }
  bool known = false;
  try {
    for (const Kind& kind : kKinds) {
      if (!kind.run || (!all && o.kind != kind.name)) continue;
      known = true;
      const std::string target = o.target.empty() ? kind.defaultTarget : o.target;
      if (int rc = kind.run(o, target); rc != kExitOk) return rc;
    }
  } catch (const fs::filesystem_error& e) {
    std::fprintf(stderr, "ostrand gen: cannot create the capture directory: %s\n", e.what());
    return kExitFailure;
  }
  if (!known) {
    std::fprintf(stderr,
                 "ostrand gen: unknown kind '%s'; choose mtb, tdf, tdf-table, placeholder, wattline or all\n",
                 o.kind.c_str());
    return kExitUsage;
  }
  return kExitOk;
}

}  // namespace ostrand
